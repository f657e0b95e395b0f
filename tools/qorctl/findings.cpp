#include "findings.h"

#include <algorithm>

#include "qor/MsgQueueHelper/Message.h"
#include "table.h"

namespace qorctl {

namespace {

constexpr int manyMessages = 64;
constexpr int manyClosed = 16;
constexpr int64_t longLocked = 2;    // seconds
constexpr uint32_t littleRoom = 10;  // percent
constexpr double fullLimit = 90;     // percent

typedef std::vector<finding> findings;

void findGhosts(const device& dev, findings& all) {
    for (const queueView& queue : dev.share().queues)
        if (!dev.image().isAlive(queue.idTask))
            all.push_back(
                {false, "ghost",
                 "thread \"" + queue.strName + "\" (task " + std::to_string(queue.idTask) +
                     ") ended without unregistering; its queue holds " + std::to_string(queue.uBytes) + " bytes",
                 "The next thread that registers sweeps it, or \"qorctl clean\". Find out why its process died."});
}

const char* adviceOn(ringKind kind) {
    switch (kind) {
        case ringDeadlock:
            return "They wait for ever. End one of the processes; let one of the sends be a post, or give it a "
                   "time-out.";
        case ringTimed:
            return "One of these sends has a time-out, which ends it. Let one of them be a post.";
        default:
            return "Unless one of these sends has a time-out they wait for ever. End one of the processes; let one of "
                   "the sends be a post, or give it a time-out.";
    }
}

void findCycles(const device& dev, findings& all) {
    for (const auto& ring : dev.rings()) {
        const ringKind kind = judgeRing(dev.edges(), ring);
        all.push_back({kind != ringTimed, kind == ringDeadlock ? "deadlock" : "cycle",
                       std::string(kind == ringDeadlock ? "DEADLOCK: " : "") +
                           "threads wait for each other: " + dev.ringText(ring),
                       adviceOn(kind)});
    }
}

std::string stateOf(const device& dev, const queueView& queue) {
    const threadState state = dev.stateOf(queue);
    const std::string strSince = state.nSinceMs >= 0 ? " for " + durationText(state.nSinceMs) : "";
    if (state.lpszReason != nullptr)
        return ", which is " + std::string(state.lpszReason) + " on \"" + dev.nameOf(state.idOn) + "\"" + strSince;
    if (state.pHandling != nullptr)
        return ", which is handling message " + hexNumber(state.pHandling->uMsg) + strSince;
    return "";
}

void findLongQueues(const device& dev, findings& all) {
    for (const queueView& queue : dev.share().queues) {
        if (!dev.image().isAlive(queue.idTask) || queue.state != viewSound)
            continue;
        const int nQueued = queue.count(QOR_MsgQueueHelper::MT_EMITTED);
        const int nClosed = queue.count(QOR_MsgQueueHelper::MT_CLOSED);
        if (nQueued >= manyMessages)
            all.push_back({false, "queue",
                           std::to_string(nQueued) + " messages (" + std::to_string(queue.uBytes) +
                               " bytes) wait for thread \"" + queue.strName + "\"" + stateOf(dev, queue),
                           "See what the thread does (qorctl ps) and what it does not read (qorctl queue \"" +
                               queue.strName + "\"). When the pool is full, the processes that post to it end."});
        if (nClosed >= manyClosed)
            all.push_back({false, "closed",
                           std::to_string(nClosed) + " senders have given up on thread \"" + queue.strName + "\"",
                           "Their time-outs are too short for it, or it hangs in one message."});
    }
}

// Who holds most of the pool of messages.
std::string largestHolder(const device& dev) {
    const std::vector<queueView>& queues = dev.share().queues;
    const auto it = std::max_element(queues.begin(), queues.end(),
                                     [](const queueView& a, const queueView& b) { return a.uBytes < b.uBytes; });
    return it == queues.end() ? std::string()
                              : "; most of it, " + std::to_string(it->uBytes) + " bytes, is the queue of \"" +
                                    it->strName + "\"" + stateOf(dev, *it);
}

void findPoolTroubles(const device& dev, segmentKind kind, const segmentView& view, findings& all) {
    const std::string strName = segmentTypeOf(kind).lpszName;
    const std::string& strUnread = dev.segment(kind).strError;
    if (!strUnread.empty())
        all.push_back({false, "unread", strName + ": " + strUnread,
                       "Look as root, or as a member of the device's group: nothing is known of it."});
    else if (view.state == viewDamaged)
        all.push_back({true, "damage", strName + ": " + view.strProblem,
                       "Keep it (qorctl snapshot FILE), end all processes and remove it (qorctl clean --all)."});
    if (view.pool.state != viewSound || view.pool.uSize == 0)
        return;
    // The trace buffer is meant to be full: its oldest lines make room.
    if (kind != segmentTrace &&
        static_cast<uint64_t>(view.pool.uFree) * 100 < static_cast<uint64_t>(view.pool.uSize) * littleRoom)
        all.push_back({false, "pool",
                       strName + ": " + std::to_string(view.pool.uUsed) + " of " + std::to_string(view.pool.uSize) +
                           " bytes are in use" + (kind == segmentShare ? largestHolder(dev) : ""),
                       "A process that asks for more than there is ends with \"pResultCell != NULL\"."});
    if (view.pool.uLeaked > 0)
        all.push_back(
            {false, "leak",
             strName + ": " + std::to_string(view.pool.uLeaked) + " bytes are in use and nothing leads to them",
             "The library leaves no such bytes, whoever is killed: a program that allocates there itself has forgotten "
             "them, or something is wrong."});
}

void findKeyTroubles(const device& dev, segmentKind kind, findings& all) {
    const segmentImage& image = dev.segment(kind);
    const std::string strName = segmentTypeOf(kind).lpszName;
    if (!image.bKeyFile && kind != segmentStorage)
        all.push_back(
            {false, "keyfile", strName + ": its key file /tmp/qor_" + strName + " is gone",
             "Processes that start now make a segment of their own. Restart all of them, and spare /tmp/qor_* "
             "from whatever cleans /tmp."});
    if (!image.others.empty())
        all.push_back({false, "split",
                       strName + ": there are " + std::to_string(image.others.size() + 1) +
                           " segments of this kind; some processes may use another than the rest",
                       "A key file was replaced, or removed and made again. Restart all processes."});
}

void findLockTroubles(const device& dev, segmentKind kind, findings& all) {
    const lockImage& lock = dev.segment(kind).lock;
    const int64_t nSeconds = dev.image().tTaken - lock.tLast;
    if (!lock.bFound || lock.nValue > 0 || nSeconds < longLocked)
        return;
    all.push_back({false, "lock",
                   std::string(segmentTypeOf(kind).lpszName) + ": its lock has been held for " +
                       std::to_string(nSeconds) + " s by process " + std::to_string(lock.idLast) + ", and " +
                       std::to_string(lock.nWaiters) + " tasks wait",
                   "Is that process stopped? See /proc/" + std::to_string(lock.idLast) +
                       "/status. When it ends, the kernel frees the lock."});
}

void findSegmentTroubles(const device& dev, findings& all) {
    for (const segmentKind kind : {segmentShare, segmentNamed, segmentStorage, segmentTrace, segmentRegistry}) {
        if (!dev.segment(kind).bFound)
            continue;
        findPoolTroubles(dev, kind, readSegment(dev.segment(kind), kind), all);
        findKeyTroubles(dev, kind, all);
        findLockTroubles(dev, kind, all);
    }
}

void findLostEvents(const device& dev, findings& all) {
    const auto& events = dev.image().events;
    const auto nLost =
        std::count_if(events.begin(), events.end(), [&dev](int32_t id) { return !dev.image().isAlive(id); });
    if (nLost > 0)
        all.push_back({false, "event", std::to_string(nLost) + " wake-up events belong to no task",
                       "\"qorctl clean\" removes them."});
}

void findFullLimit(const char* lpszWhat, const char* lpszSetting, int64_t nUsed, int64_t nMax, findings& all) {
    if (nUsed >= 0 && nMax > 0 && static_cast<double>(nUsed) * 100 > static_cast<double>(nMax) * fullLimit)
        all.push_back({false, "limit",
                       std::to_string(nUsed) + " of " + std::to_string(nMax) + " " + lpszWhat + " are in use",
                       std::string("Raise ") + lpszSetting + ", or remove what nobody uses (ipcs, ipcrm)."});
}

}  // namespace

void findGrowingQueues(const std::vector<device>& looks, int nIntervalMs, std::vector<finding>& all) {
    if (looks.size() < 2)
        return;
    for (const queueView& last : looks.back().share().queues) {
        std::string strCounts;
        int nBefore = -1;
        for (const device& dev : looks) {
            const queueView* pQueue = dev.findQueue(last.idTask);
            if (pQueue == nullptr || pQueue->state != viewSound || pQueue->strName != last.strName)
                break;
            const int nQueued = pQueue->count(QOR_MsgQueueHelper::MT_EMITTED);
            if (nQueued <= nBefore)
                break;
            strCounts += (nBefore < 0 ? "" : ", ") + std::to_string(nQueued);
            nBefore = nQueued;
            if (&dev == &looks.back())
                all.push_back(
                    {false, "growing",
                     "the queue of thread \"" + last.strName + "\" grows: " + strCounts + " messages in looks " +
                         std::to_string(nIntervalMs) + " ms apart" + stateOf(dev, last),
                     "More is posted to it than it handles. When the pool is full, the processes that post to "
                     "it end."});
        }
    }
}

std::vector<finding> findTroubles(const device& dev) {
    findings all;
    findCycles(dev, all);
    findSegmentTroubles(dev, all);
    findLongQueues(dev, all);
    findGhosts(dev, all);
    findLostEvents(dev, all);
    const limitImage& limits = dev.image().limits;
    findFullLimit("segments", "kernel.shmmni", limits.nSegmentUsed, limits.nSegmentMax, all);
    findFullLimit("semaphore sets", "the last number of kernel.sem", limits.nSemaphoreUsed, limits.nSemaphoreMax, all);
    std::stable_sort(all.begin(), all.end(),
                     [](const finding& a, const finding& b) { return a.bUnhealthy && !b.bUnhealthy; });
    return all;
}

}  // namespace qorctl
