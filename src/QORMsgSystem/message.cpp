// The message record: its fields, its extra data and the reply to a waiting sender.
#include <string.h>

#include "internal/message.h"
#include "internal/report.h"
#include "QORMsgSystem/relief.h"
#include "internal/share.h"

using namespace QOR_ChainHelper;

namespace QOR_MsgQueueHelper {

msgObject::msgObject(UINT uNewMsg, UINT wNewParam, int lNewParam) {
    storeShareWord(m_bIsWaitingReply, 0u);
    storeShareWord(m_nStatus, MT_CONSTRUCTED);
    m_iOffsetExtra.set(this, NULL);
    storeShareWord(m_nExtraSize, 0);
    storeShareWord(m_nResult, -1);
    SetMessage(uNewMsg, wNewParam, lNewParam);
    storeShareWord(m_nPriority, 0);
    storeShareWord(m_idSender, 0);
}

void msgObject::SetMessage(UINT uNewMsg, UINT wNewParam, int lNewParam) {
    storeShareWord(uMsg, uNewMsg);
    storeShareWord(wParam, wNewParam);
    storeShareWord(lParam, lNewParam);
}

void* msgObject::GetExtraData() const {
    void* const pExtra = m_iOffsetExtra.get(this);
    if (pExtra == NULL)
        return NULL;
    // A damaged offset or size is no data rather than a wild access.
    const int nSize = loadShareWord(m_nExtraSize);
    if (nSize < 0 || nSize > maxExtraSize || !findShareRange(this).holds(pExtra, nSize))
        return NULL;
    return pExtra;
}

int msgObject::GetExtraSize() const { return GetExtraData() != NULL ? loadShareWord(m_nExtraSize) : 0; }

void msgObject::set_pExtraData(int nExtraSize, void* pData) {
    if (!QOR_ASSERT((pData == NULL && nExtraSize == 0) || (pData != NULL && nExtraSize != 0)))
        return;
    storeShareWord(m_nExtraSize, nExtraSize);
    m_iOffsetExtra.set(this, pData);
}

void msgObject::ResetExtraData(int nExtraSize, const void* pData) {
    if (!QOR_ASSERT(nExtraSize >= 0 && nExtraSize <= 1024))
        return;
    chSystemShareObject* pObject = chSystemShareObject::FromAddress(this);
#if UINTPTR_MAX > 0xFFFFFFFFu
    // A handler may clear the data of every message it gets, the idle one included, which has none.
    if (nExtraSize == 0 && loadShareWord(m_nExtraSize) == 0)
        return;
    if (!QOR_ASSERT_TEXT(findShareRange(pObject).holds(this, sizeof(*this)), "message lies in the share segment"))
        return;
#endif
    // The bytes may be those of the old block.
    char aData[maxExtraSize];
    if (pData != NULL)
        memcpy(aData, pData, nExtraSize);
    const segmentLock lock;
    void* pOld = GetExtraData();
    if (nExtraSize != GetExtraSize()) {
        set_pExtraData(0, NULL);
        if (pOld != NULL)
            pObject->m_objPool.free(pOld);
        pOld = nExtraSize > 0 ? allocInSegment(*pObject, nExtraSize, NULL) : NULL;
    }
    if (pOld != NULL && pData != NULL && nExtraSize > 0)
        storeShareBytes(pOld, aData, nExtraSize);
    if (pOld != NULL && nExtraSize > 0)
        set_pExtraData(nExtraSize, pOld);
}

bool sendOutcome::HasReplyBuffer() const { return QOR_ASSERT(nReplySize >= 0 && (pReply != NULL || nReplySize == 0)); }

int sendOutcome::TellAttempt(int* pnResult, int* pnLength) const {
    if (pnResult != NULL)
        *pnResult = nResult;
    Tell(NULL, pnLength);
    return nAttempt;
}

int sendOutcome::Tell(int* pbReplied, int* pnLength) const {
    if (pbReplied != NULL)
        *pbReplied = bReplied;
    if (pnLength != NULL)
        *pnLength = bReplied ? nLength : 0;
    return nResult;
}

void sendOutcome::TakeExtraData(const segmentHold&, const msgObject& objMessage) {
    nLength = objMessage.GetExtraSize();
    const int nCopy = nLength < nReplySize ? nLength : nReplySize;
    if (nCopy > 0)
        memcpy(pReply, objMessage.GetExtraData(), static_cast<size_t>(nCopy));
}

void msgObject::ReplyMessage(int nResult) { ReplyMessageEx(nResult, 1); }

void msgObject::ReplyMessageEx(int nResult, BOOL bWake) {
    if (loadShareWord(m_bIsWaitingReply) == 0 || GetStatus() != MT_READ)
        return;
    int idSender = 0;
    {
        const segmentLock lock;
        // The sender may have closed the message meanwhile.
        if (GetStatus() != MT_READ)
            return;
        SetResult(nResult);
        SetStatus(MT_REPLIED);
        idSender = loadShareWord(m_idSender);
    }
    if (bWake)
        process().AwakeTask(idSender);
}

}  // namespace QOR_MsgQueueHelper
