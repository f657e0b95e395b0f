// Removes what the library left on the machine, for machines that are not restarted, such as a developer's. What
// belongs to it is found and removed as `qorctl clean --all` does; the directory of the recorded table belongs to the
// demo, and files of others in it stay.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "device.h"
#include "launcher.h"
#include "leftovers.h"
#include "table.h"

namespace device {

namespace {

using qorLeftovers::leftover;

struct counts {
    int m_nSemaphore = 0;
    int m_nSegment = 0;
    int m_nFile = 0;
    int m_nDirectory = 0;
    bool m_bFailed = false;
};

// The file of the counters, which is also the key file of their lock.
std::string storageFile() { return std::string(getenv("HOME")) + "/ipc_system_storage"; }

void tell(bool bDone, const char* lpszKind, const std::string& strName, int& nDone, counts& objCounts) {
    printf("%-8s %-9s %s\n", bDone ? "removed" : "FAILED", lpszKind, strName.c_str());
    nDone += bDone;
    objCounts.m_bFailed |= !bDone;
}

void removeObjects(const leftover& left, counts& objCounts) {
    qorLeftovers::forEachObject(left, [&](const char* lpszKind, const std::string& strName, const auto& fnRemove) {
        const std::string strKind = lpszKind;
        int& nDone = strKind == "segment" || strKind == "journal" ? objCounts.m_nSegment
                     : strKind == "semaphore"                     ? objCounts.m_nSemaphore
                                                                  : objCounts.m_nFile;
        tell(fnRemove(), lpszKind, strName, nDone, objCounts);
    });
}

bool isUsed(const std::vector<leftover>& arrLeft) {
    bool bUsed = false;
    for (const leftover& left : arrLeft) {
        const unsigned long uUsers = qorLeftovers::countUsers(left);
        if (uUsers == 0)
            continue;
        printf("in use   segment   %s by %lu processes: nothing is removed before they end\n", left.strName.c_str(),
               uUsers);
        bUsed = true;
    }
    return bUsed;
}

// What a user may want to keep.
void endKept(bool bRemove, const char* lpszKind, const std::string& strFile, counts& objCounts) {
    if (access(strFile.c_str(), F_OK) != 0)
        return;
    if (bRemove)
        tell(unlink(strFile.c_str()) == 0, lpszKind, strFile, objCounts.m_nFile, objCounts);
    else
        printf("%-8s %-9s %s (--clean-all removes it too)\n", "kept", lpszKind, strFile.c_str());
}

void removeTable(counts& objCounts) {
    if (!isTableDirectory())
        return;
    for (const std::string& strFile : tableFiles()) {
        if (access(strFile.c_str(), F_OK) == 0)
            tell(unlink(strFile.c_str()) == 0, "file", strFile, objCounts.m_nFile, objCounts);
    }
    const std::string strDirectory = tableDirectory();
    tell(rmdir(strDirectory.c_str()) == 0, "directory", strDirectory, objCounts.m_nDirectory, objCounts);
}

}  // namespace

int clean(bool bStorageToo) {
    const std::vector<leftover> arrLeft = qorLeftovers::findLeftovers(storageFile());
    if (isUsed(arrLeft))
        return 1;
    counts objCounts;
    for (const leftover& left : arrLeft)
        removeObjects(left, objCounts);
    removeTable(objCounts);
    endKept(bStorageToo, "counters", storageFile(), objCounts);
    if (bStorageToo)
        endKept(true, "journal", storageFile() + ".journal", objCounts);
    endKept(bStorageToo, "settings", settingsFile(), objCounts);
    printf("cleaned: %d segments, %d semaphores, %d files, %d directories\n", objCounts.m_nSegment,
           objCounts.m_nSemaphore, objCounts.m_nFile, objCounts.m_nDirectory);
    return objCounts.m_bFailed ? 1 : 0;
}

}  // namespace device
