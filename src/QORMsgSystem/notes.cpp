#include "QORMsgSystem/notes.h"

#include "internal/journal.h"
#include "internal/share.h"
#include "qor/ChainHelper/ShareWord.h"
#include "qor/MiscHelper.h"
#include "xInc/xMsgSystem.h"

using namespace QOR_ChainHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;

namespace QOR_MsgQueueHelper {

namespace {

static_assert(sizeof(shareNotes) + sizeof(awakeNotes) <= shareJournal::sizeNotes, "room for notes");

shareNotes* notes() { return static_cast<shareNotes*>(share().GetNotes()); }

uint32_t offsetOf(const void* p) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(share().getObject()));
}

threadNote* noteOf(const chMsgQueue& objQueue) {
    const uint32_t uOffset = offsetOf(&objQueue);
    shareNotes* const pNotes = uOffset < sizeNotedSegment ? notes() : NULL;
    return pNotes != NULL ? &pNotes->m_aThread[placeOfQueue(uOffset)] : NULL;
}

void put(uint32_t& uWord, uint32_t uValue) { putShareWord(uWord, uValue); }
void put(int32_t& nWord, int32_t nValue) {
    putShareWord(reinterpret_cast<uint32_t&>(nWord), static_cast<uint32_t>(nValue));
}

int32_t* awakeWord(const chMsgQueue& objQueue) {
    const uint32_t uOffset = offsetOf(&objQueue);
    shareNotes* const pNotes = uOffset < sizeNotedSegment ? notes() : NULL;
    return pNotes != NULL ? &reinterpret_cast<awakeNotes*>(pNotes + 1)->m_aAwake[placeOfQueue(uOffset)] : NULL;
}

bool exchange(int32_t& nWord, int32_t nOld, int32_t nNew) {
    return __atomic_compare_exchange_n(&nWord, &nOld, nNew, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

}  // namespace

void noteAwake(const chMsgQueue& objQueue, bool bAwake) {
    int32_t* const pWord = awakeWord(objQueue);
    const int32_t nValue = bAwake ? objQueue.GetTaskId() : 0;
    if (pWord != NULL && loadShareWord(*pWord) != nValue)
        put(*pWord, nValue);
}

bool isCalled(const chMsgQueue& objQueue, int idTask) {
    const int32_t* const pWord = awakeWord(objQueue);
    return pWord != NULL && loadShareWord(*pWord) != idTask;
}

bool noteAsleep(const chMsgQueue& objQueue, int idTask) {
    int32_t* const pWord = awakeWord(objQueue);
    return pWord == NULL || exchange(*pWord, idTask, 0);
}

bool callAwake(const chMsgQueue& objQueue) {
    int32_t* const pWord = awakeWord(objQueue);
    const int32_t idOwner = objQueue.GetTaskId();
    if (pWord == NULL || idOwner == 0)
        return false;
    const int32_t nNote = loadShareWord(*pWord);
    return nNote == ~idOwner || (nNote == idOwner && exchange(*pWord, idOwner, ~idOwner));
}

void noteNewQueue(const chMsgQueue& objQueue) {
    threadNote* const pNote = noteOf(objQueue);
    if (pNote == NULL)
        return;
    put(pNote->m_uRecord, 0);
    put(pNote->m_uHandled, 0);
    put(pNote->m_idTask, qorGetCurrentTaskId());
}

handlingNote::handlingNote(const chMsgQueue& objQueue, const msgObject& objMessage) : m_pNote(noteOf(objQueue)) {
    if (m_pNote == NULL)
        return;
    m_uRecordBefore = loadShareWord(m_pNote->m_uRecord);
    m_uSinceBefore = loadShareWord(m_pNote->m_uSince);
    put(m_pNote->m_uSince, getCoarseMillisecond());
    put(m_pNote->m_uRecord, offsetOf(&objMessage));
}

void handlingNote::Finish() const {
    if (m_pNote == NULL)
        return;
    put(m_pNote->m_uRecord, m_uRecordBefore);
    put(m_pNote->m_uSince, m_uSinceBefore);
    put(m_pNote->m_uHandled, loadShareWord(m_pNote->m_uHandled) + 1);
}

namespace {

uint32_t* takenWord(const msgObject& objMessage) {
    const uint32_t uOffset = offsetOf(&objMessage);
    shareNotes* const pNotes = uOffset < sizeNotedSegment ? notes() : NULL;
    return pNotes != NULL ? &pNotes->m_aTaken[placeOfRecord(uOffset)] : NULL;
}

}  // namespace

void noteTaken(const msgObject& objMessage, bool bTaken) {
    if (uint32_t* const pWord = takenWord(objMessage))
        put(*pWord, bTaken ? 1 : 0);
}

bool isTaken(const msgObject& objMessage) {
    const uint32_t* const pWord = takenWord(objMessage);
    return pWord == NULL || loadShareWord(*pWord) != 0;
}

senderNote* noteWait(const msgObject& objMessage, uint32_t uStart, int nLimit) {
    const uint32_t uOffset = offsetOf(&objMessage);
    shareNotes* const pNotes = uOffset < sizeNotedSegment ? notes() : NULL;
    if (pNotes == NULL)
        return NULL;
    senderNote* const pNote = &pNotes->m_aSender[placeOfRecord(uOffset)];
    put(pNote->m_idTask, qorGetCurrentTaskId());
    put(pNote->m_uStart, uStart);
    put(pNote->m_nLimit, nLimit);
    put(pNote->m_uRecord, uOffset);
    return pNote;
}

// By now the place may be that of another sender's record.
void endWait(senderNote* pNote, const msgObject& objMessage) {
    if (pNote != NULL && loadShareWord(pNote->m_uRecord) == offsetOf(&objMessage) &&
        loadShareWord(pNote->m_idTask) == qorGetCurrentTaskId())
        put(pNote->m_uRecord, 0);
}

}  // namespace QOR_MsgQueueHelper
