/// @file
/// Looking at a device: what its segments hold, without locking, changing or creating anything.
///
/// The functions here are in the static library `libqorinspect`, which programs link beside libqor; `qor.h` leaves this
/// header out. Image.h takes the picture, View.h says what stands in it, Graph.h who waits for whom.
#ifndef QOR_INSPECTHELPER_H
#define QOR_INSPECTHELPER_H

#include "qor/InspectHelper/Graph.h"
#include "qor/InspectHelper/Image.h"
#include "qor/InspectHelper/View.h"

#endif
