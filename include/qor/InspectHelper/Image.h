/// @file
/// The image of a device: copies of its segments, and what the kernel tells about them and about their tasks.
///
/// An image is taken from the running device or read from a snapshot file, and everything that is shown is derived from
/// it. Taking one changes nothing and blocks nobody: segments are attached read-only, no lock is taken (unless the
/// caller asks for exact copies), no key file and no object of the kernel is made. A process need not use the library
/// otherwise to take an image.
///
/// @code
/// QOR_InspectHelper::deviceImage device;
/// QOR_InspectHelper::takeImage(device, QOR_InspectHelper::takeOptions());
/// for (const auto& queue : QOR_InspectHelper::readShare(device.segment(QOR_InspectHelper::segmentShare)).queues)
///     printf("%s: %zu messages\n", queue.strName.c_str(), queue.messages.size());
/// @endcode
///
/// Read on in View.h.
#ifndef QOR_INSPECTHELPER_IMAGE_H
#define QOR_INSPECTHELPER_IMAGE_H

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Reading the shared state of a device.
namespace QOR_InspectHelper {

/// The segments of a device.
enum segmentKind { segmentShare, segmentNamed, segmentStorage, segmentTrace, segmentRegistry };

/// How many kinds of segments there are.
constexpr int countSegmentKind = 5;

/// What is fixed for one kind of segment.
struct segmentType {
    const char* lpszName;  ///< its name, which is also that of its lock
    uint32_t uSize;        ///< its size in bytes
    int32_t nType;         ///< the type number in its header
};

/// What is fixed for a kind of segment.
const segmentType& segmentTypeOf(segmentKind kind);

/// Words of a segment that were not the same in two readings, as a range of byte offsets.
struct changedRange {
    uint32_t uBegin;  ///< the first byte
    uint32_t uEnd;    ///< one past the last byte
};

/// The lock of a segment, as the kernel describes its semaphore.
struct lockImage {
    bool bFound = false;   ///< whether there is a semaphore
    int32_t nValue = 0;    ///< 1 free, 0 held
    int32_t idLast = 0;    ///< the process that took or released it last
    int32_t nWaiters = 0;  ///< tasks that wait for it
    int64_t tLast = 0;     ///< when it was last taken or released, in seconds since 1970
};

/// The copy of one segment.
struct segmentImage {
    bool bFound = false;                ///< whether there is such a segment
    bool bKeyFile = false;              ///< whether its key file is there
    bool bExact = false;                ///< whether it was copied with its lock held
    std::string strError;               ///< why an existing segment could not be read; else empty
    uint32_t uKey = 0;                  ///< its key; 0 for a file
    int32_t nId = -1;                   ///< its kernel id; -1 for a file
    uint32_t uSize = 0;                 ///< its size in bytes
    int32_t nAttached = -1;             ///< how often it is attached; -1 when the kernel does not tell
    int32_t idOwner = -1;               ///< the user that owns it
    uint32_t uMode = 0;                 ///< its permissions
    std::vector<uint8_t> bytes;         ///< its content
    std::vector<changedRange> changed;  ///< what changed while it was copied, in ascending order
    std::vector<int32_t> others;        ///< kernel ids of further segments of this kind: a replaced key file's
    lockImage lock;                     ///< its lock
    std::vector<uint8_t> notes;         ///< what threads note beside it about themselves; empty when there is nothing
    uint32_t uNotesTime = 0;            ///< when the notes were copied, in milliseconds of the clock that they use
};

/// What is known of a task that owns a queue or has sent a message.
struct taskImage {
    bool bAlive = false;         ///< whether the task runs
    int32_t idProcess = 0;       ///< its process; 0 when not known
    int32_t nEventWaiters = -1;  ///< tasks asleep on its wake-up event; -1 when there is none
    int32_t nEventValue = -1;    ///< signals of its event that nobody has taken; -1 when there is none
    std::string strProgram;      ///< the name of the process's program; empty when not known
};

/// Limits of the kernel, and how much of them all programs of the machine use; -1 when not known.
struct limitImage {
    int64_t nSegmentMax = -1;      ///< segments that there may be
    int64_t nSegmentUsed = -1;     ///< segments that there are
    int64_t nSemaphoreMax = -1;    ///< semaphore sets that there may be
    int64_t nSemaphoreUsed = -1;   ///< semaphore sets that there are
    int64_t nSegmentSizeMax = -1;  ///< the largest size of a segment, in bytes
};

/// A device at one moment.
struct deviceImage {
    int64_t tTaken = 0;                                   ///< when, in seconds since 1970
    std::string strMachine;                               ///< the name of the machine
    std::array<segmentImage, countSegmentKind> segments;  ///< by kind
    std::map<int32_t, taskImage> tasks;                   ///< by task id
    std::vector<int32_t> events;                          ///< task ids that have a wake-up event's key file
    limitImage limits;                                    ///< limits of the kernel

    /// The copy of one segment.
    const segmentImage& segment(segmentKind kind) const { return segments[static_cast<size_t>(kind)]; }
    /// The copy of one segment.
    segmentImage& segment(segmentKind kind) { return segments[static_cast<size_t>(kind)]; }
    /// Whether the device has any segment.
    bool hasSegment() const;
    /// Whether a task was alive when the image was taken.
    bool isAlive(int32_t idTask) const;
};

/// How an image is taken.
struct takeOptions {
    int nExactMs = -1;           ///< take each segment's lock for one copy, waiting at most so long; -1: do not
    std::string strStorageFile;  ///< the file of the counters; empty: that in the home directory
};

/// Takes the image of the running device. Blocks for at most nExactMs for each segment; a lock that is not to be had in
/// that time is done without. What cannot be read says so in its strError.
void takeImage(deviceImage& device, const takeOptions& options);

/// The file of the counters in the home directory of the calling process's user.
std::string defaultStorageFile();

/// The image in the form of a snapshot file: the same on every ABI.
std::vector<uint8_t> encodeSnapshot(const deviceImage& device);
/// Reads a snapshot. Any bytes give an image, or false and a reason.
bool decodeSnapshot(const uint8_t* pData, size_t nSize, deviceImage& device, std::string& strError);
/// Writes a snapshot file of mode 0600, in the place of a regular file that is there. False and a reason when that
/// fails; then the file that was there stays as it was.
bool saveSnapshot(const deviceImage& device, const std::string& strFile, std::string& strError);
/// Reads a snapshot file. False and a reason when that fails.
bool loadSnapshot(const std::string& strFile, deviceImage& device, std::string& strError);

}  // namespace QOR_InspectHelper

#endif
