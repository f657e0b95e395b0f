// GLib's main loop, which GTK programs and many others run.
#include <glib-unix.h>

#include "loops.h"
#include "qor/flat.h"

namespace loops {

namespace {

gboolean onReadable(gint, GIOCondition, gpointer pLoop) {
    if (msgProcessPending(messagesAtOnce) >= 0)
        return G_SOURCE_CONTINUE;
    g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
    return G_SOURCE_REMOVE;
}

}  // namespace

int runWithGlib() {
    GMainLoop* const pLoop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(msgGetPollFd(), G_IO_IN, onReadable, pLoop);
    g_main_loop_run(pLoop);
    g_main_loop_unref(pLoop);
    return msgDefaultThreadRun();  // returns the exit code at once
}

}  // namespace loops
