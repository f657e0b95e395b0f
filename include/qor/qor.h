/// @file
/// The whole library.
#ifndef QOR_QOR_H
#define QOR_QOR_H

#include "qor/AllocHelper.h"
#include "qor/ArrayHelper.h"
#include "qor/BaseHelper.h"
#include "qor/ChainHelper.h"
#include "qor/FileHelper.h"
#include "qor/ListHelper.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper.h"
#include "qor/RegularExpressHelper.h"
#include "qor/RegistryHelper.h"
#include "qor/StringHelper.h"
#include "qor/SubClass.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"

#endif
