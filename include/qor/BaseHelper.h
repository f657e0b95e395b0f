/// @file
/// The base classes over the operating system: locks and signals, shared memory, and what waits on
/// descriptors.
///
/// This header is the face of the namespace; each chapter stands alone:
/// - `BaseHelper/Sync.h`: mutexes, events and locks, across processes and inside one.
/// - `BaseHelper/Share.h`: named shared memory and the frame that builds one object in it exactly once.
/// - `BaseHelper/Select.h`: descriptor sets and their time-outs.
#ifndef QOR_BASEHELPER_H
#define QOR_BASEHELPER_H

#include "qor/BaseHelper/Select.h"
#include "qor/BaseHelper/Share.h"
#include "qor/BaseHelper/Sync.h"

#endif
