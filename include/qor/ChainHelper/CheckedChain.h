/// @file
/// Walks over circular chains that check every link before they follow it, and always end.
///
/// A chain is a ring of double links with a head, which lies in no record. Messages, queues, named objects, the lists
/// of ListHelper.h and the free cells of pools are such chains, and all of them are walked and changed here. Whatever a
/// damaged segment contains, a link is followed only to a place where the checks accept a record, and no more links are
/// followed than there can be records. Anything else is the fatal assertion of the checks; the operation then returns
/// its null result.
///
/// Changes keep the forward links complete at every instant: a record is complete before the one store that makes it
/// reachable, and one store bypasses a record that is removed. In a segment a change is undone as a whole if its
/// process dies; in a mapped file a power cut may keep a part of the stores, and so leave a stale backward link, but
/// never a stale forward one. So the forward links are authoritative; a backward link is used only if its target leads
/// forwards to the record that it came from.
///
/// @code
/// QOR_ChainHelper::list_chain_offset* const pRoot = &pSegment->vRoot;
/// const QOR_ChainHelper::shareChain chain(pRoot, sizeof(pSegment->aNode[0]), "app");
/// chain.InsertBefore(NULL, &pSegment->aNode[0]);      // at the end
/// chain.Find([](const QOR_ChainHelper::list_chain_offset* p) { return use(p), false; });
/// chain.Unlink(chain.First());
/// @endcode
///
/// Nothing here locks: the caller holds the lock of the segment. Read on in AllocHelper.h.
#ifndef QOR_CHAINHELPER_CHECKEDCHAIN_H
#define QOR_CHAINHELPER_CHECKEDCHAIN_H

#include "qor/ChainHelper.h"

namespace QOR_ChainHelper {

/// The operations of a chain. Its checks define the kind of its links, where a record may lie, how many there can be,
/// and how damage is reported:
///
///     typedef ... chain_type;                      // list_chain_offset or list_chain_pointer
///     bool isRecord(const chain_type* p) const;    // whether a link may lead to a record at p
///     uintptr_t maxRecords() const;
///     bool fail() const;                           // reports damage; returns false
///
/// A null record stands for the head: the end of a walk, or the place before the first and after the last record.
template <class Checks>
class checkedChain {
public:
    typedef typename Checks::chain_type chain_type;  ///< the links

    checkedChain(const chain_type* pHead, const Checks& checks)
        : m_checks(checks), m_pHead(const_cast<chain_type*>(pHead)) {}

    /// The record after p, or the head. p is a record or the head. Null after damage.
    chain_type* Right(const chain_type* p) const {
        chain_type* const pRight = p->get_pNext();
        if (__builtin_expect(pRight == m_pHead || m_checks.isRecord(pRight), 1))
            return pRight;
        return broken();
    }
    /// The record before p, or the head. p is a record or the head. Null if no forward link leads to p. O(1), or O(n)
    /// if the backward link of p is stale.
    chain_type* Left(const chain_type* p) const {
        chain_type* const pLeft = p->get_pPrevNode();
        if ((pLeft == m_pHead || m_checks.isRecord(pLeft)) && pLeft->get_pNext() == p)
            return pLeft;
        return searchLeft(p);
    }
    /// As Right(); p itself after damage.
    chain_type* StepRight(chain_type* p) const {
        chain_type* const pRight = p->get_pNext();
        if (__builtin_expect(pRight == m_pHead || m_checks.isRecord(pRight), 1))
            return pRight;
        m_checks.fail();
        return p;
    }
    /// As Left(); p itself after damage.
    chain_type* StepLeft(chain_type* p) const {
        chain_type* const pLeft = Left(p);
        return pLeft != NULL ? pLeft : p;
    }
    /// As Left(). Fatal: no forward link leads to p.
    chain_type* CheckedLeft(const chain_type* p) const {
        chain_type* const pLeft = Left(p);
        return pLeft != NULL ? pLeft : broken();
    }
    /// The record after p (null: the first); null at the end.
    chain_type* Next(const chain_type* p) const { return recordOf(Right(p != NULL ? p : m_pHead)); }
    /// The record before p (null: the last); null at the beginning. Fatal: p is not a record of the chain.
    chain_type* Prev(const chain_type* p) const { return recordOf(CheckedLeft(p != NULL ? p : m_pHead)); }
    /// The first record, or null.
    chain_type* First() const { return Next(NULL); }
    /// The last record, or null; null whenever First() is.
    chain_type* Last() const { return First() != NULL ? Prev(NULL) : NULL; }

    /// The first record for which fnStop returns true, or null. fnStop may unlink the records before and after the one
    /// that it is given.
    template <typename Fn>
    chain_type* Find(Fn fnStop) const {
        const auto fnNext = [this](const chain_type* p) { return Next(p); };
        return walk(First(), fnNext, fnStop);
    }
    /// The last record for which fnStop returns true, or null.
    template <typename Fn>
    chain_type* FindLast(Fn fnStop) const {
        const auto fnNext = [this](const chain_type* p) { return Prev(p); };
        return walk(Last(), fnNext, fnStop);
    }
    /// Whether p is a record of the chain. The address is compared, never followed.
    bool Holds(const chain_type* p) const {
        return Find([p](const chain_type* pRecord) { return pRecord == p; }) != NULL;
    }
    /// Whether p is a record whose neighbours are records of the chain, or its head, and lead to it. Fatal: it is not.
    bool CheckRecord(const chain_type* p) const {
        return (m_checks.isRecord(p) || m_checks.fail()) && Right(p) != NULL && CheckedLeft(p) != NULL;
    }

    /// Passes the first record for which fnMatch returns true to fnTake, which unlinks it, until there is none.
    template <typename Match, typename Take>
    void Drain(Match fnMatch, Take fnTake) const {
        drain([this, &fnMatch] { return Find(fnMatch); }, fnTake);
    }
    /// Passes the last record to fnTake, which unlinks it, until there is none or fnMatch returns false for it.
    template <typename Match, typename Take>
    void DrainBackwards(Match fnMatch, Take fnTake) const {
        const auto fnLast = [this, &fnMatch] {
            chain_type* const pLast = Last();
            return pLast != NULL && fnMatch(pLast) ? pLast : NULL;
        };
        drain(fnLast, fnTake);
    }

    /// Links a new record after pLeft (null: at the front). fnComplete is called when the record's own links are
    /// complete, before the store that makes it reachable. False after damage: nothing is linked.
    template <typename Fn>
    bool InsertAfter(chain_type* pLeft, chain_type* pNew, Fn fnComplete) const {
        pLeft = pLeft != NULL ? pLeft : m_pHead;
        return insert(pLeft, pNew, Right(pLeft), fnComplete);
    }
    /// Links a new record after pLeft (null: at the front). False after damage: nothing is linked.
    bool InsertAfter(chain_type* pLeft, chain_type* pNew) const {
        return InsertAfter(pLeft, pNew, [] {});
    }
    /// Links a new record before pRight (null: at the end). Only forward links lead to the place: no walk would reach a
    /// record that is inserted after one to which only a damaged backward link leads. O(n). False after damage: nothing
    /// is linked.
    bool InsertBefore(chain_type* pRight, chain_type* pNew) const {
        pRight = pRight != NULL ? pRight : m_pHead;
        return insert(searchLeft(pRight), pNew, pRight, [] {});
    }
    /// Links a new record in place of p. fnComplete is called when the record's own links are complete, before the
    /// store that makes it reachable. The links of p are left as they are when it is out of the chain. False after
    /// damage: nothing is changed.
    template <typename Fn>
    bool Replace(chain_type* p, chain_type* pNew, Fn fnComplete) const {
        chain_type* const pLeft = CheckedLeft(p);
        chain_type* const pRight = pLeft != NULL ? Right(p) : NULL;
        if (pRight == NULL)
            return false;
        pNew->set_pNext(pRight);
        pNew->set_pPrev(pLeft);
        fnComplete();
        p->set_pNext(pNew);  // so that no backward link leads to p and from there to the right
        pRight->set_pPrev(pNew);
        pLeft->set_pNext(pNew);
        clear(p);
        return true;
    }
    /// Unlinks a record, unless that has been done already. Its own links become null. False after damage:
    /// the record is left as it is.
    bool Unlink(chain_type* p) const {
        if (chain_type* const pLeft = Left(p)) {
            chain_type* const pRight = Right(p);
            if (pRight == NULL)
                return false;
            pRight->set_pPrev(pLeft);
            pLeft->set_pNext(pRight);
        }
        clear(p);
        return true;
    }

private:
    static void clear(chain_type* p) {
        p->set_pNext(NULL);
        p->set_pPrev(NULL);
    }
    chain_type* recordOf(chain_type* p) const { return p != m_pHead ? p : NULL; }
    chain_type* broken() const {
        m_checks.fail();
        return NULL;
    }

    template <typename Step, typename Fn>
    chain_type* walk(chain_type* p, Step fnNext, Fn fnStop) const {
        for (uintptr_t nLeft = m_checks.maxRecords(); p != NULL; p = fnNext(p)) {
            if (fnStop(p))
                return p;
            if (nLeft-- == 0)
                return broken();
        }
        return NULL;
    }
    chain_type* searchLeft(const chain_type* p) const {
        const auto fnLeadsToIt = [p](const chain_type* pLeft) { return pLeft->get_pNext() == p; };
        return fnLeadsToIt(m_pHead) ? m_pHead : Find(fnLeadsToIt);
    }

    template <typename Fn>
    static bool insert(chain_type* pLeft, chain_type* pNew, chain_type* pRight, Fn fnComplete) {
        if (pLeft == NULL || pRight == NULL)
            return false;
        pNew->set_pNext(pRight);
        pNew->set_pPrev(pLeft);
        fnComplete();
        pLeft->set_pNext(pNew);
        pRight->set_pPrev(pNew);
        return true;
    }

    template <typename Find, typename Take>
    void drain(Find fnFind, Take fnTake) const {
        uintptr_t nLeft = m_checks.maxRecords();
        while (chain_type* const p = fnFind()) {
            fnTake(p);
            if (nLeft-- == 0) {
                m_checks.fail();
                return;
            }
        }
    }

    const Checks m_checks;
    chain_type* const m_pHead;
};

/// The checks of a chain in shared memory: its records lie in the segment of its head, on 4-byte boundaries.
class segmentChecks {
public:
    typedef list_chain_offset chain_type;  ///< the links

    /// A record has at least sizeRecord bytes, counted from its link. Damage is reported as the assertion lpszText of
    /// the module lpszModule; both are literals.
    segmentChecks(const list_chain_offset* pHead, size_t sizeRecord, const char* lpszModule, const char* lpszText)
        : m_range(findShareRange(pHead)), m_sizeRecord(sizeRecord), m_lpszModule(lpszModule), m_lpszText(lpszText) {}

    /// Whether a record at p lies in the segment.
    bool isRecord(const list_chain_offset* p) const { return m_range.holds(p, m_sizeRecord); }
    /// An upper bound: no record is smaller than a pool cell's header and its smallest data, 12 bytes.
    uintptr_t maxRecords() const { return (m_range.m_uEnd - m_range.m_uBegin) / 12; }
    /// The fatal assertion.
    bool fail() const { return QOR_ASSERT_IN(m_lpszModule, false, m_lpszText); }

private:
    const shareRange m_range;
    const size_t m_sizeRecord;
    const char* const m_lpszModule;
    const char* const m_lpszText;
};

/// A chain in shared memory. Damage is the fatal assertion "broken share chain".
class shareChain : public checkedChain<segmentChecks> {
public:
    /// The records begin with their links and have at least sizeRecord bytes. Damage is reported as an assertion of the
    /// module lpszModule, a literal.
    shareChain(const list_chain_offset* pHead, size_t sizeRecord, const char* lpszModule)
        : checkedChain(pHead, segmentChecks(pHead, sizeRecord, lpszModule, "broken share chain")) {}
};

}  // namespace QOR_ChainHelper

#endif
