/// @file
/// Who waits for whom: the sends of a device that have not been answered.
///
/// An edge is the record of a send whose sender lives, is not the owner of the queue, and has no answer yet. A sender
/// that got an early reply, or has stopped waiting, has no edge.
///
/// @code
/// const auto edges = QOR_InspectHelper::findEdges(share, device);
/// for (const auto& ring : QOR_InspectHelper::findRings(edges))
///     printf("%zu threads wait for each other\n", ring.size());
/// @endcode
#ifndef QOR_INSPECTHELPER_GRAPH_H
#define QOR_INSPECTHELPER_GRAPH_H

#include "qor/InspectHelper/View.h"

namespace QOR_InspectHelper {

/// A sender that waits.
struct sendEdge {
    int32_t idFrom;              ///< the sender's task
    int32_t idTo;                ///< the task whose answer it waits for
    uint32_t uMsg;               ///< the message's id
    bool bTaken;                 ///< the receiver has taken the message; else it is still queued
    waitView wait = waitView();  ///< how the sender waits
};

/// The edges of a device, in the order of its queues and messages.
std::vector<sendEdge> findEdges(const shareView& share, const deviceImage& device);

/// The rings among edges: lists of indices of edges, each of which begins where the one before it ends, and the first
/// where the last ends. Every ring begins at its smallest task id; rings are in ascending order of it. Takes time in
/// proportion to the number of edges; of rings that share members at least one is found.
std::vector<std::vector<size_t>> findRings(const std::vector<sendEdge>& edges);

/// How a ring of senders ends.
enum ringKind {
    ringDeadlock,  ///< never: every member is known to wait without limit
    ringTimed,     ///< by a time-out: at least one member is known to have one
    ringUnknown    ///< not known: no member is known to have a time-out, and not all are known to have none
};

/// How a ring of findRings() ends.
ringKind judgeRing(const std::vector<sendEdge>& edges, const std::vector<size_t>& ring);

}  // namespace QOR_InspectHelper

#endif
