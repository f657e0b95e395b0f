// The event loop of libsystemd.
#include <systemd/sd-event.h>

#include "loops.h"
#include "qor/flat.h"

namespace loops {

namespace {

int onReadable(sd_event_source* pSource, int, uint32_t, void*) {
    return msgProcessPending(messagesAtOnce) >= 0 ? 0 : sd_event_exit(sd_event_source_get_event(pSource), 0);
}

}  // namespace

int runWithSystemd() {
    sd_event* pEvent = nullptr;
    sd_event_new(&pEvent);
    sd_event_add_io(pEvent, nullptr, msgGetPollFd(), EPOLLIN, onReadable, nullptr);
    sd_event_loop(pEvent);
    sd_event_unref(pEvent);
    return msgDefaultThreadRun();  // returns the exit code at once
}

}  // namespace loops
