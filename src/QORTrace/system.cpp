// The trace state that all processes share: the buffer of lines and the nesting depths. Everything runs under the
// lock of the segment, and nothing is locked under it. Without its lock the segment is left alone.
//
// Lines and depths live in one pool, which lines keep full. So before a cell is allocated, also for a depth, the
// oldest lines are dropped until there is room. A line is complete before it is linked.
#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper/Trace.h"

using QOR_ChainHelper::loadShareWord;
using QOR_ChainHelper::storeShareWord;
using QOR_StringHelper::chReferenceStringT;

namespace QOR_TraceHelper {

static_assert(sizeof(chSystemTracerManager) == 65536, "the shared layout is the same on every ABI");
static_assert(sizeof(chTraceLevelList) == 16 && sizeof(chTraceLogList) == 16, "the shared layout is the same");
typedef QOR_ListHelper::pair_type<int32_t, int32_t> levelEntry;
static_assert(sizeof(levelEntry) == 8 && offsetof(levelEntry, key) == 0 && offsetof(levelEntry, value) == 4 &&
                  sizeof(QOR_ChainHelper::list_node_offset<levelEntry>) == 16,
              "the shared layout is the same");
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(chSystemTracerManager, m_objPool) == 8 && offsetof(chSystemTracerManager, m_mapLevel) == 24 &&
                  offsetof(chSystemTracerManager, m_lstLog) == 40 &&
                  offsetof(chSystemTracerManager, m_nReserved56) == 56 &&
                  offsetof(chSystemTracerManager, m_nReserved60) == 60 &&
                  offsetof(chSystemTracerManager, m_arrPool) == 64,
              "the shared layout is the same on every ABI");
#pragma GCC diagnostic pop

namespace {

// The node of one nesting depth: chain, task id, depth.
constexpr int levelNodeSize = 16;

// The task that this thread was when it last entered a scope; a child of a fork is another one.
thread_local int s_idNestedTask = 0;

}  // namespace

chSystemTracerManager::chSystemTracerManager() {
    m_objPool.init_pool(m_arrPool, poolSize);
    m_mapLevel.InitPool(&m_objPool);
    m_lstLog.InitPool(&m_objPool);
    storeShareWord(m_nReserved56, 2147483647);
    storeShareWord(m_nReserved60, 0);
    InitHeader(segmentSize, segmentType);
}

void chSystemTracerManager::ClearGhostTracer() {
    m_mapLevel.erase_if(
        [](const chTraceLevelList::value_type& level) { return !QOR_MiscHelper::qorIsValidTaskID(level.key); });
}

// The bytes of a line that its cell has room for.
int chSystemTracerManager::GetLineRoom(const int* pnLength) {
    constexpr int nNodeSize = sizeof(QOR_ChainHelper::list_chain_offset) + sizeof(int32_t);
    const char* const pBytes = reinterpret_cast<const char*>(pnLength + 1);
    // A damaged link leads anywhere in the segment, also to where no cell is.
    const QOR_AllocHelper::poll_chain* const pCell = QOR_AllocHelper::poll_chain::get_pCell(pBytes - nNodeSize);
    if (reinterpret_cast<uintptr_t>(pCell) < reinterpret_cast<uintptr_t>(m_arrPool))
        return -1;
    const int nRoom = pCell->get_nPoolSize() - nNodeSize;
    return nRoom <= reinterpret_cast<const char*>(m_arrPool + poolSize) - pBytes ? nRoom : -1;
}

bool chSystemTracerManager::HasLine() { return !m_lstLog.empty(); }

// Drops the oldest lines until the pool has a free cell of nSize bytes.
bool chSystemTracerManager::MakeRoom(int nSize) {
    while (m_objPool.find_big_enough_cell(nSize) == NULL) {
        if (!QOR_ASSERT_TEXT(HasLine(), "!objTracerManager.chTraceLogList::empty()"))
            return false;
        m_lstLog.erase(m_lstLog.begin());
    }
    return true;
}

// The nesting depth of a task; a new one is 0, and with it go those of tasks that have died.
int32_t* chSystemTracerManager::GetLevel(int idTask) {
    if (m_mapLevel.find_key(idTask) == m_mapLevel.end() && !MakeRoom(levelNodeSize))
        return NULL;
    const int nSize = m_mapLevel.size();
    int32_t& nLevel = m_mapLevel[idTask];
    if (m_mapLevel.size() != nSize) {
        ClearGhostTracer();
        storeShareWord(nLevel, 0);
    }
    return &nLevel;
}

// The lock of the segment for a scope, unless it was removed from the device: then it is not tried again.
class traceHold {
public:
    explicit traceHold(uCTraceHelper& objTrace) : m_objTrace(objTrace), m_bHeld(take(objTrace)) {}
    ~traceHold() {
        if (m_bHeld)
            m_objTrace.Unlock();
    }
    traceHold(const traceHold&) = delete;
    traceHold& operator=(const traceHold&) = delete;

    // The trace state; null without the lock.
    chSystemTracerManager* getObject() const { return m_bHeld ? m_objTrace.getObject() : NULL; }

private:
    static bool take(uCTraceHelper& objTrace) {
        if (objTrace.m_bLockLost.load(std::memory_order_relaxed))
            return false;
        if (objTrace.LockSegment(-1, uCTraceHelper::tellNothing))
            return true;
        if (!objTrace.m_bLockLost.exchange(true, std::memory_order_relaxed))
            qorOutputWarningString("broken share lock of the trace buffer: its lines go to standard error");
        return false;
    }

    uCTraceHelper& m_objTrace;
    const bool m_bHeld;
};

void uCTraceHelper::TraceToSystemTrace(chReferenceStringT<char>& strLine) {
    const int nLength = strLine.GetLength();
    const int nCell = nLength < chSystemTracerManager::segmentSize ? nLength + 16 : chSystemTracerManager::segmentSize;
    const traceHold hold(*this);
    if (chSystemTracerManager* const pManager = hold.getObject()) {
        if (pManager->MakeRoom(nCell))
            pManager->m_lstLog.alloc_insert_filled(pManager->m_lstLog.end(), nLength,
                                                   static_cast<const char*>(strLine));
        return;
    }
    strLine += "\n";
    fwrite(static_cast<const char*>(strLine), 1, static_cast<size_t>(strLine.GetLength()), stderr);
}

// A length that does not fit into its cell is damage; reading on would be wild.
BOOL uCTraceHelper::ReadSystemTraceString(chReferenceStringT<char>& strLine) {
    const traceHold hold(*this);
    chSystemTracerManager* const pManager = hold.getObject();
    if (pManager == NULL || !pManager->HasLine())
        return 0;
    const int* const pnLength = &*pManager->m_lstLog.begin();
    const int nLength = loadShareWord(*pnLength);
    if (QOR_ASSERT_TEXT(nLength >= 0 && nLength <= pManager->GetLineRoom(pnLength), "broken trace line"))
        strLine = chReferenceStringT<char>(reinterpret_cast<const char*>(pnLength + 1), nLength);
    pManager->m_lstLog.erase(pManager->m_lstLog.begin());
    return 1;
}

int uCTraceHelper::push_trace_level() {
    const traceHold hold(*this);
    chSystemTracerManager* const pManager = hold.getObject();
    const int idTask = QOR_MiscHelper::qorGetCurrentTaskId();
    int32_t* const pnLevel = pManager != NULL ? pManager->GetLevel(idTask) : NULL;
    if (pnLevel == NULL)
        return 0;
    // What a task finds before its first scope was left by a dead one that had the same id.
    const int nBefore = s_idNestedTask == idTask ? loadShareWord(*pnLevel) : 0;
    const int nLevel = static_cast<int>(static_cast<uint32_t>(nBefore) + 1);
    storeShareWord(*pnLevel, nLevel);
    s_idNestedTask = idTask;
    return nLevel;
}

int uCTraceHelper::pop_trace_level() {
    const traceHold hold(*this);
    chSystemTracerManager* const pManager = hold.getObject();
    int32_t* const pnLevel = pManager != NULL ? pManager->GetLevel(QOR_MiscHelper::qorGetCurrentTaskId()) : NULL;
    if (pnLevel == NULL)
        return 0;
    const int nSize = pManager->m_mapLevel.size();
    QOR_ASSERT_TEXT(nSize == pManager->m_mapLevel.size(),
                    "objTracerManager.chTraceLevelList::size() == objTracerManager.chTraceLevelList::size()");
    const int nLevel = loadShareWord(*pnLevel);
    storeShareWord(*pnLevel, static_cast<int32_t>(static_cast<uint32_t>(nLevel) - 1));
    return nLevel;
}

}  // namespace QOR_TraceHelper
