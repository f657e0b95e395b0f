/// @file
/// The registry: configuration that all processes of the device share, and the telling of its changes.
///
/// Read Store.h, then Monitor.h. Programs that need no classes use flat.h; those that want strings returned,
/// SubClass.h.
#ifndef QOR_REGISTRYHELPER_H
#define QOR_REGISTRYHELPER_H

#include "qor/RegistryHelper/Monitor.h"
#include "qor/RegistryHelper/Store.h"

#endif
