// libuv.
#include <uv.h>

#include "loops.h"
#include "qor/flat.h"

namespace loops {

namespace {

void onReadable(uv_poll_t* pPoll, int, int) {
    if (msgProcessPending(messagesAtOnce) < 0)
        uv_close(reinterpret_cast<uv_handle_t*>(pPoll), nullptr);  // the loop ends with its last handle
}

}  // namespace

int runWithUv() {
    uv_loop_t objLoop;
    uv_poll_t objPoll;
    uv_loop_init(&objLoop);
    uv_poll_init(&objLoop, &objPoll, msgGetPollFd());
    uv_poll_start(&objPoll, UV_READABLE, onReadable);
    uv_run(&objLoop, UV_RUN_DEFAULT);
    uv_loop_close(&objLoop);
    return msgDefaultThreadRun();  // returns the exit code at once
}

}  // namespace loops
