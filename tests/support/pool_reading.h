// Reads a pool from its bytes, without the library, as another program would.
//
// Word 0 of the control record is the area's size, word 1 the distance to it, words 2 and 3 the head of the
// chain of free cells. A cell consists of one header word and its data. Bit 31 of the header is set while the cell is
// free; the other bits are its length. The data of a free cell begin with its links. Positions are distances from the
// control record.
#ifndef TESTS_SUPPORT_POOL_READING_H
#define TESTS_SUPPORT_POOL_READING_H

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

namespace qorTest {

struct poolCell {
    int nAt;      // its header
    int nLength;  // header included
    bool bFree;

    int data() const { return nAt + 4; }
    int size() const { return nLength - 4; }
    bool operator==(const poolCell& r) const { return nAt == r.nAt && nLength == r.nLength && bFree == r.bFree; }
};

class poolReading {
public:
    explicit poolReading(const void* pControl) : m_pBase(static_cast<const char*>(pControl)) {
        m_nSize = word(0);
        m_nBegin = word(4);
        readCells();
        if (m_strBroken.empty())
            readChain();
    }

    // Why the pool is unusable; empty if it is usable.
    const std::string& broken() const { return m_strBroken; }
    // The number of traces of unfinished changes; 0 in a pool at rest.
    int halfMade() const { return m_nHalfMade; }
    // All cells in order of addresses.
    const std::vector<poolCell>& cells() const { return m_listCell; }
    // The headers of the chained cells, in chain order.
    const std::vector<int>& chain() const { return m_listChain; }
    // Whether the pool is usable and no change is unfinished.
    bool atRest() const { return m_strBroken.empty() && m_nHalfMade == 0; }

    const poolCell* find(int nData) const {
        for (const poolCell& cell : m_listCell)
            if (cell.data() == nData)
                return &cell;
        return nullptr;
    }
    bool isChained(int nAt) const {
        return std::find(m_listChain.begin(), m_listChain.end(), nAt) != m_listChain.end();
    }

private:
    int32_t word(int nAt) const {
        int32_t n;
        memcpy(&n, m_pBase + nAt, sizeof(n));
        return n;
    }

    void readCells() {
        int nAt = m_nBegin;
        while (nAt < m_nBegin + m_nSize) {
            const uint32_t uWord = static_cast<uint32_t>(word(nAt));
            const poolCell cell = {nAt, static_cast<int>(uWord & 0x7FFFFFFFu), (uWord & 0x80000000u) != 0};
            if (cell.nLength < 12 || cell.nLength > m_nBegin + m_nSize - nAt) {
                m_strBroken = "cell at " + std::to_string(nAt) + " of length " + std::to_string(cell.nLength);
                return;
            }
            m_listCell.push_back(cell);
            nAt += cell.nLength;
        }
    }

    // Forward links must be complete; backward links and flags may be one change late.
    void readChain() {
        int nLink = 8;
        for (size_t nLeft = m_listCell.size() + 1;; --nLeft) {
            const int nNext = nLink + word(nLink);
            const poolCell* pCell = find(nNext);
            if (nNext != 8 && (pCell == nullptr || nLeft == 0 || (nLink != 8 && nNext < nLink))) {
                m_strBroken = "link at " + std::to_string(nLink) + " to " + std::to_string(nNext);
                return;
            }
            if (nNext + word(nNext + 4) != nLink)
                ++m_nHalfMade;
            if (nNext == 8)
                break;
            m_listChain.push_back(pCell->nAt);
            nLink = nNext;
        }
        for (const poolCell& cell : m_listCell)
            if (cell.bFree != isChained(cell.nAt))
                ++m_nHalfMade;
    }

    const char* m_pBase;
    int m_nSize = 0;
    int m_nBegin = 0;
    int m_nHalfMade = 0;
    std::vector<poolCell> m_listCell;
    std::vector<int> m_listChain;
    std::string m_strBroken;
};

}  // namespace qorTest

#endif
