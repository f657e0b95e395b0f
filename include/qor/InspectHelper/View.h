/// @file
/// The contents of the copy of a segment, as plain structures.
///
/// Each function takes any bytes: every offset is checked before it is followed, every walk is bounded by the number of
/// cells of the segment's pool, and a record counts only once. What cannot be read is left out, and the view says why.
/// A view refers to nothing of its image.
///
/// A view is *sound* when all of it could be read; *changing* when the segment was being changed while it was copied,
/// so that what could not be read may be in order; *damaged* when it cannot be read although nothing was changing.
///
/// @code
/// const QOR_InspectHelper::shareView share = QOR_InspectHelper::readShare(
///     device.segment(QOR_InspectHelper::segmentShare));
/// if (share.state == QOR_InspectHelper::viewDamaged)
///     printf("%s\n", share.strProblem.c_str());
/// @endcode
///
/// Read on in Graph.h.
#ifndef QOR_INSPECTHELPER_VIEW_H
#define QOR_INSPECTHELPER_VIEW_H

#include "qor/InspectHelper/Image.h"

namespace QOR_InspectHelper {

/// Whether something could be read.
enum viewState { viewSound, viewChanging, viewDamaged };

/// One cell of a pool.
struct cellView {
    uint32_t uOffset;  ///< of its header, from the segment's begin
    uint32_t uSize;    ///< in bytes, with its header
    bool bFree;        ///< whether it is free
    bool bReached;     ///< whether something that was read lies in it
};

/// The pool of a segment.
struct poolView {
    viewState state = viewSound;  ///< whether the cells tile the pool
    std::string strProblem;       ///< why not
    bool bChained = false;        ///< whether the chain holds every free cell, in both directions
    uint32_t uSize = 0;           ///< bytes of the area, headers of cells included
    uint32_t uUsed = 0;           ///< bytes of cells in use
    uint32_t uFree = 0;           ///< bytes of free cells
    uint32_t uLargestFree = 0;    ///< the largest block that could be had, free neighbours being merged
    uint32_t uLeaked = 0;         ///< bytes of cells in use that nothing leads to
    std::vector<cellView> cells;  ///< in order of their offsets
};

/// What every view begins with.
struct segmentView {
    bool bFound = false;          ///< whether there is such a segment
    bool bBuilt = false;          ///< whether it has the header of its kind
    viewState state = viewSound;  ///< the worst of all its parts
    std::string strProblem;       ///< the first problem; empty when there is none
    poolView pool;                ///< its pool
};

/// The wait of a sender, as far as it is known: a sender notes it when it has waited for 50 ms.
struct waitView {
    bool bKnown = false;  ///< whether the sender has noted it
    uint32_t uMs = 0;     ///< for how long it has waited, in milliseconds
    int32_t nLimit = -1;  ///< its time-out in milliseconds; -1 when it waits without limit
};

/// A message.
struct messageView {
    uint32_t uOffset = 0;        ///< of its record
    bool bWaiting = false;       ///< whether a sender waits
    int32_t nStatus = 0;         ///< one of QOR_MsgQueueHelper::msgStatus
    uint32_t uMsg = 0;           ///< its id
    uint32_t wParam = 0;         ///< first parameter
    int32_t lParam = 0;          ///< second parameter
    int32_t nResult = 0;         ///< the reply
    int32_t nPriority = 0;       ///< the priority
    int32_t idSender = 0;        ///< the task that sent it
    std::vector<uint8_t> extra;  ///< the extra data
    waitView wait;               ///< how its sender waits
};

/// A thread's queue.
struct queueView {
    viewState state = viewSound;        ///< whether all messages could be read
    std::string strProblem;             ///< why not
    uint32_t uHandle = 0;               ///< the thread's handle
    std::string strName;                ///< the thread's name
    int32_t idTask = 0;                 ///< its task
    uint32_t uBytes = 0;                ///< what the queue takes of the pool: cells of record, messages and extra data
    std::vector<messageView> messages;  ///< in the queue's order
    bool bNoted = false;                ///< whether its thread notes what follows
    uint32_t uHandled = 0;              ///< messages that the thread has handled since it registered, modulo 2^32
    uint32_t uHandling = 0;             ///< offset of the message that it handles, the innermost one; 0 for none
    uint32_t uHandlingMs = 0;           ///< for how long it has handled that message, in milliseconds

    /// How many messages have a status.
    int count(int nStatus) const;
};

/// The segment of the messages.
struct shareView : segmentView {
    std::vector<queueView> queues;  ///< in the table's order: descending names
};

/// A named block.
struct namedView {
    std::string strName;         ///< its name
    uint32_t uOffset = 0;        ///< of its data
    std::vector<uint8_t> bytes;  ///< the data: what was asked for, rounded up by at most 15 bytes
};

/// The named blocks, or the counters.
struct namedTableView : segmentView {
    std::vector<namedView> blocks;  ///< in the table's order: descending names
};

/// A counter that outlives restarts.
struct counterView {
    std::string strName;  ///< its name
    uint32_t uValue;      ///< the value
    uint32_t uMin;        ///< what follows the maximum
    uint32_t uMax;        ///< the largest value
};

/// A task's nesting depth of trace scopes.
struct traceLevelView {
    int32_t idTask;  ///< the task
    int32_t nLevel;  ///< the depth
};

/// The shared trace buffer.
struct traceView : segmentView {
    std::vector<std::string> lines;      ///< oldest first
    std::vector<traceLevelView> levels;  ///< in ascending order of task ids
};

/// A key of the registry.
struct keyView {
    std::string strName;   ///< its name
    std::string strValue;  ///< its value
    int32_t nChanges = 0;  ///< changes that the file does not hold
};

/// A monitor of a section.
struct monitorView {
    int32_t idTask;       ///< the task to tell
    uint32_t uProcesser;  ///< its processor; 0 for none
};

/// A section of a document.
struct sectionView {
    uint32_t uHandle = 0;               ///< its handle
    std::string strName;                ///< its name
    bool bChanged = false;              ///< changed since the last flush
    int32_t nChanges = 0;               ///< changes that the file does not hold
    std::vector<keyView> keys;          ///< in the order in which they were made
    std::vector<monitorView> monitors;  ///< whom a flush tells
};

/// A document of the registry.
struct documentView {
    uint32_t uHandle = 0;               ///< its handle
    std::string strFile;                ///< its file; empty: left by a process that died while it made the document
    int32_t nChanges = 0;               ///< changes that the file does not hold
    std::vector<sectionView> sections;  ///< in the order in which they were made
};

/// The registry.
struct registryView : segmentView {
    int32_t idSaver = 0;                  ///< the task that saves for all; 0 for none
    std::vector<documentView> documents;  ///< in the order in which they were opened
};

/// The queues and their messages.
shareView readShare(const segmentImage& image);
/// The blocks of the named segment or of the storage file.
namedTableView readNamed(const segmentImage& image, segmentKind kind);
/// The counters among the blocks of the storage file: those that have the size of one.
std::vector<counterView> readCounters(const namedTableView& table);
/// The lines and nesting depths of the trace segment.
traceView readTrace(const segmentImage& image);
/// The documents of the registry.
registryView readRegistry(const segmentImage& image);
/// A segment of any kind, with what all views have.
segmentView readSegment(const segmentImage& image, segmentKind kind);

}  // namespace QOR_InspectHelper

#endif
