// A table of values by their hashes, in the memory of one process.
//
// Values are small and trivial, such as addresses; V() stands for none. Several may have one hash.
//
// Invariant: from a hash's home to the next free slot, every value of that hash is met, in the order in which they were
// inserted.
#ifndef QOR_INTERNAL_HASH_SLOTS_H
#define QOR_INTERNAL_HASH_SLOTS_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

namespace QOR_ArrayHelper {

template <class V>
class hashSlots {
public:
    hashSlots() = default;
    ~hashSlots() { free(m_aSlot); }
    hashSlots(const hashSlots&) = delete;
    hashSlots& operator=(const hashSlots&) = delete;

    // How many values there are.
    uint32_t size() const { return m_uUsed; }

    // The first value of a hash for which fn returns true, or V().
    template <class Fn>
    V find(uint32_t uHash, Fn fn) const {
        if (m_uSlots != 0)
            for (uint32_t i = homeOf(uHash); !isFree(i); i = slotAfter(i))
                if (m_aSlot[i].uHash == uHash && fn(m_aSlot[i].value))
                    return m_aSlot[i].value;
        return V();
    }
    // Fetches what find() reads first into the processor's cache.
    void prefetch(uint32_t uHash) const {
        if (m_uSlots != 0)
            __builtin_prefetch(m_aSlot + homeOf(uHash));
    }

    // Adds a value other than V(). False: there is no memory for it.
    bool insert(uint32_t uHash, V value) {
        // Up to three quarters are used, so that the next free slot is near.
        if (4 * m_uUsed >= 3 * m_uSlots && !grow())
            return false;
        fillSlot({value, uHash});
        ++m_uUsed;
        return true;
    }
    // Replaces a value; nothing happens if it is not there.
    void replace(uint32_t uHash, V valueOld, V valueNew) {
        const uint32_t i = slotOf(uHash, valueOld);
        if (i < m_uSlots)
            m_aSlot[i].value = valueNew;
    }
    // Removes a value; nothing happens if it is not there.
    void erase(uint32_t uHash, V value) {
        const uint32_t i = slotOf(uHash, value);
        if (i < m_uSlots)
            freeSlot(i);
    }
    // Removes all values, and keeps the memory.
    void clear() {
        if (m_uUsed != 0)
            memset(static_cast<void*>(m_aSlot), 0, m_uSlots * sizeof(slot));
        m_uUsed = 0;
    }

private:
    static constexpr int minBits = 6;  // of the number of slots

    struct slot {
        V value;  // V(): the slot is free
        uint32_t uHash;
    };

    bool isFree(uint32_t i) const { return m_aSlot[i].value == V(); }
    // By the upper bits, so that growing goes through both tables from begin to end.
    uint32_t homeOf(uint32_t uHash) const { return uHash >> m_nShift; }
    uint32_t slotAfter(uint32_t i) const { return (i + 1) & (m_uSlots - 1); }

    // The slot of a value; m_uSlots when there is none.
    uint32_t slotOf(uint32_t uHash, V value) const {
        if (m_uSlots != 0)
            for (uint32_t i = homeOf(uHash); !isFree(i); i = slotAfter(i))
                if (m_aSlot[i].value == value)
                    return i;
        return m_uSlots;
    }
    void fillSlot(const slot& vSlot) {
        uint32_t i = homeOf(vSlot.uHash);
        while (!isFree(i))
            i = slotAfter(i);
        m_aSlot[i] = vSlot;
    }
    // Closes the gap: a slot after it moves up, unless its home lies between the two.
    void freeSlot(uint32_t iHole) {
        for (uint32_t i = slotAfter(iHole); !isFree(i); i = slotAfter(i)) {
            const uint32_t uFromHome = (i - homeOf(m_aSlot[i].uHash)) & (m_uSlots - 1);
            const uint32_t uFromHole = (i - iHole) & (m_uSlots - 1);
            if (uFromHome < uFromHole)
                continue;
            m_aSlot[iHole] = m_aSlot[i];
            iHole = i;
        }
        m_aSlot[iHole] = slot();
        --m_uUsed;
    }
    // Goes through the old slots from a free one on, so that values of one hash keep their order.
    bool grow() {
        const uint32_t uOld = m_uSlots;
        const uint32_t uNew = uOld == 0 ? 1u << minBits : 2 * uOld;
        slot* const aNew = static_cast<slot*>(calloc(uNew, sizeof(slot)));
        if (aNew == NULL)
            return false;
        uint32_t iFree = 0;
        while (iFree < uOld && !isFree(iFree))
            ++iFree;
        slot* const aOld = m_aSlot;
        m_aSlot = aNew;
        m_uSlots = uNew;
        m_nShift = uOld == 0 ? 32 - minBits : m_nShift - 1;
        for (uint32_t n = 1; n < uOld; ++n) {
            const slot& vSlot = aOld[(iFree + n) & (uOld - 1)];
            if (vSlot.value != V())
                fillSlot(vSlot);
        }
        free(aOld);
        return true;
    }

    slot* m_aSlot = NULL;
    uint32_t m_uSlots = 0;  // a power of two
    uint32_t m_uUsed = 0;
    int m_nShift = 32;
};

}  // namespace QOR_ArrayHelper

#endif
