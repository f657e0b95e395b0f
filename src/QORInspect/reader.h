// Checked reading of the copy of a segment.
//
// Everything is an offset from the segment's begin. Records lie in cells of the pool: the address of a list node, of a
// text or of extra data is the data of a cell in use, which is what makes a wrong link show. Each cell is reached once;
// so walks end, and cells in use that were never reached are leaked. Where the pool itself cannot be walked, records
// are only kept inside the segment and their number is bounded.
#ifndef QOR_INSPECT_READER_H
#define QOR_INSPECT_READER_H

#include <set>
#include <string>

#include "qor/InspectHelper/View.h"

namespace QOR_InspectHelper {

constexpr uint32_t sizeHeader = 8;  // size and type number
constexpr uint32_t offsetPool = 8;  // the pool's control record, in every segment
constexpr uint32_t sizeLink = 8;    // pNext and pPrev
constexpr uint32_t nullLink = 0xFFFFFFFFu;

class segmentReader {
public:
    segmentReader(const segmentImage& image, segmentKind kind);

    // Whether there is something to read; the view says what not.
    bool isBuilt() const { return m_view.bBuilt; }
    // The word at an offset, 0 outside the segment. A word that changed is remembered, see takeChanged().
    uint32_t word(uint32_t uOffset);
    int32_t number(uint32_t uOffset) { return static_cast<int32_t>(word(uOffset)); }
    std::vector<uint8_t> bytes(uint32_t uOffset, uint32_t uSize);
    // A text of at most uSize bytes, up to its NUL.
    std::string text(uint32_t uOffset, uint32_t uSize);

    // The target of a self-relative word, whose base is uBase; nullLink for none, and for what lies outside.
    uint32_t target(uint32_t uBase, uint32_t uWordOffset);

    // Claims the record at an offset: its bytes up to the end of its cell, or 0 when there is no cell in use with so
    // many, or when it was claimed before.
    uint32_t claim(uint32_t uOffset, uint32_t uNeed);
    // The size of the cell of a claimed record, with its header.
    uint32_t cellSize(uint32_t uOffset);

    // Calls fn(offset, room) for each node of a circular chain. False: the chain is broken.
    template <class Fn>
    bool walk(uint32_t uHead, uint32_t uNeed, Fn fn) {
        uint32_t uAt = uHead;
        for (;;) {
            uAt = target(uAt, uAt);
            if (uAt == uHead)
                return true;
            const uint32_t uRoom = uAt != nullLink ? claim(uAt, uNeed) : 0;
            if (uRoom == 0)
                return false;
            word(uAt + 4);  // the link backwards: it counts when two readings are compared
            fn(uAt, uRoom);
        }
    }
    // The text of a shared string at an offset. False: its block is damaged.
    bool sharedText(uint32_t uOffset, std::string& strText);

    // Whether a word that was read since the last call was not the same in both readings.
    bool takeChanged();
    // What a failure means: something changed while the segment was copied, or it is damaged.
    viewState failure() const { return m_image.changed.empty() ? viewDamaged : viewChanging; }
    // Notes a problem of the segment.
    void fail(viewState state, const std::string& strProblem);
    // Ends the reading: what the pool holds goes into the view.
    segmentView finish();

private:
    void checkHeader(segmentKind kind);
    void readPool();
    bool readCells(uint32_t uBegin);
    void sumCells();
    bool isChanged(uint32_t uOffset) const;
    bool holds(uint32_t uOffset, uint32_t uSize) const;
    cellView* findCell(uint32_t uData);
    uint32_t claimLoosely(uint32_t uOffset, uint32_t uNeed);

    const segmentImage& m_image;
    segmentView m_view;
    std::set<uint32_t> m_setClaimed;  // where the pool cannot be walked
    bool m_bChanged = false;
};

// "damaged" or "changing", and what.
std::string problemText(viewState state, const std::string& strWhat);

}  // namespace QOR_InspectHelper

#endif
