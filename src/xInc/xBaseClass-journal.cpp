// The journals beside the segments. See journal.h, and internal/journal.h for what they are.
#include "xInc/journal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <string>

#include "internal/journal.h"
#include "qor/BaseHelper/Share.h"
#include "qor/MiscHelper.h"
#include "xInc/keyfile.h"
#include "xInc/platform.h"
#include "xInc/rights.h"

#define QOR_MODULE "xInc/xBaseClass"
#include "internal/report.h"

namespace QOR_BaseHelper {

using namespace QOR_ChainHelper;
using QOR_TraceHelper::qorOutputWarningString;

namespace {

// ---- the table

struct openJournalRow {
    static constexpr int filling = -1;  // or being closed

    std::atomic<int> nGuard;    // the semaphore's id and 1; 0: a free row
    std::atomic<int> nLooking;  // threads that look at the journal without the lock: it stays mapped meanwhile
    std::atomic<uintptr_t> aBegin[maxMapping + 1];
    shareJournal journal;
    shareSection section;  // of the thread that holds the lock
    bool bFile;
};

constexpr int maxJournal = 64;

openJournalRow s_arrRow[maxJournal];
std::atomic<int> s_nRowTop{0};

openJournalRow* findRow(int fdSemaphore) {
    const int nTop = fdSemaphore != -1 ? s_nRowTop.load(std::memory_order_acquire) : 0;
    for (int i = 0; i < nTop; ++i)
        if (s_arrRow[i].nGuard.load(std::memory_order_acquire) == fdSemaphore + 1)
            return &s_arrRow[i];
    return NULL;
}

openJournalRow* takeFreeRow() {
    for (int i = 0; i < maxJournal; ++i) {
        int nFree = 0;
        if (!s_arrRow[i].nGuard.compare_exchange_strong(nFree, openJournalRow::filling, std::memory_order_acquire))
            continue;
        int nTop = s_nRowTop.load(std::memory_order_relaxed);
        while (nTop <= i && !s_nRowTop.compare_exchange_weak(nTop, i + 1, std::memory_order_release)) {
        }
        return &s_arrRow[i];
    }
    QOR_ASSERT_TEXT(FALSE, "nOpenJournals < maxJournal");
    return NULL;
}

bool addMapping(openJournalRow& row, const void* pData) {
    for (int i = 0; i < maxMapping; ++i) {
        if (row.aBegin[i].load(std::memory_order_relaxed) == 0) {
            row.aBegin[i].store(reinterpret_cast<uintptr_t>(pData), std::memory_order_relaxed);
            registCheckedSegment(pData, row.journal);
            return true;
        }
    }
    return QOR_ASSERT_TEXT(FALSE, "nMappings < maxMapping");
}

// The list stays without gaps, since the first 0 ends it.
void removeMapping(openJournalRow& row, const void* pData) {
    int i = 0;
    while (i < maxMapping && row.aBegin[i].load(std::memory_order_relaxed) != reinterpret_cast<uintptr_t>(pData))
        ++i;
    for (; i < maxMapping; ++i)
        row.aBegin[i].store(row.aBegin[i + 1].load(std::memory_order_relaxed), std::memory_order_relaxed);
    row.section.uFirst = row.aBegin[0].load(std::memory_order_relaxed);
}

// ---- the memory of a journal

bool reportJournal(const char* lpszFormat, const char* lpszName) {
    char szText[512];
    snprintf(szText, sizeof(szText), lpszFormat, lpszName);
    return QOR_ASSERT_TEXT(FALSE, szText);
}

void* failJournal(const char* lpszName) {
    qorOutputWarningString("Open journal of [%s] fail: %s", lpszName, strerror(errno));
    QOR_ASSERT(FALSE);
    return NULL;
}

// Who is attached to a segment that was never constructed only looks at it, as those do who search for a second device.
bool isInUse(const journaledSegment& segment) {
    shmid_ds state;
    return static_cast<const ipcObjectHeader*>(segment.pData)->IsInit() &&
           shmctl(static_cast<int>(segment.idSegment), IPC_STAT, &state) == 0 && state.shm_nattch > 1;
}

void* attachJournal(const journaledSegment& segment, key_t key, const deviceRights& rights) {
    const size_t nSize = shareJournal::sizeFor(segment.uSize) + shareJournal::sizeNotes;
    const bool bThere = isLiveSegment(key);
    if (!bThere && isInUse(segment)) {
        reportJournal("the journal of [%s] is missing while processes use the segment", segment.lpszName);
        return NULL;
    }
    // One that is too small is told from one that cannot be opened.
    const int id = openOrCreateSegment(key, bThere ? 0 : nSize, rights).id;
    shmid_ds state;
    if (id == -1 || shmctl(id, IPC_STAT, &state) != 0)
        return failJournal(segment.lpszName);
    if (state.shm_segsz < nSize) {
        reportJournal("another segment has the key of the journal of [%s]", segment.lpszName);
        return NULL;
    }
    void* const pMemory = shmat(id, NULL, 0);
    return pMemory != reinterpret_cast<void*>(-1) ? pMemory : failJournal(segment.lpszName);
}

void* mapJournal(const journaledSegment& segment) {
    const std::string strPath = std::string(segment.lpszName) + ".journal";
    const size_t nSize = shareJournal::sizeFor(segment.uSize);
    if (!createKeyFile(strPath.c_str()))
        return failJournal(segment.lpszName);
    removeStaleKeyFiles(strPath.c_str());
    const QOR_Platform::openFile file(open(strPath.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    // With its blocks, so that a full disk is met now and not by a store.
    if (file.fd() == -1 || !QOR_Platform::reserveFile(file.fd(), static_cast<long long>(nSize)))
        return failJournal(segment.lpszName);
    void* const pMemory = mmap(NULL, nSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.fd(), 0);
    return pMemory != MAP_FAILED ? pMemory : failJournal(segment.lpszName);
}

void unmapJournal(const openJournalRow& row) {
    if (row.bFile)
        munmap(&row.journal.GetHeader(), shareJournal::sizeFor(row.journal.GetSegmentSize()));
    else
        shmdt(&row.journal.GetHeader());
}

// Checks the header; fills that of a new journal, the mark last. False: it is not a journal of this version.
bool bindHeader(const shareJournal& journal, const journaledSegment& segment) {
    journalHeader& header = journal.GetHeader();
    const uint32_t uMagic = loadShareWord(header.uMagic);
    if (uMagic != 0 && uMagic != journalHeader::magic)
        return reportJournal("another segment has the key of the journal of [%s]", segment.lpszName);
    if (uMagic != 0 && loadShareWord(header.uVersion) != journalHeader::version)
        return reportJournal("the journal of [%s] is that of another version of the library", segment.lpszName);
    const bool bFits = loadShareWord(header.uSize) == segment.uSize &&
                       (segment.bFile || loadShareWord(header.idSegment) == segment.idSegment);
    if (uMagic != 0 && !bFits) {
        if (!journal.IsEmpty())
            qorOutputWarningString("the journal of [%s] is that of another segment and is dropped", segment.lpszName);
        journal.Commit();
    }
    storeShareWord(header.uVersion, journalHeader::version);
    storeShareWord(header.uSize, segment.uSize);
    storeShareWord(header.uMagic, journalHeader::magic);
    return true;
}

// ---- owners

struct processIdentity {
    std::atomic<int> idProcess;
    std::atomic<uint32_t> uBirth;
};

processIdentity s_self;

// The calling process. Asked once, also after a fork.
const processIdentity& self() {
    if (s_self.idProcess.load(std::memory_order_acquire) == 0) {
        const int idProcess = QOR_Platform::processId();
        uint32_t uBirth = 0;
        QOR_Platform::birthOfProcess(idProcess, uBirth);
        s_self.uBirth.store(uBirth, std::memory_order_relaxed);
        s_self.idProcess.store(idProcess, std::memory_order_release);
    }
    return s_self;
}

bool isOwnerAlive(const journalHeader& header) {
    uint32_t uBirth = 0;
    return QOR_Platform::birthOfProcess(loadShareWord(header.idProcess), uBirth) &&
           uBirth == loadShareWord(header.uBirth);
}

void putIfOther(int32_t& nWord, int32_t nValue) {
    if (nWord != nValue)
        storeShareWord(nWord, nValue);
}

void setOwner(journalHeader& header) {
    const processIdentity& objSelf = self();
    putIfOther(header.idProcess, objSelf.idProcess.load(std::memory_order_relaxed));
    putIfOther(header.idTask, QOR_MiscHelper::qorGetCurrentTaskId());
    if (header.uBirth != objSelf.uBirth.load(std::memory_order_relaxed))
        storeShareWord(header.uBirth, objSelf.uBirth.load(std::memory_order_relaxed));
}

// ---- recovery

// Undoes what a killed holder has left unfinished. The copy of a file has no owner, whatever its journal says.
void recover(const openJournalRow& row, const char* lpszName, bool bCopy) {
    const shareJournal& journal = row.journal;
    if (journal.IsEmpty())
        return;
    if (!bCopy && isOwnerAlive(journal.GetHeader())) {
        reportJournal("the lock of [%s] was released while a living process held it", lpszName);
        return;
    }
    if ((loadShareWord(journal.GetHeader().uFlags) & journalHeader::flagComplete) != 0)
        journal.Commit();
    else if (!journal.Undo(reinterpret_cast<void*>(row.aBegin[0].load(std::memory_order_relaxed))))
        qorOutputWarningString("the journal of [%s] does not fit the segment and is dropped", lpszName);
}

bool openRow(const journaledSegment& segment, void* pMemory) {
    const shareJournal journal(pMemory, segment.uSize);
    const bool bCopy = segment.bFile && loadShareWord(journal.GetHeader().idSegment) != segment.idSegment;
    openJournalRow* const pRow = bindHeader(journal, segment) ? takeFreeRow() : NULL;
    if (pRow == NULL)
        return false;
    pRow->journal = journal;
    pRow->section = {};
    pRow->bFile = segment.bFile;
    addMapping(*pRow, segment.pData);
    recover(*pRow, segment.lpszName, bCopy);
    // Not before: until it is taken back, a copy has to be known as one.
    storeShareWord(journal.GetHeader().idSegment, segment.idSegment);
    pRow->nGuard.store(segment.fdSemaphore + 1, std::memory_order_release);
    return true;
}

}  // namespace

bool openJournal(const journaledSegment& segment) {
    if (openJournalRow* const pRow = findRow(segment.fdSemaphore))
        return addMapping(*pRow, segment.pData);
    keyFileLock lock;
    if (!lock.lockExisting(segment.lpszName))
        return failJournal(segment.lpszName) != NULL;
    const key_t key = ftok(segment.lpszName, idProjectJournal);
    void* const pMemory = key != -1 ? attachJournal(segment, key, lock.rights()) : failJournal(segment.lpszName);
    return pMemory != NULL && openRow(segment, pMemory);
}

bool openFileJournal(const journaledSegment& segment) {
    if (openJournalRow* const pRow = findRow(segment.fdSemaphore))
        return addMapping(*pRow, segment.pData);
    void* const pMemory = mapJournal(segment);
    return pMemory != NULL && openRow(segment, pMemory);
}

void closeJournal(int fdSemaphore, const void* pData) {
    openJournalRow* const pRow = findRow(fdSemaphore);
    if (pRow == NULL)
        return;
    unregistCheckedSegment(pData);
    if (pRow->aBegin[1].load(std::memory_order_relaxed) != 0) {
        removeMapping(*pRow, pData);
        return;
    }
    endSection(fdSemaphore);
    removeMapping(*pRow, pData);
    pRow->nGuard.store(openJournalRow::filling);
    // They do not wait for anything, but one that has a lower priority may need the processor.
    while (pRow->nLooking.load() != 0)
        QOR_MiscHelper::qorSwitchToThread();
    unmapJournal(*pRow);
    pRow->nGuard.store(0, std::memory_order_release);
}

void removeJournal(const char* lpszKeyFile) {
    const key_t key = ftok(lpszKeyFile, idProjectJournal);
    const int id = key != -1 ? shmget(key, 0, 0) : -1;
    if (id != -1)
        shmctl(id, IPC_RMID, NULL);
}

void* journalNotes(int fdSemaphore) {
    const openJournalRow* const pRow = findRow(fdSemaphore);
    return pRow != NULL && !pRow->bFile ? pRow->journal.GetNotes() : NULL;
}

bool hasJournal(int fdSemaphore) { return findRow(fdSemaphore) != NULL; }

void beginSection(int fdSemaphore, const char* lpszName) {
    openJournalRow* const pRow = findRow(fdSemaphore);
    if (pRow == NULL)
        return;
    recover(*pRow, lpszName, false);
    setOwner(pRow->journal.GetHeader());
    pRow->section.Begin(pRow->journal, pRow->aBegin);
    putShareWord(pRow->journal.GetHeader().uOpen, 1);
}

void endSection(int fdSemaphore) {
    openJournalRow* const pRow = findRow(fdSemaphore);
    if (pRow == NULL || pRow->section.pJournal == NULL)
        return;
    pRow->section.End();
    putShareWord(pRow->journal.GetHeader().uOpen, 0);
}

bool isInSection(int fdSemaphore) {
    openJournalRow* const pRow = findRow(fdSemaphore);
    if (pRow == NULL)
        return false;
    // A thread that closes the journal either sees this one, or has closed the row before it is looked at again.
    pRow->nLooking.fetch_add(1);
    const bool bOpen = pRow->nGuard.load() == fdSemaphore + 1 && loadShareWord(pRow->journal.GetHeader().uOpen) != 0;
    pRow->nLooking.fetch_sub(1);
    return bOpen;
}

void forgetSections() {
    t_pShareSection = NULL;
    for (openJournalRow& row : s_arrRow) {
        row.section.pJournal = NULL;
        row.nLooking.store(0, std::memory_order_relaxed);
    }
    s_self.idProcess.store(0, std::memory_order_relaxed);
}

void flushSection(int fdSemaphore, const void* pData, bool (*fnFlush)(const void*, uint32_t), uint32_t uSize) {
    openJournalRow* const pRow = findRow(fdSemaphore);
    if (pRow == NULL || pRow->section.pJournal == NULL || pRow->journal.IsEmpty()) {
        fnFlush(pData, uSize);
        return;
    }
    journalHeader& header = pRow->journal.GetHeader();
    storeShareWord(header.uFlags, header.uFlags | journalHeader::flagComplete);
    fnFlush(pData, uSize);
    fnFlush(&header, static_cast<uint32_t>(sizeof(header) + header.nEntry * sizeof(journalEntry)));
    pRow->section.Commit();
}

}  // namespace QOR_BaseHelper
