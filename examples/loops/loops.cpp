#include "loops.h"

namespace loops {

std::vector<loop> allLoops() {
    return {
        {"poll", runWithPoll},
#ifdef QOR_LOOPS_GLIB
        {"glib", runWithGlib},
#endif
#ifdef QOR_LOOPS_UV
        {"uv", runWithUv},
#endif
#ifdef QOR_LOOPS_SYSTEMD
        {"systemd", runWithSystemd},
#endif
    };
}

}  // namespace loops
