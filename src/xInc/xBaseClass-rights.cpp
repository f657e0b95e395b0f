// The rights of the device and of what is made on it; see rights.h.
#include "xInc/rights.h"

#include <errno.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "xInc/keyfile.h"

#define QOR_MODULE "xInc/xBaseClass"
#include "internal/report.h"

namespace QOR_BaseHelper {

using namespace QOR_Platform;

namespace {

constexpr unsigned maskOthers = 07;

bool failWithText(const char* lpszFormat, const char* lpszName, const char* lpszMore) {
    char szText[512];
    snprintf(szText, sizeof(szText), lpszFormat, lpszName, lpszMore);
    return QOR_ASSERT_TEXT(FALSE, szText);
}

// ---- the rights of the device

const char* groupName() {
    const char* const lpszName = getenv("qor_group");
    return lpszName != nullptr && *lpszName != 0 ? lpszName : nullptr;
}

deviceRights rightsOfGroup(const char* lpszName) {
    std::vector<char> buffer(65536);
    group entry = {};
    group* pEntry = nullptr;
    deviceRights rights;
    rights.bGroup = true;
    if (getgrnam_r(lpszName, &entry, buffer.data(), buffer.size(), &pEntry) == 0 && pEntry != nullptr)
        rights.idGroup = pEntry->gr_gid;
    else
        failWithText("qor_group: there is no group [%s]%s", lpszName, "");
    return rights;
}

// Whether only the group may use a file.
bool isOfGroup(const fileState& state, unsigned idGroup) {
    return state.idGroup == idGroup && (state.uMode & maskOthers) == 0;
}

// What the key file of the share segment says.
deviceRights rightsBy(const fileState& state) {
    deviceRights rights;
    if (state.eKind != kindRegular)
        return rights;
    rights.bGroup = (state.uMode & maskOthers) == 0;
    rights.idGroup = state.idGroup;
    return rights;
}

std::string describe(const fileState& state) {
    char szText[80];
    snprintf(szText, sizeof(szText), "owner %u, group %u, mode %.4o", state.idOwner, state.idGroup, state.uMode);
    return szText;
}

// ---- objects

union semaphoreArgument {
    semid_ds* pState;
    int nValue;
};

// What differs between semaphores and segments.
struct semaphoreKind {
    semid_ds state = {};

    ipc_perm& perm() { return state.sem_perm; }
    int control(int id, int nCommand) {
        semaphoreArgument arg;
        arg.pState = &state;
        return semctl(id, 0, nCommand, arg);
    }
};

struct segmentKind {
    shmid_ds state = {};

    ipc_perm& perm() { return state.shm_perm; }
    int control(int id, int nCommand) { return shmctl(id, nCommand, &state); }
};

// Opens an object to the group, unless it is open already.
template <class Kind>
bool openToGroup(int id, const deviceRights& rights) {
    Kind kind;
    if (kind.control(id, IPC_STAT) != 0)
        return false;
    ipc_perm& perm = kind.perm();
    if ((perm.mode & 0777) == rights.mode() && perm.gid == rights.idGroup)
        return true;
    perm.gid = static_cast<gid_t>(rights.idGroup);
    perm.mode = static_cast<decltype(perm.mode)>(rights.mode());
    return kind.control(id, IPC_SET) == 0;
}

// fnGet takes the flags of semget() and shmget(), the mode among them.
template <class Kind, class Get>
ipcObject openOrCreate(const deviceRights& rights, Get fnGet) {
    const int id = fnGet(IPC_CREAT | IPC_EXCL | static_cast<int>(rights.firstMode()));
    if (id != -1 && rights.bGroup && !openToGroup<Kind>(id, rights)) {
        const errnoGuard guard;
        Kind().control(id, IPC_RMID);
        return {-1, false};
    }
    if (id != -1)
        return {id, true};
    const int nError = errno;
    const int idThere = fnGet(static_cast<int>(rights.mode()));
    // ENOENT would hide why it could not be created.
    if (idThere == -1 && errno == ENOENT)
        errno = nError;
    // Only its owner can complete what its maker has left; whoever gets here without being that may use it as it is.
    if (idThere != -1 && rights.bGroup)
        openToGroup<Kind>(idThere, rights);
    return {idThere, false};
}

bool hasObjects(const char* lpszPath) {
    return isLiveSemaphore(ftok(lpszPath, idProjectSemaphore)) || isLiveSegment(ftok(lpszPath, idProjectSegment));
}

}  // namespace

bool asksForGroup() { return groupName() != nullptr; }

deviceRights findRights() {
    fileState state;
    if (groupName() == nullptr)
        lookAt(shareKeyFile(), state);
    return findRights(shareKeyFile(), state);
}

deviceRights findRights(const char* lpszPath, const fileState& state) {
    if (const char* const lpszName = groupName()) {
        static const deviceRights s_rights = rightsOfGroup(lpszName);
        return s_rights;
    }
    return strcmp(lpszPath, shareKeyFile()) == 0 ? rightsBy(state) : findRights();
}

// The umask belongs to all threads of the process; it is left alone.
bool giveRights(int fd, const deviceRights& rights) {
    return (!rights.bGroup || setGroup(fd, rights.idGroup)) && setMode(fd, rights.mode());
}

bool isForeign(const fileState& state, const deviceRights& rights) {
    return rights.bGroup && !isOfGroup(state, rights.idGroup);
}

bool admitKeyFile(const char* lpszPath, int fd, const fileState& state, const deviceRights& rights) {
    if (!isForeign(state, rights))
        return true;
    if (state.idOwner == geteuid() && !hasObjects(lpszPath) && giveRights(fd, rights))
        return true;
    failWithText("[%s] is no key file of this device's group: %s", lpszPath, describe(state).c_str());
    errno = EPERM;
    return false;
}

// A key file that is still to be made is judged by that of the share segment.
void failWithoutRight(const char* lpszPath) {
    if (!findRights().bGroup)
        return;
    for (const std::string& strPath : {std::string(lpszPath), std::string(shareKeyFile())}) {
        fileState state;
        if (!lookAt(strPath.c_str(), state) || state.eKind != kindRegular)
            continue;
        failWithText("no right to [%s] of this device's group: %s", strPath.c_str(), describe(state).c_str());
        return;
    }
    failWithText("qor_group: no right to give files to the group [%s]%s", groupName(), "");
}

ipcObject openOrCreateSemaphore(key_t key, const deviceRights& rights) {
    return openOrCreate<semaphoreKind>(rights, [key](int nFlags) { return semget(key, 1, nFlags); });
}

ipcObject openOrCreateSegment(key_t key, size_t nSize, const deviceRights& rights) {
    return openOrCreate<segmentKind>(rights, [key, nSize](int nFlags) { return shmget(key, nSize, nFlags); });
}

int openSemaphore(key_t key) { return semget(key, 1, static_cast<int>(findRights().mode())); }

}  // namespace QOR_BaseHelper
