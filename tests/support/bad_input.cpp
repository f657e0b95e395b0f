#include "support/bad_input.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cmath>

#include "qor/flat.h"

namespace qorTest {

namespace {

constexpr const char* szFlat = "sub-interface";
constexpr const char* szMessages = "QORMsgSystem";
constexpr const char* szFile = "QORFile";
constexpr const char* szIniFile = "/tmp/bad_input_later.ini";

int onMessage(simpMSG*) { return -1; }

bool registered(const std::function<bool()>& fnUse) {
    const HTHREAD hThread = msgRegistMainThread("me", onMessage);
    const bool bGood = fnUse();
    msgUnregistMainThread(hThread);
    return bGood;
}

// Numbers that are handles of nothing.
template <class Fn>
bool everyNumber(Fn fnRefuses) {
    for (const uintptr_t u : {uintptr_t(0), uintptr_t(1), uintptr_t(4096), uintptr_t(0xFFFFC), ~uintptr_t(0) - 3})
        if (!fnRefuses(u))
            return false;
    return true;
}

HREGISTRY sectionOf(uintptr_t u) { return reinterpret_cast<HREGISTRY>(u); }
HINIFILE documentOf(uintptr_t u) { return reinterpret_cast<HINIFILE>(u); }

void addLoops(table& listRow) {
    rowsOf(listRow, "msgGetPollFd").fatal("an unregistered thread", szFlat, "pLocalThread != NULL", [] {
        msgGetPollFd();
    });
    rowsOf(listRow, "msgProcessPending")
        .fatal("an unregistered thread", szFlat, "pLocalThread != NULL", [] { msgProcessPending(1); })
        .fatal("no messages at most", szMessages, "nMax > 0",
               [] { registered([] { return msgProcessPending(0) == 0; }); });
    rowsOf(listRow, "msgWatchDescriptor")
        .fatal("an unregistered thread", szFlat, "pLocalThread != NULL", [] { msgWatchDescriptor(0, POLLIN, 0x200); })
        .fatal("an id that is sent", szMessages, "isAlwaysPosted(uMsg)",
               [] { registered([] { return msgWatchDescriptor(0, POLLIN, 0x70001) == 1; }); })
        .good("descriptors that are not open", [] {
            return registered([] {
                return msgWatchDescriptor(-1, POLLIN, 0x200) == 0 && msgWatchDescriptor(9999, POLLIN, 0x200) == 0;
            });
        });
    rowsOf(listRow, "msgQuitOnSignal")
        .fatal("an unregistered thread", szFlat, "pLocalThread != NULL", [] { msgQuitOnSignal(SIGTERM); })
        .good("numbers that are no signal", [] {
            return registered([] {
                return msgQuitOnSignal(0) == 0 && msgQuitOnSignal(-1) == 0 && msgQuitOnSignal(9999) == 0 &&
                       msgQuitOnSignal(SIGKILL) == 0;
            });
        });
    rowsOf(listRow, "qorSetFatalHook").good("no hook", [] { return qorSetFatalHook(NULL, NULL), true; });
    rowsOf(listRow, "msgListThreadNames").good("no buffer and sizes without room", [] {
        return registered([] {
            char szName[4] = "xyz";
            return msgListThreadNames(NULL, 100) == 3 && msgListThreadNames(szName, -1) == 3 &&
                   msgListThreadNames(szName, 1) == 3 && szName[0] == 0;
        });
    });
}

void addCounters(table& listRow) {
    rowsOf(listRow, "accCreateAccumulaterOnce")
        .fatal("no name", szMessages, "lpszName != NULL", [] { accCreateAccumulaterOnce(NULL, 1, 1, 2); })
        .fatal("an empty range", szMessages, "uMax > uMin", [] { accCreateAccumulaterOnce("once", 1, 2, 2); });
    rowsOf(listRow, "accReadAccumulater")
        .fatal("no name", szMessages, "lpszName != NULL", [] { accReadAccumulater(NULL, NULL); })
        .good("a counter that nobody made", [] {
            unsigned int uValue = 7;
            return accReadAccumulater("unknown", &uValue) == 0 && uValue == 7;
        });
}

void addRecords(table& listRow) {
    rowsOf(listRow, "recordOpen")
        .fatal("no name", szFile, "m_pFile == NULL && !textEMPTY(lpszFileName)", [] { recordOpen(NULL, 100, 1); })
        .fatal("no size", szFile, "nMaxSize > 0 && nMaxCount > 0", [] { recordOpen("/tmp/record", 0, 1); })
        .good("a directory", [] { return recordOpen("/tmp", 100, 1) == NULL; });
    rowsOf(listRow, "recordWrite").fatal("no handle", szFlat, "hRecord != NULL", [] { recordWrite(NULL, "r", 0); });
    rowsOf(listRow, "recordSync").fatal("no handle", szFlat, "hRecord != NULL", [] { recordSync(NULL); });
    rowsOf(listRow, "recordClose").good("no handle", [] { return recordClose(NULL), true; });
    rowsOf(listRow, "traceSetFileClock").good("any number", [] { return traceSetFileClock(-1), true; });
}

void addSections(table& listRow) {
    rowsOf(listRow, "registryHasKey").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return registryHasKey(sectionOf(u), "k") == 0; });
    });
    rowsOf(listRow, "registryListKeys").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return registryListKeys(sectionOf(u), NULL, 0) == 0; });
    });
    rowsOf(listRow, "registryDeleteKey").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return registryDeleteKey(sectionOf(u), "k") == 0; });
    });
    rowsOf(listRow, "registryDeleteSection").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return registryDeleteSection(sectionOf(u)) == 0; });
    });
    rowsOf(listRow, "registrySetFloatExact").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return registrySetFloatExact(sectionOf(u), "k", NAN) == 0; });
    });
    rowsOf(listRow, "registryTrySetString").good("handles of nothing and texts that a file cannot hold", [] {
        const HREGISTRY h = registryOpen(szIniFile, "s");
        return everyNumber(
                   [](uintptr_t u) { return registryTrySetString(sectionOf(u), "k", "v") == REGISTRY_NO_SECTION; }) &&
               registryTrySetString(h, "a=b", "v") == REGISTRY_BAD_KEY &&
               registryTrySetString(h, "k", "a\nb") == REGISTRY_BAD_VALUE;
    });
    rowsOf(listRow, "registryGetErrorText").good("numbers that are no result", [] {
        return registryGetErrorText(99) != NULL && registryGetErrorText(-99) != NULL;
    });
    rowsOf(listRow, "registryHasSection")
        .fatal("no file name", szFlat, "!textEMPTY(lpszFileName)", [] { registryHasSection(NULL, "s"); })
        .good("a file that is not there", [] { return registryHasSection("/tmp/no such file", "s") == 0; });
    rowsOf(listRow, "registryListSections")
        .fatal("an empty file name", szFlat, "!textEMPTY(lpszFileName)", [] { registryListSections("", NULL, 0); })
        .good("a file that is not there", [] { return registryListSections("/tmp/no such file", NULL, 0) == 0; });
}

void addProfiles(table& listRow) {
    rowsOf(listRow, "profileHasSection").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return profileHasSection(documentOf(u), "s") == 0; });
    });
    rowsOf(listRow, "profileHasKey").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return profileHasKey(documentOf(u), "s", "k") == 0; });
    });
    rowsOf(listRow, "profileListSections").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return profileListSections(documentOf(u), NULL, 0) == 0; });
    });
    rowsOf(listRow, "profileListKeys").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return profileListKeys(documentOf(u), "s", NULL, 0) == 0; });
    });
    rowsOf(listRow, "profileDeleteKey").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return profileDeleteKey(documentOf(u), "s", "k") == 0; });
    });
    rowsOf(listRow, "profileDeleteSection").good("handles of nothing", [] {
        return everyNumber([](uintptr_t u) { return profileDeleteSection(documentOf(u), "s") == 0; });
    });
}

}  // namespace

void addLaterFunctions(table& listRow) {
    addLoops(listRow);
    addCounters(listRow);
    addRecords(listRow);
    addSections(listRow);
    addProfiles(listRow);
}

}  // namespace qorTest
