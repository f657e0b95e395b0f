/// @file
/// Named blocks of shared memory, and counters that survive restarts.
///
/// Two segments besides that of the messages hold blocks that every process of the device finds by name: the segment
/// "ipc_system_named" lives until the device restarts; the file "ipc_system_storage" in the home directory keeps
/// its counters for ever. A name is looked up in an ordered chain inside the segment's pool. Callers hold the segment's
/// lock while they look up a name and while they use what they found.
///
/// @code
/// using namespace QOR_MsgQueueHelper;
/// uCSystemStorageHelper* pStorage = uCSystemStorageHelpergetGlobalObject();
/// pStorage->CreateAccumulater("ticket", 98, 1, 100);
/// unsigned int uTicket = pStorage->ExcuteAccumulater("ticket", 5);   // 3: 100 is followed by 1
/// @endcode
///
/// **Locks.** With the named blocks locked, by Lock() or nameHelperLock(), everything that reads the tick, measures a
/// time-out by it or traces a line ends the process at once with the assertion
/// "[/tmp/qor_ipc_system_named] is held by the calling thread already". The operations of uCSystemStorageHelper lock
/// the file; called while the calling thread holds that lock, they end the process with the same assertion, which then
/// names the file.
///
/// A process that is killed while it holds the lock has changed nothing. What an application writes into its block is
/// its own: that is not undone. Links and sizes found in a segment are checked before they are followed; a broken chain
/// is a fatal assertion. Running out of pool is the pool's fatal assertion: the blocks of one segment share 8156 bytes
/// (the counters 4060), of which each takes 20 bytes, its name twice (rounded) and its size.
///
/// The flat functions for these are in `flat.h`.
#ifndef QOR_MSGQUEUEHELPER_NAMED_H
#define QOR_MSGQUEUEHELPER_NAMED_H

#include "qor/AllocHelper.h"
#include "qor/BaseHelper/Share.h"
#include "qor/BaseHelper/Tick.h"
#include "qor/ChainHelper.h"
#include "qor/StringHelper.h"

namespace QOR_MsgQueueHelper {

/// The named blocks of one segment. It lies in the segment; all callers hold the segment's lock.
class QOR_API chNamedObjectManager {
public:
    chNamedObjectManager();

    /// Takes all blocks from this pool, which lies in the same segment. Called once, when the segment is made.
    void InitManager(QOR_AllocHelper::baseStaticPoolAlloc* pPool);

    /// The block of that name, made with nSize zero bytes when there is none. The size of an existing block is not
    /// checked. *pbCreated (may be null) tells whether this call made it. The block stays where it is until it is
    /// freed. Fatal: a null name, a negative size, an exhausted pool, a broken chain.
    void* GetNamedObject(const char* lpszName, int nSize, int* pbCreated);
    /// The block of that name, or null. Fatal: a null name, a broken chain.
    void* FindNamedObject(const char* lpszName);
    /// Frees the block of that name; an unknown name does nothing.
    void FreeNamedObject(const char* lpszName);
    /// Frees a block by its address. Fatal: an address that is no block of this segment.
    void FreeObject(void* pData);

private:
    QOR_AllocHelper::baseSharePoolAlloc m_objPool;
    QOR_ChainHelper::list_chain_offset m_vRootChain;  // circular; points to itself when there is no record
};

/// What a segment of named blocks holds: header, pool, table of names, and the pool's nSegmentSize - 36 bytes.
template <int nSegmentSize, int nSegmentType>
struct chNamedSegment : public QOR_BaseHelper::ipcObjectHeader {
    static constexpr int segmentSize = nSegmentSize;
    static constexpr int segmentType = nSegmentType;
    static constexpr int poolSize = nSegmentSize - 36;

    /// Runs in fresh shared memory. The header comes last: until then the segment counts as never made.
    chNamedSegment() {
        m_objPool.init_pool(m_arrPool, poolSize);
        m_objManager.InitManager(&m_objPool);
        InitHeader(nSegmentSize, nSegmentType);
    }

    QOR_AllocHelper::baseStaticPoolAlloc m_objPool;
    chNamedObjectManager m_objManager;
    uint8_t m_arrPool[static_cast<size_t>(poolSize)];
};

/// The segment "ipc_system_named".
using chSystemNamedObject = chNamedSegment<8192, 1002>;
/// The file "ipc_system_storage" in the home directory.
using chSystemStorageObject = chNamedSegment<4096, 1003>;

static_assert(sizeof(chNamedObjectManager) == 12, "the shared layout is the same on every ABI");
static_assert(sizeof(chSystemNamedObject) == 8192, "the shared layout is the same on every ABI");
static_assert(sizeof(chSystemStorageObject) == 4096, "the shared layout is the same on every ABI");

/// The process's view of the named blocks. The frame is also the segment's lock: Lock() is called before, and Unlock()
/// after, each use of getObject()->m_objManager. Get it by uCSystemNamedObjectHelpergetGlobalObject().
class QOR_API uCSystemNamedObjectHelper
    : public QOR_BaseHelper::ipcObjectFrame<chSystemNamedObject, QOR_BaseHelper::chMapFile, QOR_BaseHelper::chMutex> {
public:
    uCSystemNamedObjectHelper();
};

/// The process's view of the counters that survive restarts. Any thread may call its operations; each takes the
/// segment's lock itself. Get it by uCSystemStorageHelpergetGlobalObject().
class QOR_API uCSystemStorageHelper
    : public QOR_BaseHelper::ipcObjectFrame<chSystemStorageObject, QOR_BaseHelper::chRawMapFile,
                                            QOR_BaseHelper::chMutex> {
public:
    uCSystemStorageHelper();

    /// Makes the counter, or sets the one that exists; it is on the medium when the call returns. Not while the calling
    /// thread holds the lock of the file. Fatal: "uMax > uMin" does not hold.
    void CreateAccumulater(const char* lpszName, uint32_t uValue, uint32_t uMin, uint32_t uMax);
    /// Removes the counter; an unknown name does nothing. The next create or step writes this to the medium. Not while
    /// the calling thread holds the lock of the file.
    void DestoryAccumulater(const char* lpszName);
    /// Steps the counter and returns its new value; it is on the medium when the call returns. Not while the calling
    /// thread holds the lock of the file. Fatal: a step outside 1 to maximum - minimum - 1; so is every step of a
    /// counter that nobody created.
    uint32_t ExcuteAccumulater(const char* lpszName, int nStep);
    /// Makes the counter unless there is one. True: it was made, and is on the medium when the call returns. Not while
    /// the calling thread holds the lock of the file. Fatal: "uMax > uMin" does not hold.
    bool CreateAccumulaterOnce(const char* lpszName, uint32_t uValue, uint32_t uMin, uint32_t uMax);
    /// Reads the counter without stepping it: the value that it was made with or handed out last. False, and uValue as
    /// it was: nobody created it. Not while the calling thread holds the lock of the file.
    bool ReadAccumulater(const char* lpszName, uint32_t& uValue);
};

/// The process's uCSystemNamedObjectHelper, made on first use and never torn down under running threads.
QOR_API uCSystemNamedObjectHelper* uCSystemNamedObjectHelpergetGlobalObject();
/// The process's uCSystemStorageHelper, made on first use and never torn down under running threads.
QOR_API uCSystemStorageHelper* uCSystemStorageHelpergetGlobalObject();

}  // namespace QOR_MsgQueueHelper

#endif
