/// @file
/// The message system: messages, queues, processors, threads, timers, named objects.
///
/// Read Message.h, Queue.h, Processer.h, Timer.h, Thread.h and ShareHelper.h in this order; Named.h is independent.
/// Programs that need no classes use flat.h.
#ifndef QOR_MSGQUEUEHELPER_H
#define QOR_MSGQUEUEHELPER_H

#include "qor/MsgQueueHelper/Message.h"
#include "qor/MsgQueueHelper/Named.h"
#include "qor/MsgQueueHelper/Processer.h"
#include "qor/MsgQueueHelper/Queue.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "qor/MsgQueueHelper/Thread.h"
#include "qor/MsgQueueHelper/Timer.h"

#endif
