#include "counters.h"

#include "qor/flat.h"

namespace qormqtt {

counters::counters() : m_own(), m_pBlock(&m_own) {}

bool counters::useBlock() {
    nameHelperLock();
    int bCreated = 0;
    counterBlock* const pBlock =
        static_cast<counterBlock*>(nameGetSystemObject(szCounterBlock, sizeof(counterBlock), &bCreated));
    if (bCreated || pBlock->uMagic == 0) {
        pBlock->uCount = countKinds;
        pBlock->uMagic = counterMagic;
    }
    const bool bGood = pBlock->uMagic == counterMagic && pBlock->uCount >= countKinds;
    nameHelperUnlock();
    if (bGood)
        m_pBlock = pBlock;
    return bGood;
}

void counters::add(counterKind kind, uint32_t uMore) {
    m_pBlock->aCount[kind].fetch_add(uMore, std::memory_order_relaxed);
}

uint32_t counters::get(counterKind kind) const { return m_pBlock->aCount[kind].load(std::memory_order_relaxed); }

std::map<std::string, uint32_t> counters::all() const {
    std::map<std::string, uint32_t> values;
    for (int i = 0; i < countKinds; ++i)
        values[nameOfCounter(static_cast<size_t>(i)).lpszName] = get(static_cast<counterKind>(i));
    return values;
}

}  // namespace qormqtt
