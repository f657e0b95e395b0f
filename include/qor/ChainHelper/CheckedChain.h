/// @file
/// The one walk over circular chains: every link is checked before it is followed, and every walk ends.
///
/// A chain is a ring of double links with a head, which lies in no record. Whatever stands in a damaged segment, a link
/// is followed only to a place where the checks accept a record, and no more links are followed than there can be
/// records. Anything else is the fatal assertion of the checks; the operation then returns its null result.
///
/// A chain is changed in an order that keeps it whole forwards at every instant: a record is complete before the one
/// store that makes it reachable, and one store bypasses an old one. A killed process can therefore leave a link
/// backwards stale, but never one forwards. So the links forwards are the truth; a link backwards counts only when its
/// target leads back to where it came from.
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

/// A chain seen through its checks, which say what kind of links it has, where a record may be, how many there can be,
/// and how damage is reported:
///
///     typedef ... chain_type;                      // list_chain_offset or list_chain_pointer
///     bool isRecord(const chain_type* p) const;    // whether a link may lead to a record at p
///     uintptr_t maxRecords() const;
///     bool fail() const;                           // reports damage; false
///
/// A null record stands for the head: the end of a walk, or the place before the first and after the last record.
template <class Checks>
class checkedChain {
public:
    typedef typename Checks::chain_type chain_type;  ///< the links

    checkedChain(const chain_type* pHead, const Checks& checks)
        : m_checks(checks), m_pHead(const_cast<chain_type*>(pHead)) {}

    /// The record after p, or the head; p may be either. Null after damage.
    chain_type* Right(const chain_type* p) const {
        chain_type* const pRight = p->get_pNext();
        if (__builtin_expect(pRight == m_pHead || m_checks.isRecord(pRight), 1))
            return pRight;
        return broken();
    }
    /// The record before p, or the head; p may be either. Null when nothing leads to p forwards.
    chain_type* Left(const chain_type* p) const {
        chain_type* const pLeft = p->get_pPrevNode();
        if ((pLeft == m_pHead || m_checks.isRecord(pLeft)) && pLeft->get_pNext() == p)
            return pLeft;
        return SearchLeft(p);
    }
    /// The record after p (null: the first); null at the end.
    chain_type* Next(const chain_type* p) const { return recordOf(Right(p != NULL ? p : m_pHead)); }
    /// The record before p (null: the last); null at the begin. Fatal: p is no record of the chain.
    chain_type* Prev(const chain_type* p) const {
        chain_type* const pLeft = Left(p != NULL ? p : m_pHead);
        if (pLeft == NULL)
            m_checks.fail();
        return recordOf(pLeft);
    }
    /// The first record, or null.
    chain_type* First() const { return Next(NULL); }
    /// The last record, or null; null whenever First() is.
    chain_type* Last() const { return First() != NULL ? Prev(NULL) : NULL; }

    /// The first record for which fnStop answers true, or null. fnStop may change records that were passed.
    template <typename Fn>
    chain_type* Find(Fn fnStop) const {
        uintptr_t nLeft = m_checks.maxRecords();
        for (chain_type* p = First(); p != NULL; p = Next(p)) {
            if (fnStop(p))
                return p;
            if (nLeft-- == 0)
                return broken();
        }
        return NULL;
    }
    /// The last record for which fnStop answers true, or null.
    template <typename Fn>
    chain_type* FindLast(Fn fnStop) const {
        uintptr_t nLeft = m_checks.maxRecords();
        for (chain_type* p = Last(); p != NULL; p = Prev(p)) {
            if (fnStop(p))
                return p;
            if (nLeft-- == 0)
                return broken();
        }
        return NULL;
    }
    /// Whether p is a record of the chain. The address is compared, never followed.
    bool Holds(const chain_type* p) const {
        return Find([p](const chain_type* pRecord) { return pRecord == p; }) != NULL;
    }

    /// Gives the first record for which fnMatch answers true to fnTake, which takes it out, until there is none.
    template <typename Match, typename Take>
    void Drain(Match fnMatch, Take fnTake) const {
        drain([this, &fnMatch] { return Find(fnMatch); }, fnTake);
    }
    /// Gives the last record to fnTake, which takes it out, until there is none or fnMatch answers false for it.
    template <typename Match, typename Take>
    void DrainBackwards(Match fnMatch, Take fnTake) const {
        const auto fnLast = [this, &fnMatch] {
            chain_type* const pLast = Last();
            return pLast != NULL && fnMatch(pLast) ? pLast : NULL;
        };
        drain(fnLast, fnTake);
    }

    /// Links a new record after pLeft (null: at the front).
    void InsertAfter(chain_type* pLeft, chain_type* pNew) const {
        pLeft = pLeft != NULL ? pLeft : m_pHead;
        if (chain_type* const pRight = Right(pLeft))
            insert(pLeft, pNew, pRight);
    }
    /// Links a new record before pRight (null: at the end). The place is found forwards alone: after a record to which
    /// only a damaged link backwards leads, nobody would find the new one. O(n).
    void InsertBefore(chain_type* pRight, chain_type* pNew) const {
        pRight = pRight != NULL ? pRight : m_pHead;
        if (chain_type* const pLeft = SearchLeft(pRight))
            insert(pLeft, pNew, pRight);
    }
    /// Takes a record out; one that a killed process has taken out already stays out. Its own links become null.
    void Unlink(chain_type* p) const {
        if (chain_type* const pLeft = Left(p)) {
            chain_type* const pRight = Right(p);
            if (pRight == NULL)
                return;
            pRight->set_pPrev(pLeft);
            pLeft->set_pNext(pRight);
        }
        p->set_pNext(NULL);
        p->set_pPrev(NULL);
    }

private:
    chain_type* recordOf(chain_type* p) const { return p != m_pHead ? p : NULL; }
    chain_type* broken() const {
        m_checks.fail();
        return NULL;
    }

    chain_type* SearchLeft(const chain_type* p) const {
        uintptr_t nLeft = m_checks.maxRecords();
        for (chain_type* pLeft = m_pHead; pLeft != NULL; pLeft = Next(pLeft)) {
            if (pLeft->get_pNext() == p)
                return pLeft;
            if (nLeft-- == 0)
                return broken();
        }
        return NULL;
    }

    static void insert(chain_type* pLeft, chain_type* pNew, chain_type* pRight) {
        pNew->set_pNext(pRight);
        pNew->set_pPrev(pLeft);
        pLeft->set_pNext(pNew);
        pRight->set_pPrev(pNew);
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

/// The checks of a chain in shared memory: its records lie, aligned, in the segment of its head.
class segmentChecks {
public:
    typedef list_chain_offset chain_type;  ///< the links

    /// sizeRecord counts a record's bytes from its link on. Damage is reported in the name of lpszModule.
    segmentChecks(const list_chain_offset* pHead, size_t sizeRecord, const char* lpszModule, const char* lpszText)
        : m_range(findShareRange(pHead)), m_sizeRecord(sizeRecord), m_lpszModule(lpszModule), m_lpszText(lpszText) {}

    /// Whether a record at p lies in the segment.
    bool isRecord(const list_chain_offset* p) const { return m_range.holds(p, m_sizeRecord); }
    /// More than there can be: no record is smaller than a pool cell's header and its smallest data.
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
    /// The records begin with their links and have at least sizeRecord bytes. Damage is reported in the name of
    /// lpszModule, which is a literal.
    shareChain(const list_chain_offset* pHead, size_t sizeRecord, const char* lpszModule)
        : checkedChain(pHead, segmentChecks(pHead, sizeRecord, lpszModule, "broken share chain")) {}
};

}  // namespace QOR_ChainHelper

#endif
