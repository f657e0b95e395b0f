// Waits for an answer that last, and looking for a cycle of sends: threads each of which waits for the answer of the
// next one.
//
// The edges are copied once under the segment's lock; who lives is asked after it is released. Two threads that close a
// cycle at the same time may both find it, and so may every member that waits without a limit: each of them warns once.
#include "QORMsgSystem/long_wait.h"

#include <map>
#include <string>

#include "QORMsgSystem/queue.h"
#include "qor/MiscHelper.h"
#include "qor/TraceHelper.h"
#include "xInc/xMsgSystem.h"

using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;

namespace QOR_MsgQueueHelper {

namespace {

constexpr unsigned long long untilNote = 50000;     // us
constexpr unsigned long long untilCheck = 1000000;  // us
constexpr size_t maxRecords = chSystemShareObject::sizeObject / sizeMessageRecord;

// A sender that waits for an answer, and who is to give it.
struct waitingSend {
    int idFrom;
    int idTo;
};

struct sendGraph {
    std::vector<waitingSend> listSend;
    std::map<int, std::string> mapName;  // of the tasks that are to answer
};

void copyQueue(const chMsgQueue& objQueue, sendGraph& graph) {
    const int idTo = objQueue.GetTaskId();
    const size_t nBefore = graph.listSend.size();
    objQueue.FindMessage([&](msgObject& objMessage) {
        const int idFrom = QOR_ChainHelper::loadShareWord(objMessage.m_idSender);
        if (isUnanswered(QOR_ChainHelper::loadShareWord(objMessage.m_bIsWaitingReply) != 0, objMessage.GetStatus()) &&
            idFrom != idTo)
            graph.listSend.push_back({idFrom, idTo});
        return false;
    });
    if (graph.listSend.size() > nBefore)
        graph.mapName.emplace(idTo, queueName(&objQueue));
}

// The memory is there before the lock is taken, but for the names.
sendGraph copyGraph() {
    sendGraph graph;
    graph.listSend.reserve(maxRecords);
    const segmentLock lock;
    for (const chMsgQueue* pQueue : lock.getObject()->m_objManager.ListQueues())
        copyQueue(*pQueue, graph);
    return graph;
}

// The tasks of the shortest cycle that leads from a task back to it, in order and without its return; empty when there
// is none. A sender that has died waits for nobody.
std::vector<int> findCycle(const sendGraph& graph, int idSelf) {
    std::map<int, int> mapBefore;  // the task from which each was reached
    std::vector<int> listReached = {idSelf};
    for (size_t i = 0; i < listReached.size(); ++i) {
        const int idFrom = listReached[i];
        if (!qorIsValidTaskID(idFrom))
            continue;
        for (const waitingSend& send : graph.listSend) {
            if (send.idFrom == idFrom && mapBefore.emplace(send.idTo, idFrom).second)
                listReached.push_back(send.idTo);
        }
    }
    std::vector<int> listCycle;
    for (auto it = mapBefore.find(idSelf); it != mapBefore.end(); it = mapBefore.find(it->second)) {
        listCycle.insert(listCycle.begin(), it->second);
        if (it->second == idSelf)
            break;
    }
    return listCycle;
}

void warnOfCycle() {
    const sendGraph graph = copyGraph();
    const int idSelf = qorGetCurrentTaskId();
    const std::vector<int> listCycle = findCycle(graph, idSelf);
    if (listCycle.empty())
        return;
    std::string strCycle;
    for (const int idTask : listCycle)
        strCycle += graph.mapName.at(idTask) + " -> ";
    QOR_TraceHelper::qorOutputWarningString("cycle of sends: %s%s", strCycle.c_str(), graph.mapName.at(idSelf).c_str());
}

}  // namespace

void longWait::LookAgain(const waitDeadline& deadline) {
    const bool bLimited = deadline.GetTotal() >= 0;
    if (m_bNoted && (m_bChecked || bLimited))
        return;
    const unsigned long long uNow = getMonotonicMicrosecond();
    if (m_uBegin == 0)
        m_uBegin = uNow - static_cast<unsigned>(m_nWaited) * 1000ull;
    if (!m_bNoted && uNow - m_uBegin >= untilNote) {
        m_bNoted = true;
        m_pNote = noteWait(m_objMessage, static_cast<uint32_t>(m_uBegin / 1000), deadline.GetTotal());
    }
    if (bLimited || m_bChecked || uNow - m_uBegin < untilCheck)
        return;
    m_bChecked = true;
    warnOfCycle();
}

}  // namespace QOR_MsgQueueHelper
