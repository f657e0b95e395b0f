// Checked walks over circular chains of offset links. Whatever stands in the segment, a walk ends, and follows a link
// only to a record that lies, aligned, in the same segment. A broken chain is a fatal assertion of the including
// source.
//
// A chain is changed in an order that leaves the way forward whole at every instant: a new record is complete before
// the one store that makes it reachable, and one store bypasses an old one, after the link backwards has been changed.
#ifndef QOR_INTERNAL_SHARE_CHAIN_H
#define QOR_INTERNAL_SHARE_CHAIN_H

#include "qor/ChainHelper.h"

#ifndef QOR_MODULE
#error "include internal/report.h with QOR_MODULE first"
#endif

namespace QOR_ChainHelper {

// The records of one chain, each at least sizeNode bytes from its link on.
class shareChain {
public:
    shareChain(const list_chain_offset* pHead, size_t sizeNode)
        : m_objRange(findShareRange(pHead)), m_pHead(const_cast<list_chain_offset*>(pHead)), m_sizeNode(sizeNode) {}

    // The record behind p; null at the end of the chain.
    list_chain_offset* Next(const list_chain_offset* p) const { return Check(target(wordsOf(p)[0])); }
    // The record in front of p; null at the begin of the chain. The way forward is the truth: a killed process may have
    // left a link backwards behind, which is seen by its target not leading here.
    list_chain_offset* Prev(const list_chain_offset* p) const {
        // A link backwards names the second word of its record.
        const uintptr_t u = target(wordsOf(p)[1]) - sizeof(int32_t);
        if (m_objRange.holds(u, sizeof(list_chain_offset))) {
            list_chain_offset* pPrev = reinterpret_cast<list_chain_offset*>(u);
            if (target(wordsOf(pPrev)[0]) == reinterpret_cast<uintptr_t>(p))
                return pPrev == m_pHead ? NULL : pPrev;
        }
        list_chain_offset* pPrev = m_pHead;
        Find([p, &pPrev](list_chain_offset* pNode) {
            if (pNode == p)
                return true;
            pPrev = pNode;
            return false;
        });
        return pPrev == m_pHead ? NULL : pPrev;
    }
    list_chain_offset* First() const { return Next(m_pHead); }
    list_chain_offset* Last() const { return Prev(m_pHead); }

    // The first record for which fnStop answers true, in chain order; null when there is none.
    template <typename Fn>
    list_chain_offset* Find(Fn fnStop) const {
        size_t nLeft = limit();
        for (list_chain_offset* p = First(); p != NULL; p = Next(p)) {
            if (fnStop(p))
                return p;
            if (nLeft-- == 0)
                return broken();
        }
        return NULL;
    }
    // The last record for which fnStop answers true; null when there is none.
    template <typename Fn>
    list_chain_offset* FindLast(Fn fnStop) const {
        size_t nLeft = limit();
        for (list_chain_offset* p = Last(); p != NULL; p = Prev(p)) {
            if (fnStop(p))
                return p;
            if (nLeft-- == 0)
                return broken();
        }
        return NULL;
    }
    bool Holds(const list_chain_offset* pNode) const {
        return Find([pNode](const list_chain_offset* p) { return p == pNode; }) != NULL;
    }

    // Gives every record for which fnMatch answers true to fnTake, which takes it out, until there is none.
    template <typename Match, typename Take>
    void Drain(Match fnMatch, Take fnTake) const {
        size_t nLeft = limit();
        while (list_chain_offset* p = Find(fnMatch)) {
            fnTake(p);
            if (nLeft-- == 0) {
                broken();
                return;
            }
        }
    }

    // Links a new record behind pLeft (null: at the front).
    void InsertBehind(list_chain_offset* pLeft, list_chain_offset* pNew) const {
        list_chain_offset* pRealLeft = pLeft != NULL ? pLeft : m_pHead;
        list_chain_offset* pNext = Next(pRealLeft);
        list_chain_offset* pRight = pNext != NULL ? pNext : m_pHead;
        storeLink(wordsOf(pNew)[0], pRight, 0);
        storeLink(wordsOf(pNew)[1], pRealLeft, 1);
        storeLink(wordsOf(pRealLeft)[0], pNew, 0);
        storeLink(wordsOf(pRight)[1], pNew, 1);
    }
    // Links a new record in front of pRight (null: at the end). Its neighbour is found on the way forward alone: behind
    // a record to which only a damaged way back leads, nobody would find the new one.
    void InsertBefore(list_chain_offset* pRight, list_chain_offset* pNew) const {
        list_chain_offset* pLeft = NULL;
        Find([pRight, &pLeft](list_chain_offset* p) {
            pLeft = p == pRight ? pLeft : p;
            return p == pRight;
        });
        InsertBehind(pLeft, pNew);
    }
    // Takes a record out; one that a killed process has taken out already stays out. Its own links become null.
    void Unlink(list_chain_offset* pNode) const {
        list_chain_offset* pPrev = Prev(pNode);
        list_chain_offset* pLeft = pPrev != NULL ? pPrev : m_pHead;
        if (target(wordsOf(pLeft)[0]) == reinterpret_cast<uintptr_t>(pNode)) {
            list_chain_offset* pNext = Next(pNode);
            list_chain_offset* pRight = pNext != NULL ? pNext : m_pHead;
            storeLink(wordsOf(pRight)[1], pLeft, 1);
            storeLink(wordsOf(pLeft)[0], pRight, 0);
        }
        storeShareWord(wordsOf(pNode)[0], nullLink);
        storeShareWord(wordsOf(pNode)[1], nullLink);
    }

private:
    static constexpr int32_t nullLink = -1;

    static int32_t* wordsOf(const list_chain_offset* p) {
        return reinterpret_cast<int32_t*>(const_cast<list_chain_offset*>(p));
    }
    static uintptr_t target(const int32_t& nWord) {
        return reinterpret_cast<uintptr_t>(&nWord) +
               static_cast<uintptr_t>(static_cast<intptr_t>(loadShareWord(nWord)));
    }
    static void storeLink(int32_t& nWord, list_chain_offset* pTarget, int iWord) {
        const uintptr_t u = reinterpret_cast<uintptr_t>(wordsOf(pTarget) + iWord);
        storeShareWord(nWord, static_cast<int32_t>(u - reinterpret_cast<uintptr_t>(&nWord)));
    }
    // No record is smaller than a pool cell's header and its smallest data.
    size_t limit() const { return (m_objRange.m_uEnd - m_objRange.m_uBegin) / 12; }

    list_chain_offset* Check(uintptr_t u) const {
        if (u == reinterpret_cast<uintptr_t>(m_pHead))
            return NULL;
        if (__builtin_expect(!m_objRange.holds(u, m_sizeNode), 0))
            return broken();
        return reinterpret_cast<list_chain_offset*>(u);
    }
    static list_chain_offset* broken() {
        QOR_ASSERT_TEXT(false, "broken share chain");
        return NULL;
    }

    const shareRange m_objRange;
    list_chain_offset* const m_pHead;
    const size_t m_sizeNode;
};

}  // namespace QOR_ChainHelper

#endif
