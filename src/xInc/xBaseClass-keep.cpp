// Keeping the key files in use young, so that no cleaner of /tmp takes them for forgotten.
//
// The process keeps a list of the key files of its open objects. Once an hour it looks at each of them and sets the
// times of those that are older than an hour to now. Registered threads do this while they are idle; in a process
// without idle threads, the next release of a segment's lock does. Both compare the day clock, in whole seconds, which
// costs no kernel call where the platform offers it. It is the clock that a cleaner compares with: after it was set
// forth, as on a device without a battery, all files are old at once.
#include <time.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "qor/BaseHelper/Sync.h"
#include "xInc/keyfile.h"
#include "xInc/platform.h"

namespace QOR_BaseHelper {

using namespace QOR_Platform;

namespace {

constexpr uint32_t pauseOfLooks = 3600;  // seconds between two looks by idle threads
constexpr uint32_t graceForIdle = 300;   // seconds that other threads leave to them
constexpr long long maxAge = 3600;       // seconds; an older file is refreshed

std::atomic<uint32_t> s_uLastLook{0};

// Modulo 2^32.
uint32_t secondNow() { return static_cast<uint32_t>(time(nullptr)); }

// Every path and how many open objects it has. A leaf among the locks.
struct keyFileList {
    std::mutex mutex;
    std::map<std::string, int> mapCount;
};

// Never destroyed: threads may run while the process exits.
keyFileList& list() {
    static keyFileList* const s_pList = new keyFileList;
    return *s_pList;
}

// A child finds the list complete, and its lock free. What else a fork does may close objects, and so needs the list:
// this is registered before all of that, so that the lock is taken last, and is released first.
__attribute__((constructor(101))) void hookForks() {
    callAtFork([]() { list().mutex.lock(); }, []() { list().mutex.unlock(); }, []() { list().mutex.unlock(); });
}

std::vector<std::string> pathsInUse() {
    std::vector<std::string> arrPath;
    const std::lock_guard<std::mutex> lock(list().mutex);
    for (const auto& entry : list().mapCount)
        arrPath.push_back(entry.first);
    return arrPath;
}

// Of several threads that find the look due, one does it. A clock that was set back makes it due as well.
void lookWhenDue(uint32_t uPause) {
    uint32_t uLast = s_uLastLook.load(std::memory_order_relaxed);
    const uint32_t uNow = secondNow();
    if (__builtin_expect(uNow - uLast < uPause, 1) || !s_uLastLook.compare_exchange_strong(uLast, uNow))
        return;
    const chCancelGuard guardCancel;
    const errnoGuard guardError;
    for (const std::string& strPath : pathsInUse()) {
        fileState state;
        if (lookAt(strPath.c_str(), state))
            refreshKeyFile(strPath.c_str(), state);
    }
}

}  // namespace

void noteKeyFile(const char* lpszPath) {
    const chCancelGuard guard;
    const std::lock_guard<std::mutex> lock(list().mutex);
    if (list().mapCount.empty())
        s_uLastLook.store(secondNow(), std::memory_order_relaxed);
    ++list().mapCount[lpszPath];
}

void forgetKeyFile(const char* lpszPath) {
    const chCancelGuard guard;
    const std::lock_guard<std::mutex> lock(list().mutex);
    const auto it = list().mapCount.find(lpszPath);
    if (it != list().mapCount.end() && --it->second == 0)
        list().mapCount.erase(it);
}

void refreshKeyFile(const char* lpszPath, const fileState& state) {
    const long long nOldest = time(nullptr) - maxAge;
    if (state.eKind == kindRegular && (state.nAccessed < nOldest || state.nModified < nOldest))
        refreshFile(lpszPath);
}

void refreshKeyFilesWhenIdle() { lookWhenDue(pauseOfLooks); }

void refreshKeyFilesAtUse() { lookWhenDue(pauseOfLooks + graceForIdle); }

}  // namespace QOR_BaseHelper
