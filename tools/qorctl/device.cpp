#include "device.h"

#include <algorithm>
#include <cstdio>

#include "qor/MsgQueueHelper/Message.h"
#include "table.h"

namespace qorctl {

bool device::open(program& prog) {
    if (prog.strFrom.empty()) {
        takeOptions options;
        options.nExactMs = prog.nExactMs;
        takeImage(m_image, options);
    } else {
        std::string strError;
        if (!loadSnapshot(prog.strFrom, m_image, strError)) {
            prog.fail(exitUnhealthy, strError);
            return false;
        }
    }
    if (!m_image.hasSegment()) {
        prog.fail(exitNoSegment, "there is no segment: nothing has run yet");
        return false;
    }
    m_share = readShare(m_image.segment(segmentShare));
    m_edges = findEdges(m_share, m_image);
    for (size_t i = 0; i < m_share.queues.size(); ++i)
        m_mapQueue.emplace(m_share.queues[i].idTask, i);
    std::stable_sort(m_edges.begin(), m_edges.end(),
                     [this](const sendEdge& a, const sendEdge& b) { return nameOf(a.idFrom) < nameOf(b.idFrom); });
    for (size_t i = 0; i < m_edges.size(); ++i)
        m_mapEdge.emplace(m_edges[i].idFrom, i);
    return true;
}

bool device::open(program& prog, segmentKind kind) {
    if (!open(prog))
        return false;
    const segmentView view = readSegment(segment(kind), kind);
    if (!view.bFound) {
        prog.fail(exitNoSegment, std::string("there is no ") + segmentTypeOf(kind).lpszName);
        return false;
    }
    judge(prog, segment(kind), kind);
    return true;
}

std::vector<std::vector<size_t>> device::rings() const {
    std::vector<std::vector<size_t>> all = findRings(m_edges);
    for (std::vector<size_t>& ring : all)  // edges stand in the order of names
        std::rotate(ring.begin(), std::min_element(ring.begin(), ring.end()), ring.end());
    std::sort(all.begin(), all.end());
    return all;
}

std::string device::ringText(const std::vector<size_t>& ring) const {
    std::string str;
    for (const size_t iEdge : ring)
        str += nameOf(m_edges[iEdge].idFrom) + " -> ";
    return str + nameOf(m_edges[ring[0]].idFrom);
}

void judge(program& prog, const segmentImage& image, segmentKind kind) {
    const segmentView view = readSegment(image, kind);
    if (view.state == viewSound)
        return;
    prog.note(printable(std::string(segmentTypeOf(kind).lpszName) + ": " + view.strProblem));
    if (view.state == viewDamaged)
        prog.worsen(image.strError.empty() ? exitUnhealthy : exitNotFound);
}

const queueView* device::findQueue(const std::string& strName) const {
    for (const queueView& queue : m_share.queues)
        if (queue.strName == strName)
            return &queue;
    return nullptr;
}

const queueView* device::findQueue(int32_t idTask) const {
    const auto it = m_mapQueue.find(idTask);
    return it != m_mapQueue.end() ? &m_share.queues[it->second] : nullptr;
}

const taskImage* device::findTask(int32_t idTask) const {
    const auto it = m_image.tasks.find(idTask);
    return it != m_image.tasks.end() ? &it->second : nullptr;
}

std::string device::nameOf(int32_t idTask) const {
    if (const queueView* pQueue = findQueue(idTask))
        return pQueue->strName;
    const taskImage* pTask = findTask(idTask);
    const std::string strProgram = pTask != nullptr && !pTask->strProgram.empty() ? " (" + pTask->strProgram + ")" : "";
    return "task " + std::to_string(idTask) + strProgram;
}

threadState device::stateOf(const queueView& queue) const {
    threadState state;
    for (const messageView& message : queue.messages) {
        const bool bTaken =
            message.nStatus == QOR_MsgQueueHelper::MT_READ || message.nStatus == QOR_MsgQueueHelper::MT_REPLIED;
        // What the thread notes is the innermost of several, and also knows a message whose sender has given up.
        if (queue.uHandling != 0 ? message.uOffset == queue.uHandling : bTaken)
            state.pHandling = &message;
    }
    const taskImage* pTask = findTask(queue.idTask);
    const auto it = m_mapEdge.find(queue.idTask);
    if (pTask == nullptr || !pTask->bAlive) {
        state.lpszState = "ghost";
    } else if (it != m_mapEdge.end()) {
        state.lpszReason = m_edges[it->second].bTaken ? "reply-blocked" : "send-blocked";
        state.lpszState = state.lpszReason;
        state.idOn = m_edges[it->second].idTo;
        if (m_edges[it->second].wait.bKnown)
            state.nSinceMs = m_edges[it->second].wait.uMs;
    } else if (state.pHandling != nullptr) {
        state.lpszState = "handling";
        if (queue.uHandling != 0)
            state.nSinceMs = queue.uHandlingMs;
    } else if (pTask->nEventWaiters > 0) {
        state.lpszState = "asleep";
    }
    return state;
}

std::string durationText(int64_t nMs) {
    char sz[32];
    if (nMs < 60000)
        snprintf(sz, sizeof(sz), "%lld.%lld s", static_cast<long long>(nMs / 1000),
                 static_cast<long long>(nMs % 1000 / 100));
    else if (nMs < 6000000)
        snprintf(sz, sizeof(sz), "%lld min", static_cast<long long>(nMs / 60000));
    else
        snprintf(sz, sizeof(sz), "%lld h", static_cast<long long>(nMs / 3600000));
    return sz;
}

std::string waitText(const waitView& wait) {
    if (!wait.bKnown)
        return "";
    return durationText(wait.uMs) + (wait.nLimit < 0 ? ", no limit" : " of " + durationText(wait.nLimit));
}

const char* ringKindText(ringKind kind) {
    switch (kind) {
        case ringDeadlock:
            return "DEADLOCK";
        case ringTimed:
            return "cycle, ends by time-out";
        default:
            return "cycle, a deadlock unless one of them has a time-out";
    }
}

const char* statusName(int32_t nStatus) {
    static const char* const arrName[] = {"constructed", "allocated", "queued", "handling",
                                          "replied",     "processed", "closed", "freed"};
    return nStatus >= -2 && nStatus <= 5 ? arrName[nStatus + 2] : nullptr;
}

}  // namespace qorctl
