// The segment of the messages: the table of queues, each with its messages.
#include <algorithm>
#include <cstddef>
#include <cstring>

#include "QORInspect/reader.h"
#include "internal/notes.h"
#include "qor/MsgQueueHelper/Message.h"
#include "qor/MsgQueueHelper/Queue.h"

namespace QOR_InspectHelper {

using QOR_MsgQueueHelper::chMsgQueue;
using QOR_MsgQueueHelper::chSystemShareObject;
using QOR_MsgQueueHelper::msgObject;

namespace {

constexpr uint32_t offsetTable = offsetof(chSystemShareObject, m_objManager);
constexpr uint32_t offsetTask = sizeLink + offsetof(chMsgQueue, m_idTask);
constexpr uint32_t offsetName = sizeLink + offsetof(chMsgQueue, m_szName);
constexpr uint32_t sizeMessage = sizeLink + sizeof(msgObject);

static_assert(offsetof(chSystemShareObject, m_objPool) == offsetPool, "the pool follows the header");

// The fields of a record at uAt; the extra data only when they lie in a cell of their own. False: they do not.
bool readMessage(segmentReader& reader, uint32_t uAt, messageView& message, uint32_t& uBytes) {
    const uint32_t uRecord = uAt + sizeLink;
    message.uOffset = uRecord;
    message.bWaiting = reader.word(uRecord + offsetof(msgObject, m_bIsWaitingReply)) != 0;
    message.nStatus = reader.number(uRecord + offsetof(msgObject, m_nStatus));
    message.nResult = reader.number(uRecord + offsetof(msgObject, m_nResult));
    message.uMsg = reader.word(uRecord + offsetof(msgObject, uMsg));
    message.wParam = reader.word(uRecord + offsetof(msgObject, wParam));
    message.lParam = reader.number(uRecord + offsetof(msgObject, lParam));
    message.nPriority = reader.number(uRecord + offsetof(msgObject, m_nPriority));
    message.idSender = reader.number(uRecord + offsetof(msgObject, m_idSender));
    uBytes += reader.cellSize(uAt);
    const uint32_t uWord = uRecord + offsetof(msgObject, m_iOffsetExtra);
    const uint32_t uSize = reader.word(uRecord + offsetof(msgObject, m_nExtraSize));
    if (reader.word(uWord) == nullLink)
        return true;
    const uint32_t uExtra = reader.target(uRecord, uWord);
    if (uExtra == nullLink || uSize > static_cast<uint32_t>(QOR_MsgQueueHelper::maxExtraSize) ||
        reader.claim(uExtra, uSize) == 0)
        return false;
    uBytes += reader.cellSize(uExtra);
    message.extra = reader.bytes(uExtra, uSize);
    return true;
}

bool readMessages(segmentReader& reader, uint32_t uHead, queueView& queue) {
    bool bExtra = true;
    const bool bChain = reader.walk(uHead, sizeMessage, [&](uint32_t uAt, uint32_t) {
        messageView message;
        bExtra &= readMessage(reader, uAt, message, queue.uBytes);
        queue.messages.push_back(message);
    });
    return bChain && bExtra;
}

queueView readQueue(segmentReader& reader, uint32_t uAt, uint32_t uRoom) {
    queueView queue;
    reader.takeChanged();
    reader.word(uAt);  // its place in the table belongs to the queue
    reader.word(uAt + 4);
    queue.uHandle = uAt + sizeLink;
    queue.idTask = reader.number(uAt + offsetTask);
    queue.strName = reader.text(uAt + offsetName, uRoom - offsetName);
    queue.uBytes = reader.cellSize(uAt);
    const bool bRead = readMessages(reader, uAt + sizeLink, queue);
    if (reader.takeChanged())
        queue.state = viewChanging;
    else if (!bRead)
        queue.state = reader.failure();
    if (queue.state != viewSound) {
        queue.strProblem = problemText(queue.state, "queue \"" + queue.strName + "\"");
        reader.fail(queue.state, queue.strProblem);
    }
    return queue;
}

// ---- the notes beside the segment

using QOR_MsgQueueHelper::senderNote;
using QOR_MsgQueueHelper::shareNotes;
using QOR_MsgQueueHelper::threadNote;

// The words of one note; all zero outside the copy of the notes.
template <class T>
T noteAt(const segmentImage& image, size_t nOffset) {
    uint32_t aWord[sizeof(T) / 4] = {};
    for (uint32_t& uWord : aWord) {
        if (nOffset + 4 > image.notes.size())
            return T();
        for (int i = 3; i >= 0; --i)
            uWord = uWord << 8 | image.notes[nOffset + static_cast<size_t>(i)];
        nOffset += 4;
    }
    T note;
    memcpy(&note, aWord, sizeof(T));
    return note;
}

// A note may be newer than the time at which its copy began.
uint32_t elapsed(const segmentImage& image, uint32_t uSince) {
    const uint32_t uMs = image.uNotesTime - uSince;
    return uMs > static_cast<uint32_t>(INT32_MAX) ? 0 : uMs;
}

void readWait(const segmentImage& image, messageView& message) {
    const senderNote note =
        noteAt<senderNote>(image, offsetof(shareNotes, m_aSender) +
                                      QOR_MsgQueueHelper::placeOfRecord(message.uOffset) * sizeof(senderNote));
    if (!message.bWaiting || note.m_uRecord != message.uOffset || note.m_idTask != message.idSender)
        return;
    message.wait.bKnown = true;
    message.wait.uMs = elapsed(image, note.m_uStart);
    message.wait.nLimit = note.m_nLimit < 0 ? -1 : note.m_nLimit;
}

void readNotes(const segmentImage& image, queueView& queue) {
    for (messageView& message : queue.messages)
        readWait(image, message);
    const threadNote note = noteAt<threadNote>(
        image, offsetof(shareNotes, m_aThread) + QOR_MsgQueueHelper::placeOfQueue(queue.uHandle) * sizeof(threadNote));
    if (note.m_idTask != queue.idTask || note.m_idTask == 0)
        return;
    queue.bNoted = true;
    queue.uHandled = note.m_uHandled;
    for (const messageView& message : queue.messages)
        if (note.m_uRecord == message.uOffset && message.nStatus != QOR_MsgQueueHelper::MT_EMITTED) {
            queue.uHandling = note.m_uRecord;
            queue.uHandlingMs = elapsed(image, note.m_uSince);
        }
}

}  // namespace

int queueView::count(int nStatus) const {
    return static_cast<int>(std::count_if(messages.begin(), messages.end(), [nStatus](const messageView& message) {
        return message.nStatus == nStatus;
    }));
}

shareView readShare(const segmentImage& image) {
    shareView view;
    segmentReader reader(image, segmentShare);
    if (reader.isBuilt() && !reader.walk(offsetTable, sizeLink + sizeof(chMsgQueue), [&](uint32_t uAt, uint32_t uRoom) {
            view.queues.push_back(readQueue(reader, uAt, uRoom));
        }))
        reader.fail(reader.failure(), problemText(reader.failure(), "table of queues"));
    for (queueView& queue : view.queues)
        readNotes(image, queue);
    static_cast<segmentView&>(view) = reader.finish();
    return view;
}

}  // namespace QOR_InspectHelper
