// Processes, threads and forks.
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <initializer_list>

#include "xInc/platform.h"

namespace QOR_Platform {

int processId() { return getpid(); }

namespace {

// Reads the beginning of a small file; "" when it cannot be read.
template <size_t size>
void readStart(const char* lpszPath, char (&szText)[size]) {
    const openFile file(openToRead(lpszPath));
    const long nLength = file.fd() != -1 ? readFile(file.fd(), szText, size - 1) : 0;
    szText[nLength > 0 ? nLength : 0] = 0;
}

// A hash of two texts that is never 0 (FNV-1a).
uint32_t hashOf(const char* lpszFirst, const char* lpszSecond) {
    uint32_t uHash = 2166136261u;
    for (const char* lpszText : {lpszFirst, lpszSecond})
        for (; *lpszText != 0; ++lpszText)
            uHash = (uHash ^ static_cast<unsigned char>(*lpszText)) * 16777619u;
    return uHash != 0 ? uHash : 1;
}

// The blank-separated field of a line; fields count from 0. Ends the field with a NUL.
char* fieldOf(char* lpszLine, int nField) {
    for (; nField > 0 && lpszLine != NULL; --nField)
        lpszLine = (lpszLine = strchr(lpszLine, ' ')) != NULL ? lpszLine + 1 : NULL;
    if (lpszLine != NULL)
        lpszLine[strcspn(lpszLine, " \n")] = 0;
    return lpszLine;
}

}  // namespace

// An emulator answers for the file of its own process itself, and differently; with two slashes it does not recognise
// the path. The fields of /proc/ID/stat (proc(5)) after the program's name, which may itself hold blanks and brackets:
// state, 18 others, the start time since boot, the size of the memory.
bool birthOfProcess(int idProcess, uint32_t& uBirth) {
    const errnoGuard guard;
    char szPath[32], szBoot[64], szStat[1024];
    snprintf(szPath, sizeof(szPath), "/proc//%d/stat", idProcess);
    readStart(szPath, szStat);
    readStart("/proc/sys/kernel/random/boot_id", szBoot);
    char* const lpszEnd = strrchr(szStat, ')');
    if (lpszEnd == NULL)
        return false;
    char* const lpszSize = fieldOf(lpszEnd, 21);
    char* const lpszStart = fieldOf(lpszEnd, 20);
    if (lpszStart == NULL || lpszSize == NULL)
        return false;
    uBirth = hashOf(szBoot, lpszStart);
    return strchr("ZX", lpszEnd[2]) == NULL && strcmp(lpszSize, "0") != 0;
}

unsigned threadNumber() {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(reinterpret_cast<void*>(pthread_self())));
}

int disableCancel() {
    int nState = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nState);
    return nState;
}

void restoreCancel(int nState) { pthread_setcancelstate(nState, NULL); }

bool isTaskOfThisProcess(int idTask) {
    return idTask > 0 && (syscall(SYS_tgkill, getpid(), idTask, 0) == 0 || errno != ESRCH);
}

void callAtFork(forkStep fnBefore, forkStep fnInParent, forkStep fnInChild) {
    pthread_atfork(fnBefore, fnInParent, fnInChild);
}

}  // namespace QOR_Platform
