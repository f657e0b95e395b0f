// Who may use the objects of the device.
//
// By default everybody may: key files, semaphores and segments have the mode 0666. A device that has a group keeps them
// to its members, with the mode 0660. It has one from the moment when its first process finds qor_group=NAME in its
// environment: the key file of the share segment, which that process makes first, then belongs to the group, and
// whatever is made later by anybody copies mode and group from it.
//
// Invariants:
// - Every semaphore, segment and key file is made by a function of this header or of keyfile.h, and nowhere else.
// - An object of a device with a group is made with the mode 0600 and then opened to the group, so that at no instant
//   others may use it. Its maker may die in between; a process that has the right to completes it when it opens it.
//   Both hold the lock of the key file.
// - On a device with a group, a key file that others could have made or changed is refused: its keys may lead anywhere.
#ifndef QOR_XINC_RIGHTS_H
#define QOR_XINC_RIGHTS_H

#include <stddef.h>
#include <sys/types.h>

#include "xInc/platform.h"

namespace QOR_BaseHelper {

struct deviceRights {
    bool bGroup = false;  // whether the device has a group
    unsigned idGroup = 0;

    // The permission bits of objects, and those that they are made with.
    unsigned mode() const { return bGroup ? 0660 : 0666; }
    unsigned firstMode() const { return bGroup ? 0600 : 0666; }
};

// The rights of the device, as its environment says, or else the key file of the share segment. Fatal: qor_group is not
// the name of a group.
deviceRights findRights();

// The same for a caller that has just looked at a key file: if that is the share segment's, nothing else has to be
// looked at.
deviceRights findRights(const char* lpszPath, const QOR_Platform::fileState& state);

// Whether qor_group says that the device has a group.
bool asksForGroup();

// Gives a new file, made with the first mode, the rights of the device. On failure errno says why not.
bool giveRights(int fd, const deviceRights& rights);

// Whether somebody outside the device's group could have made or changed a key file.
bool isForeign(const QOR_Platform::fileState& state, const deviceRights& rights);

// Whether an open key file may be used. It is given the rights of the device if it is the caller's own and has no
// objects yet; any other one that others could have made or changed is fatal, as is one that the caller has no right
// to.
bool admitKeyFile(const char* lpszPath, int fd, const QOR_Platform::fileState& state, const deviceRights& rights);

// After a key file could not be opened for lack of rights on a device with a group: fatal, with the reason.
void failWithoutRight(const char* lpszPath);

// A semaphore or a segment, and whether the call has made it.
struct ipcObject {
    int id;  // -1 on failure: errno says why
    bool bCreated;
};

// Open the set of one semaphore, or the segment, of a key, or make it with the rights of the device. The caller holds
// the lock of the key file.
ipcObject openOrCreateSemaphore(key_t key, const deviceRights& rights);
ipcObject openOrCreateSegment(key_t key, size_t nSize, const deviceRights& rights);

// Opens the set of one semaphore of a key when there is one; -1 on failure.
int openSemaphore(key_t key);

}  // namespace QOR_BaseHelper

#endif
