/// @file
/// The base classes over the operating system: locks and signals, shared memory, what waits on descriptors, time,
/// geometry, the console and directories.
///
/// This header includes the whole namespace; each part can be included alone:
/// - `BaseHelper/Sync.h`: mutexes, events and locks, across processes and inside one.
/// - `BaseHelper/Share.h`: named shared memory and the frame that builds one object in it exactly once.
/// - `BaseHelper/Select.h`: descriptor sets and their time-outs.
/// - `BaseHelper/Time.h`: calendar times.
/// - `BaseHelper/Tick.h`: the tick since boot that all processes share, and time-outs.
/// - `BaseHelper/Geometry.h`: points, sizes and rectangles.
/// - `BaseHelper/Console.h`: keys and lines from a terminal.
/// - `BaseHelper/Directory.h`: the entries of a directory.
#ifndef QOR_BASEHELPER_H
#define QOR_BASEHELPER_H

#include "qor/BaseHelper/Console.h"
#include "qor/BaseHelper/Directory.h"
#include "qor/BaseHelper/Geometry.h"
#include "qor/BaseHelper/Select.h"
#include "qor/BaseHelper/Share.h"
#include "qor/BaseHelper/Sync.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/BaseHelper/Time.h"

#endif
