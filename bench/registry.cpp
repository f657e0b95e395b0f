// The registry: what reading, changing and flushing cost, against the two kernel calls of its lock.
//
// usage: qor_bench_registry [--quick]
//
// Run it through scripts/bench, which gives it System V objects and a /tmp of its own.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <string>

#include "qor/TraceHelper.h"
#include "qor/flat.h"
#include "support.h"

using namespace bench;

namespace {

int s_nRounds = 2000;

std::string documentName(const char* lpszKind, int i) {
    return std::string("/tmp/") + lpszKind + std::to_string(i) + ".ini";
}

std::string keyName(int i) { return "a.key.of.the.device." + std::to_string(i); }

HREGISTRY fillSection(const std::string& strFile, int nKeys) {
    HREGISTRY hSection = registryOpen(strFile.c_str(), "section");
    for (int i = 0; i < nKeys; ++i)
        registrySetInt(hSection, keyName(i).c_str(), i);
    return hSection;
}

// Nanoseconds of one call, the median over batches of 20.
template <class F>
double timeOf(F fnCall) {
    std::vector<long long> listTime;
    for (int k = 0; k < s_nRounds / 20; ++k) {
        const long long nStart = now();
        for (int i = 0; i < 20; ++i)
            fnCall(k * 20 + i);
        listTime.push_back((now() - nStart) / 20);
    }
    return figuresOf(listTime).nMedian;
}

// Locking and unlocking a semaphore as the registry's lock does it: the floor of every call.
double floorTime() {
    const int id = semget(IPC_PRIVATE, 1, 0600);
    semctl(id, 0, SETVAL, 1);
    const double nTime = timeOf([id](int) {
        sembuf step = {0, -1, SEM_UNDO};
        semop(id, &step, 1);
        step.sem_op = 1;
        semop(id, &step, 1);
    });
    semctl(id, 0, IPC_RMID);
    return nTime;
}

void printAccess(double nFloor, const char* lpszWhat, HREGISTRY hSection, int nKeys) {
    const std::string strFirst = keyName(0), strLast = keyName(nKeys - 1);
    std::vector<std::string> listName;
    for (int i = 0; i < nKeys; ++i)
        listName.push_back(keyName(i * 389 % nKeys));
    char sz[64];
    const double aTime[] = {
        timeOf([&](int) { registryGetInt(hSection, strFirst.c_str(), 0); }),
        timeOf([&](int) { registryGetInt(hSection, strLast.c_str(), 0); }),
        timeOf([&](int i) { registryGetInt(hSection, listName[static_cast<size_t>(i % nKeys)].c_str(), 0); }),
        timeOf([&](int) { registryGetString(hSection, strLast.c_str(), sz, ""); }),
        timeOf([&](int i) { registrySetInt(hSection, strLast.c_str(), i); }),
    };
    printf("  %-34s", lpszWhat);
    for (const double nTime : aTime)
        printf("  %6.0f %5.2f", nTime, nTime / nFloor);
    printf("\n");
}

// The last key, by file, section and key name.
void printNames(double nFloor, const std::string& strFile, int nKeys) {
    const std::string strKey = keyName(nKeys - 1);
    const double nTime = timeOf([&](int) { qorGetRegistryInt(strFile.c_str(), "section", strKey.c_str(), 0); });
    printf("  %-34s  %6.0f %5.2f\n", "  by names: qorGetRegistryInt", nTime, nTime / nFloor);
}

void printSizes(double nFloor) {
    printf("access, ns and against the lock alone (%.0f ns)\n  %-34s  %12s  %12s  %12s  %12s  %12s\n", nFloor, "",
           "int, first", "int, last", "int, any", "string, last", "set, last");
    for (const int nKeys : {10, 100, 1000}) {
        const std::string strFile = documentName("keys", nKeys);
        printAccess(nFloor, (std::to_string(nKeys) + " keys in the section").c_str(), fillSection(strFile, nKeys),
                    nKeys);
        printNames(nFloor, strFile, nKeys);
    }
    int nStanding = 0;
    for (const int nDocuments : {10, 100}) {
        HREGISTRY hSection = 0;
        for (; nStanding < nDocuments; ++nStanding)
            hSection = fillSection(documentName("document", nStanding), 10);
        printAccess(nFloor, (std::to_string(nDocuments) + " documents of 10 keys").c_str(), hSection, 10);
        printNames(nFloor, documentName("document", nStanding - 1), 10);
    }
    printf("\n");
}

void printCalls() {
    HREGISTRY hSection = fillSection(documentName("calls", 0), 10);
    const std::string strKey = keyName(5);
    char sz[64];
    const auto print = [&](const char* lpszWhat, const std::function<void(int)>& fnCall) {
        printf("  %-34s %6.2f\n", lpszWhat,
               callsPerOperation(
                   200, [&]() { fnCall(-1); },
                   [&](int nCount) {
                       for (int i = 0; i < nCount; ++i)
                           fnCall(i);
                   }));
    };
    printf("kernel calls\n");
    print("registryGetInt", [&](int) { registryGetInt(hSection, strKey.c_str(), 0); });
    print("registryGetString", [&](int) { registryGetString(hSection, strKey.c_str(), sz, ""); });
    print("registrySetInt", [&](int i) { registrySetInt(hSection, strKey.c_str(), i); });
    print("registryFlush, nothing changed", [&](int) { registryFlush(hSection); });
    print("change and flush without a saver", [&](int i) {
        registrySetInt(hSection, strKey.c_str(), 1000 + i);
        registryFlush(hSection);
    });
    printf("\n");
}

int answerSlowly(simpMSG*) { return 3600 * 1000; }

// A process of threads that watch the section and sleep.
void watchSection(const std::string& strFile, int nThreads) {
    static std::string s_strFile;
    s_strFile = strFile;
    for (int i = 0; i < nThreads; ++i) {
        const std::string strName = "monitor." + std::to_string(i);
        msgLaunchCallbackWorkThread(
            strName.c_str(),
            [](simpMSG* pMsg) {
                if (pMsg->uMsg == TM_THREAD_START)
                    regMonitorSection(registryOpen(s_strFile.c_str(), "section"));
                return answerSlowly(pMsg);
            },
            -1);
    }
    for (;;)
        pause();
}

void printFlushes() {
    printf(
        "change and flush, ns, by the number of monitors (sleeping threads on the other processor; the file is saved "
        "too)\n");
    for (const int nMonitors : {0, 1, 10, 100}) {
        const std::string strFile = documentName("flush", nMonitors);
        HREGISTRY hSection = fillSection(strFile, 10);
        registryFlush(hSection);
        peer watcher(1, [&]() { watchSection(strFile, nMonitors); });
        while (nMonitors > 0 && msgGetThreadByName(("monitor." + std::to_string(nMonitors - 1)).c_str()) == NULL)
            usleep(1000);
        usleep(200000);
        std::vector<long long> listTime;
        for (int i = 0; i < s_nRounds / 20; ++i) {
            const long long nStart = now();
            registrySetInt(hSection, keyName(3).c_str(), 5000 + i);
            registryFlush(hSection);
            listTime.push_back(now() - nStart);
            usleep(500);
        }
        printf("  %4d monitors %36.0f\n", nMonitors, figuresOf(listTime).nMedian);
    }
    printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--quick") == 0) {
        s_nRounds = 100;
    } else if (argc > 1) {
        fprintf(stderr, "usage: qor_bench_registry [--quick]\n");
        return 2;
    }
    pin(0);
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    if (freopen("/dev/null", "w", stderr) == NULL)  // keys that are new are warnings
        return 1;
    printSizes(floorTime());
    printCalls();
    printFlushes();
    return 0;
}
