/// @file
/// Looking at a device: what its segments hold, without locking, changing or creating anything.
///
/// The functions here are in the static library `libqorinspect`, which programs link in addition to libqor; `qor.h`
/// does not include this header. Image.h takes the image, View.h says what is in it, Graph.h who waits for whom.
#ifndef QOR_INSPECTHELPER_H
#define QOR_INSPECTHELPER_H

#include "qor/InspectHelper/Graph.h"
#include "qor/InspectHelper/Image.h"
#include "qor/InspectHelper/View.h"

#endif
