// The end of signals that end a thread's loop; chThreadLocal::QuitOnSignal() begins them.
#ifndef QOR_MSG_SYSTEM_QUIT_SIGNAL_H
#define QOR_MSG_SYSTEM_QUIT_SIGNAL_H

#include "qor/MsgQueueHelper/Thread.h"

namespace QOR_MsgQueueHelper {

// The calling thread unregisters this object, or ends (null): the signals get back their former actions. Waits for the
// end of the helper thread when no other thread has signals.
void forgetQuitSignals(const chThreadLocal* pThread);

}  // namespace QOR_MsgQueueHelper

#endif
