// What the reader asks the kernel. Nothing here creates, changes or locks anything, but for semaphoreHold.
#ifndef QOR_XINC_XINSPECT_H
#define QOR_XINC_XINSPECT_H

#include <stdio.h>

#include <string>
#include <vector>

#include "qor/InspectHelper/Image.h"
#include "xInc/segment_table.h"

namespace QOR_InspectHelper {

using QOR_BaseHelper::kernelSegment;
using QOR_BaseHelper::listSegments;

// How many semaphore sets the machine has; -1 when the kernel does not tell.
int64_t countSemaphores();

// The key of a key file for a project; false when there is no such file.
bool findKey(const std::string& strFile, int idProject, uint32_t& uKey);

// The state of the semaphore of a key file.
lockImage findSemaphore(const std::string& strKeyFile);

// A segment, attached for reading.
class attachedSegment {
public:
    explicit attachedSegment(int32_t nId);
    attachedSegment(const attachedSegment&) = delete;
    attachedSegment& operator=(const attachedSegment&) = delete;
    ~attachedSegment();

    // Null when it could not be attached; then errno says why.
    const uint32_t* words() const { return m_pWords; }

private:
    const uint32_t* m_pWords;
};

// Takes the semaphore of a key file, unless that takes longer than some milliseconds, and gives it back.
class semaphoreHold {
public:
    semaphoreHold(const std::string& strKeyFile, int nMilliseconds);
    semaphoreHold(const semaphoreHold&) = delete;
    semaphoreHold& operator=(const semaphoreHold&) = delete;
    ~semaphoreHold();

    bool isHeld() const { return m_bHeld; }

private:
    int m_nId;
    bool m_bHeld;
};

// A file, open for reading. It is not waited for, and a link is not followed.
class inspectedFile {
public:
    explicit inspectedFile(const std::string& strFile);
    inspectedFile(const inspectedFile&) = delete;
    inspectedFile& operator=(const inspectedFile&) = delete;
    ~inspectedFile();

    // Whether it is a regular file that could be opened.
    bool isOpen() const { return m_fd != -1; }
    // Why a file that is there could not be opened; 0 when there is none.
    int error() const { return m_nError; }
    uint32_t size() const { return m_uSize; }
    int32_t owner() const { return m_idOwner; }
    uint32_t mode() const { return m_uMode; }
    // Its first bytes: fewer when there are not so many.
    std::vector<uint8_t> read(size_t nSize) const;

private:
    int m_fd;
    int m_nError = 0;
    uint32_t m_uSize = 0;
    int32_t m_idOwner = -1;
    uint32_t m_uMode = 0;
};

// Whether a name is free, or that of a regular file: a device such as /dev/null is not to become a file. Else errno
// says why.
bool mayReplace(const std::string& strFile);

// A new file of mode 0600, in the place of one that is there. Null when it cannot be made; then errno says why.
FILE* createPrivateFile(const std::string& strFile);

// The machine's monotonic clock in milliseconds, modulo 2^32.
uint32_t monotonicMilliseconds();

// The name of the machine.
std::string machineName();

}  // namespace QOR_InspectHelper

#endif
