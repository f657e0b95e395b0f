#include <algorithm>
#include <map>

#include "internal/message.h"
#include "qor/InspectHelper/Graph.h"

namespace QOR_InspectHelper {

namespace {

// A depth-first search without recursion: a device may have as many edges as its pool has records.
class ringSearch {
public:
    explicit ringSearch(const std::vector<sendEdge>& edges) : m_edges(edges) {
        for (size_t i = 0; i < edges.size(); ++i)
            m_mapFrom[edges[i].idFrom].push_back(i);
    }

    std::vector<std::vector<size_t>> Search() {
        for (const auto& from : m_mapFrom)
            if (m_mapDepth.count(from.first) == 0)
                SearchFrom(from.first);
        std::sort(m_rings.begin(), m_rings.end(), [this](const std::vector<size_t>& a, const std::vector<size_t>& b) {
            return m_edges[a[0]].idFrom < m_edges[b[0]].idFrom;
        });
        return m_rings;
    }

private:
    struct step {
        int32_t idTask;
        size_t iNext;  // the next of its edges to follow
    };

    void SearchFrom(int32_t idFirst) {
        std::vector<size_t> path;  // the edges that lead to the last step
        std::vector<step> steps = {{idFirst, 0}};
        m_mapDepth[idFirst] = 0;
        while (!steps.empty()) {
            const auto it = m_mapFrom.find(steps.back().idTask);
            if (it == m_mapFrom.end() || steps.back().iNext == it->second.size()) {
                m_mapDepth[steps.back().idTask] = nDone;
                steps.pop_back();
                if (!path.empty())
                    path.pop_back();
                continue;
            }
            const size_t iEdge = it->second[steps.back().iNext++];
            Follow(iEdge, path, steps);
        }
    }

    void Follow(size_t iEdge, std::vector<size_t>& path, std::vector<step>& steps) {
        const int32_t idTo = m_edges[iEdge].idTo;
        const auto it = m_mapDepth.find(idTo);
        if (it == m_mapDepth.end()) {
            m_mapDepth[idTo] = static_cast<int>(steps.size());
            path.push_back(iEdge);
            steps.push_back({idTo, 0});
        } else if (it->second != nDone) {
            std::vector<size_t> ring(path.begin() + it->second, path.end());
            ring.push_back(iEdge);
            AddRing(ring);
        }
    }

    void AddRing(std::vector<size_t> ring) {
        const auto itLeast = std::min_element(
            ring.begin(), ring.end(), [this](size_t a, size_t b) { return m_edges[a].idFrom < m_edges[b].idFrom; });
        std::rotate(ring.begin(), itLeast, ring.end());
        m_rings.push_back(ring);
    }

    static constexpr int nDone = -1;

    const std::vector<sendEdge>& m_edges;
    std::map<int32_t, std::vector<size_t>> m_mapFrom;
    std::map<int32_t, int> m_mapDepth;  // of a task on the path, or nDone
    std::vector<std::vector<size_t>> m_rings;
};

}  // namespace

std::vector<sendEdge> findEdges(const shareView& share, const deviceImage& device) {
    std::vector<sendEdge> edges;
    for (const queueView& queue : share.queues)
        for (const messageView& message : queue.messages)
            if (QOR_MsgQueueHelper::isUnanswered(message.bWaiting, message.nStatus) &&
                message.idSender != queue.idTask && device.isAlive(message.idSender))
                edges.push_back({message.idSender, queue.idTask, message.uMsg,
                                 message.nStatus == QOR_MsgQueueHelper::MT_READ, message.wait});
    return edges;
}

std::vector<std::vector<size_t>> findRings(const std::vector<sendEdge>& edges) { return ringSearch(edges).Search(); }

ringKind judgeRing(const std::vector<sendEdge>& edges, const std::vector<size_t>& ring) {
    bool bAllKnown = true;
    for (const size_t iEdge : ring) {
        const waitView& wait = edges[iEdge].wait;
        if (wait.bKnown && wait.nLimit >= 0)
            return ringTimed;
        bAllKnown &= wait.bKnown;
    }
    return bAllKnown ? ringDeadlock : ringUnknown;
}

}  // namespace QOR_InspectHelper
