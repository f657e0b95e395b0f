#include "QORInspect/reader.h"

#include <algorithm>
#include <cstring>

#include "qor/AllocHelper.h"

namespace QOR_InspectHelper {

namespace {

constexpr uint32_t bitFree = 0x80000000u;
constexpr uint32_t sizeCellHeader = sizeof(QOR_AllocHelper::poll_chain);
constexpr uint32_t minCell = sizeCellHeader + sizeLink;

static_assert(sizeof(QOR_AllocHelper::baseStaticPoolAlloc) == 16, "size, distance of the area, chain of free cells");
static_assert(sizeof(QOR_ChainHelper::list_chain_offset) == sizeLink, "pNext, pPrev");

}  // namespace

std::string problemText(viewState state, const std::string& strWhat) {
    return strWhat + (state == viewChanging ? ": changing" : ": damaged");
}

segmentReader::segmentReader(const segmentImage& image, segmentKind kind) : m_image(image) {
    m_view.bFound = image.bFound;
    if (!image.bFound)
        return;
    if (!image.strError.empty()) {
        fail(viewDamaged, image.strError);
        return;
    }
    checkHeader(kind);
    if (m_view.bBuilt)
        readPool();
}

void segmentReader::checkHeader(segmentKind kind) {
    const segmentType& type = segmentTypeOf(kind);
    if (m_image.bytes.size() < sizeHeader + 16 || m_image.bytes.size() > type.uSize) {
        fail(viewDamaged, "size " + std::to_string(m_image.bytes.size()) + ": expected " + std::to_string(type.uSize));
        return;
    }
    const uint32_t uSize = word(0);
    const int32_t nType = number(4);
    if (uSize == 0 && nType == 0)
        fail(viewChanging, "not built yet");
    else if (uSize != type.uSize || nType != type.nType)
        fail(viewDamaged, "header " + std::to_string(uSize) + "/" + std::to_string(nType) + ": expected " +
                              std::to_string(type.uSize) + "/" + std::to_string(type.nType));
    else
        m_view.bBuilt = true;
}

void segmentReader::fail(viewState state, const std::string& strProblem) {
    m_view.state = std::max(m_view.state, state);
    if (m_view.strProblem.empty())
        m_view.strProblem = strProblem;
}

// ---- words and bytes

bool segmentReader::holds(uint32_t uOffset, uint32_t uSize) const {
    return uOffset <= m_image.bytes.size() && uSize <= m_image.bytes.size() - uOffset;
}

bool segmentReader::isChanged(uint32_t uOffset) const {
    const auto it = std::upper_bound(m_image.changed.begin(), m_image.changed.end(), uOffset,
                                     [](uint32_t u, const changedRange& range) { return u < range.uEnd; });
    return it != m_image.changed.end() && it->uBegin < uOffset + 4;
}

bool segmentReader::takeChanged() {
    const bool bChanged = m_bChanged;
    m_bChanged = false;
    return bChanged;
}

uint32_t segmentReader::word(uint32_t uOffset) {
    if (!holds(uOffset, 4))
        return 0;
    m_bChanged |= isChanged(uOffset);
    const uint8_t* p = m_image.bytes.data() + uOffset;
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

std::vector<uint8_t> segmentReader::bytes(uint32_t uOffset, uint32_t uSize) {
    if (!holds(uOffset, uSize))
        return {};
    for (uint32_t u = uOffset & ~3u; u < uOffset + uSize && !m_image.changed.empty(); u += 4)
        m_bChanged |= isChanged(u);
    const auto it = m_image.bytes.begin() + static_cast<ptrdiff_t>(uOffset);
    return std::vector<uint8_t>(it, it + static_cast<ptrdiff_t>(uSize));
}

std::string segmentReader::text(uint32_t uOffset, uint32_t uSize) {
    const std::vector<uint8_t> part = bytes(uOffset, uSize);
    return std::string(part.begin(), std::find(part.begin(), part.end(), 0));
}

uint32_t segmentReader::target(uint32_t uBase, uint32_t uWordOffset) {
    const uint32_t uDistance = word(uWordOffset);
    const uint32_t uTarget = uBase + uDistance;
    return uDistance == nullLink || (uTarget & 3) != 0 || !holds(uTarget, 4) ? nullLink : uTarget;
}

bool segmentReader::sharedText(uint32_t uOffset, std::string& strText) {
    strText.clear();
    if (word(uOffset + 4) == nullLink)
        return true;
    const uint32_t uBlock = target(uOffset, uOffset + 4);
    const uint32_t uRoom = uBlock != nullLink ? claim(uBlock, 8) : 0;
    const uint32_t uLength = word(uBlock);
    if (uRoom == 0 || uLength >= uRoom - 4)
        return false;
    strText = text(uBlock + 4, uLength);
    return true;
}

// ---- the pool

void segmentReader::readPool() {
    poolView& pool = m_view.pool;
    const uint32_t uSize = word(offsetPool);
    const uint32_t uBegin = target(offsetPool, offsetPool + 4);
    if (uBegin != nullLink && (uSize & 3) == 0 && holds(uBegin, uSize)) {
        pool.uSize = uSize;
        if (readCells(uBegin)) {
            sumCells();
            return;
        }
    }
    pool.cells.clear();
    pool.state = failure();
    pool.strProblem = problemText(pool.state, "pool");
    fail(pool.state, pool.strProblem);
}

bool segmentReader::readCells(uint32_t uBegin) {
    const uint32_t uEnd = uBegin + m_view.pool.uSize;
    for (uint32_t u = uBegin; u != uEnd;) {
        const uint32_t uWord = word(u);
        const uint32_t uCell = uWord & ~bitFree;
        if (uCell < minCell || (uCell & 3) != 0 || uCell > uEnd - u)
            return false;
        m_view.pool.cells.push_back({u, uCell, (uWord & bitFree) != 0, false});
        u += uCell;
    }
    return true;
}

// Free neighbours count as one block: the next search merges them.
void segmentReader::sumCells() {
    poolView& pool = m_view.pool;
    const uintptr_t uBegin = reinterpret_cast<uintptr_t>(m_image.bytes.data());
    const auto* const pPool = reinterpret_cast<const QOR_AllocHelper::baseStaticPoolAlloc*>(uBegin + offsetPool);
    const QOR_AllocHelper::poolCheck check = pPool->check_pool({uBegin, uBegin + m_image.bytes.size()});
    pool.bChained = check.m_bChained;
    pool.uFree = static_cast<uint32_t>(check.m_nFree);
    pool.uUsed = pool.uSize - pool.uFree;
    pool.uLargestFree = static_cast<uint32_t>(check.m_nLargestFree);
}

cellView* segmentReader::findCell(uint32_t uData) {
    std::vector<cellView>& cells = m_view.pool.cells;
    const uint32_t uHeader = uData - sizeCellHeader;
    const auto it = std::lower_bound(cells.begin(), cells.end(), uHeader,
                                     [](const cellView& cell, uint32_t u) { return cell.uOffset < u; });
    return it != cells.end() && it->uOffset == uHeader ? &*it : nullptr;
}

uint32_t segmentReader::claim(uint32_t uOffset, uint32_t uNeed) {
    if (m_view.pool.state != viewSound)
        return claimLoosely(uOffset, uNeed);
    cellView* const pCell = findCell(uOffset);
    if (pCell == nullptr || pCell->bFree || pCell->bReached || pCell->uSize - sizeCellHeader < uNeed)
        return 0;
    pCell->bReached = true;
    return pCell->uSize - sizeCellHeader;
}

uint32_t segmentReader::claimLoosely(uint32_t uOffset, uint32_t uNeed) {
    if (uOffset < sizeHeader || !holds(uOffset, uNeed) || !m_setClaimed.insert(uOffset).second)
        return 0;
    return static_cast<uint32_t>(m_image.bytes.size()) - uOffset;
}

uint32_t segmentReader::cellSize(uint32_t uOffset) {
    const cellView* pCell = findCell(uOffset);
    return pCell != nullptr ? pCell->uSize : 0;
}

segmentView segmentReader::finish() {
    poolView& pool = m_view.pool;
    // After a broken chain nobody knows what the rest of it led to.
    if (m_view.state == viewSound)
        for (const cellView& cell : pool.cells)
            pool.uLeaked += cell.bFree || cell.bReached ? 0 : cell.uSize;
    return m_view;
}

}  // namespace QOR_InspectHelper
