// What threads note about themselves beside the segment of the messages, for those who look at the device. The message
// system itself asks whether a message is handled, before it frees one that nobody waits for (relief.h), and whether a
// thread is awake, before it signals it.
//
// Every queue and every record of a message is a cell of the segment's pool, and cells of a kind have a least size. So
// the offset of a cell, divided by that size, is a place that no other living cell of the kind has: places need no
// allocation and no lock. Only the owner of a queue writes its queue's note, and only the sender that waits for a
// record writes the record's. A note counts when it names the task and the offset of what stands in the segment; others
// are what earlier cells left.
//
// Times are milliseconds of the machine's monotonic clock, modulo 2^32.
#ifndef QOR_INTERNAL_NOTES_H
#define QOR_INTERNAL_NOTES_H

#include <stddef.h>
#include <stdint.h>

namespace QOR_MsgQueueHelper {

constexpr uint32_t sizeNotedSegment = 65536;
constexpr uint32_t leastQueueCell = 28;   // a queue without a name
constexpr uint32_t leastRecordCell = 52;  // a message without extra data

// Of a registered thread. The time is stored before the record that it belongs to.
struct threadNote {
    int32_t m_idTask;
    uint32_t m_uHandled;  // messages handled since it registered, modulo 2^32
    uint32_t m_uRecord;   // offset of the message that it handles, the innermost one; 0 for none
    uint32_t m_uSince;    // when it took that message
};

// Of a sender that has waited for 50 ms. The offset is stored last, and taken back first when the wait ends.
struct senderNote {
    uint32_t m_uRecord;  // offset of the record; 0 for none
    int32_t m_idTask;
    uint32_t m_uStart;  // when the wait began
    int32_t m_nLimit;   // its time-out in milliseconds; -1 for none
};

struct shareNotes {
    threadNote m_aThread[sizeNotedSegment / leastQueueCell + 1];
    senderNote m_aSender[sizeNotedSegment / leastRecordCell + 1];
    // 1 while the owner of the queue handles the message, whose sender waits. Changed under the segment's lock. When
    // the segment has no room, a message whose sender has given up is freed if nobody handles it.
    uint32_t m_aTaken[sizeNotedSegment / leastRecordCell + 1];
};

// These follow the shareNotes.
struct awakeNotes {
    // The task id of a queue's owner while the owner is awake and will look for messages before it sleeps; the id with
    // all bits inverted once a message was put in since the owner has looked. Anything else: the owner may sleep, and a
    // message needs a signal. The owner stores it under the segment's lock. The id alone is also exchanged: by posters,
    // which hold the lock, when they put a message in, and by the owner, without the lock, for 0 before it sleeps. One
    // of the two exchanges fails; so either the owner looks again, or the poster signals.
    int32_t m_aAwake[sizeNotedSegment / leastQueueCell + 1];
};

static_assert(sizeof(threadNote) == 16 && sizeof(senderNote) == 16, "shared layout");
static_assert(sizeof(shareNotes) == 62676 && sizeof(awakeNotes) == 9364, "shared layout");

// The places of the notes of a queue and of a record, by their offsets from the segment's begin.
inline size_t placeOfQueue(uint32_t uOffset) { return uOffset / leastQueueCell; }
inline size_t placeOfRecord(uint32_t uOffset) { return uOffset / leastRecordCell; }

}  // namespace QOR_MsgQueueHelper

#endif
