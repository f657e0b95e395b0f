// The device that a command looks at: its image, and what several commands derive from it.
#ifndef QORCTL_DEVICE_H
#define QORCTL_DEVICE_H

#include <map>
#include <string>

#include "program.h"
#include "qor/InspectHelper.h"

namespace qorctl {

using namespace QOR_InspectHelper;

// What a thread is doing, as far as its segment and the kernel tell.
struct threadState {
    const char* lpszState = nullptr;   // null: not known, as for a thread that runs
    const char* lpszReason = nullptr;  // "send-blocked" or "reply-blocked"
    int32_t idOn = 0;                  // the task it is blocked on
    const messageView* pHandling = nullptr;
    int64_t nSinceMs = -1;  // for how long it has been in that state; -1 when not known
};

class device {
public:
    // Takes the image, or reads the snapshot. False, with the status set, when there is nothing to see.
    bool open(program& prog);
    // The same for a command about one segment. Damage sets the status and is told, but is no reason to give up.
    bool open(program& prog, segmentKind kind);

    const deviceImage& image() const { return m_image; }
    const segmentImage& segment(segmentKind kind) const { return m_image.segment(kind); }
    const shareView& share() const { return m_share; }
    // In the order of the senders' names.
    const std::vector<sendEdge>& edges() const { return m_edges; }
    // The rings among them, each from its first name on.
    std::vector<std::vector<size_t>> rings() const;
    // "a -> b -> a".
    std::string ringText(const std::vector<size_t>& ring) const;

    const queueView* findQueue(const std::string& strName) const;
    const queueView* findQueue(int32_t idTask) const;
    // The thread's name, or "task N (program)".
    std::string nameOf(int32_t idTask) const;
    const taskImage* findTask(int32_t idTask) const;
    threadState stateOf(const queueView& queue) const;

private:
    deviceImage m_image;
    shareView m_share;
    std::vector<sendEdge> m_edges;
    std::map<int32_t, size_t> m_mapQueue;  // by task
    std::map<int32_t, size_t> m_mapEdge;   // the first edge of a sender
};

// Tells of damage, or of what this user has no right to read, and sets the status.
void judge(program& prog, const segmentImage& image, segmentKind kind);

// A time: "0.2 s", "59.9 s", "3 min", "7 h".
std::string durationText(int64_t nMs);
// For how long somebody waits, and his limit; empty when that is not known.
std::string waitText(const waitView& wait);
// How a ring of senders ends.
const char* ringKindText(ringKind kind);

// A status of a message in a word.
const char* statusName(int32_t nStatus);

}  // namespace qorctl

#endif
