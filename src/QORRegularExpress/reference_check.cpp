// Whether a match could reach a back-reference while its group has no match, which is fatal.
//
// The tree is analysed without a text: every element may match and may fail wherever it is applied. The analysis tracks
// which groups certainly have a match ("are set"). Applying a node maps the state of each group, set or not set, to a
// new one, independently of other groups; so one word of bits represents 64 groups, and the effect of a node is a
// function of one bit, computed once for each node. Where looking ahead is possible, it counts as done, up to any
// point.
//
// What makes this agree with the matcher:
// - A group is not set from when it is applied until it has matched, also for what looks ahead from inside it. Each
//   further repetition sets it again.
// - A node that remembers its result is not applied again. That guarantees only the groups inside it, since nothing
//   else changes them.
// - An element that is not applied where its parent was first applied may fail without applying its own elements,
//   because nothing matches after the end of the text.
#include <stdint.h>

#include <algorithm>
#include <vector>

#include "QORRegularExpress/plan.h"
#include "internal/report.h"
#include "qor/TraceHelper/Trace.h"

using namespace QOR_StringHelper;

namespace QOR_RegularExpressHelper {

namespace {

typedef uint64_t groupBits;

constexpr groupBits allGroups = ~groupBits(0);

// For each bit of uWhich uSet, for the others uUnset.
groupBits pick(groupBits uWhich, groupBits uSet, groupBits uUnset) { return (uWhich & uSet) | (~uWhich & uUnset); }

// The groups that are set afterwards: of those that were not set before, and of those that were. bMay: this outcome is
// possible.
struct effect {
    groupBits uFromUnset;
    groupBits uFromSet;
    bool bMay;

    bool operator==(const effect& r) const {
        return uFromUnset == r.uFromUnset && uFromSet == r.uFromSet && bMay == r.bMay;
    }
};
constexpr effect effectNone = {0, allGroups, true};
constexpr effect effectNever = {allGroups, allGroups, false};

effect inOrder(const effect& first, const effect& second) {
    if (!first.bMay || !second.bMay)
        return effectNever;
    return {pick(first.uFromUnset, second.uFromSet, second.uFromUnset),
            pick(first.uFromSet, second.uFromSet, second.uFromUnset), true};
}

effect either(const effect& a, const effect& b) {
    if (!a.bMay || !b.bMay)
        return a.bMay ? a : b;
    return {a.uFromUnset & b.uFromUnset, a.uFromSet & b.uFromSet, true};
}

// The groups that are referred to without a match: of those that were not set before, and of those that were.
struct danger {
    groupBits uFromUnset = 0;
    groupBits uFromSet = 0;

    void add(const danger& r) {
        uFromUnset |= r.uFromUnset;
        uFromSet |= r.uFromSet;
    }
    void addAfter(const effect& first, const danger& r) {
        if (!first.bMay)
            return;
        uFromUnset |= pick(first.uFromUnset, r.uFromSet, r.uFromUnset);
        uFromSet |= pick(first.uFromSet, r.uFromSet, r.uFromUnset);
    }
};

struct summary {
    effect good = effectNone;
    effect bad = effectNever;
    danger fatal;
    groupBits uInside = 0;  // the groups in it

    // Adds what is applied after this has matched.
    void then(const summary& next) {
        fatal.addAfter(good, next.fatal);
        bad = either(bad, inOrder(good, next.bad));
        good = inOrder(good, next.good);
        uInside |= next.uInside;
    }
    // Adds what is applied after this has failed.
    void orElse(const summary& next) {
        fatal.addAfter(bad, next.fatal);
        good = either(good, inOrder(bad, next.good));
        bad = inOrder(bad, next.bad);
        uInside |= next.uInside;
    }
    // bEnd: the negation also fails at the end of the text.
    void negate(bool bEnd) {
        std::swap(good, bad);
        if (bEnd)
            bad = either(good, bad);
    }
};

// The effect of looking ahead from a node: it may stop anywhere before the end of the pattern.
struct onward {
    effect any = effectNone;
    danger fatal;
};

onward joined(const summary& rest, const onward& outer) {
    onward all;
    all.fatal = rest.fatal;
    all.fatal.addAfter(rest.good, outer.fatal);
    all.any = either(rest.bad, inOrder(rest.good, outer.any));
    return all;
}

class referenceCheck {
public:
    // For 64 groups, from an index in a sorted list.
    referenceCheck(const std::vector<const node*>& listGroup, size_t nFrom)
        : m_itFrom(listGroup.begin() + static_cast<ptrdiff_t>(nFrom)),
          m_itTo(listGroup.begin() + static_cast<ptrdiff_t>(std::min(nFrom + 64, listGroup.size()))) {}

    groupBits run(const group& root) const { return ofGroup(root, onward()).fatal.uFromUnset; }

private:
    groupBits bitOf(const node* p) const {
        const auto it = std::lower_bound(m_itFrom, m_itTo, p);
        return it != m_itTo && *it == p ? groupBits(1) << (it - m_itFrom) : 0;
    }

    groupBits ownBit(const node& r) const { return (r.m_uTraits & traitCapture) != 0 ? bitOf(&r) : 0; }
    // After the end of the text, a node fails without changing what is inside it.
    effect afterEnd(const node& r) const { return {0, ~ownBit(r), true}; }

    static bool isRepeated(const node& r) { return r.m_nMinTimes != 1 || r.m_nMaxTimes != 1; }

    summary ofLeaf(const node& leaf) const {
        summary sum;
        sum.bad = effectNone;
        if ((leaf.m_uTraits & traitReference) != 0)
            sum.fatal.uFromUnset = bitOf(static_cast<const re_Reference<char>&>(leaf).m_pRefRE);
        return sum;
    }

    summary ofSequence(const group& seq, const onward& outer) const {
        const int nCount = seq.GetChildRECount();
        const bool bNegative = seq.m_bNegative != 0;
        summary rest;
        for (int i = nCount - 1; i >= 0; --i) {
            summary ahead = rest;
            if (bNegative && i < nCount - 1)
                ahead.negate(true);
            const node& member = *seq.m_arrTargetREs.GetBuffer()[i];
            summary sum = ofNode(member, joined(ahead, outer));
            if (i > 0 || isRepeated(seq))
                sum.bad = either(sum.bad, afterEnd(member));
            sum.then(rest);
            rest = sum;
        }
        if (bNegative && nCount > 0)
            rest.negate(isRepeated(seq));
        return rest;
    }

    summary ofSet(const group& set, const onward& outer) const {
        const int nCount = set.GetChildRECount();
        summary sum;
        if (nCount == 0)
            return sum;
        std::swap(sum.good, sum.bad);
        for (int i = 0; i < nCount; ++i) {
            const node& member = *set.m_arrTargetREs.GetBuffer()[i];
            summary one = ofNode(member, outer);
            if (isRepeated(set))
                one.bad = either(one.bad, afterEnd(member));
            sum.orElse(one);
        }
        if (set.m_bNegative != 0)
            sum.negate(true);
        return sum;
    }

    summary ofGroup(const group& r, const onward& outer) const {
        return (r.m_uTraits & traitSet) != 0 ? ofSet(r, outer) : ofSequence(r, outer);
    }

    // A node with its quantifier.
    summary ofNode(const node& r, const onward& after) const {
        const groupBits uOwn = ownBit(r);
        const summary once = (r.m_uTraits & traitGroup) != 0 ? ofGroup(static_cast<const group&>(r), after) : ofLeaf(r);
        summary sum;
        sum.good = {0, ~uOwn, true};
        sum.uInside = once.uInside | uOwn;
        addRequired(sum, once, r);
        if (r.m_nMaxTimes == -1 || r.m_nMaxTimes > r.m_nMinTimes)
            addOptional(sum, once, after, r, uOwn);
        sum.good = inOrder(sum.good, {uOwn, allGroups, true});
        // A remembered result guarantees nothing about the others.
        for (effect* p : {&sum.good, &sum.bad})
            if (p->bMay)
                p->uFromUnset &= sum.uInside;
        return sum;
    }

    static void addRequired(summary& sum, const summary& once, const node& r) {
        if (r.m_nMinTimes == 0)
            return;
        sum.then(once);
        for (effect before = effectNever; r.m_nMinTimes > 1 && !(before == sum.good);) {
            before = sum.good;
            sum.then(once);
            sum.good = either(before, sum.good);
        }
    }

    // The optional repetitions, after any number of which it may end.
    static void addOptional(summary& sum, const summary& once, const onward& after, const node& r, groupBits uOwn) {
        effect start = sum.good, ended = effectNever, before = effectNever;
        while (!(before == start)) {
            before = start;
            effect at = start;
            if (looksAhead(&r)) {
                sum.fatal.addAfter(at, after.fatal);
                at = inOrder(at, after.any);
                ended = either(ended, at);
            }
            sum.fatal.addAfter(at, once.fatal);
            const effect taken = inOrder(at, once.good);
            ended = either(ended, either(taken, inOrder(at, once.bad)));
            start = either(start, inOrder(taken, {uOwn, allGroups, true}));
        }
        sum.good = ended;
    }

    std::vector<const node*>::const_iterator m_itFrom, m_itTo;
};

void listReferred(const node* p, std::vector<const node*>& listGroup) {
    if ((p->m_uTraits & traitReference) != 0)
        listGroup.push_back(static_cast<const re_Reference<char>*>(p)->m_pRefRE);
    if ((p->m_uTraits & traitGroup) == 0)
        return;
    const group* pGroup = static_cast<const group*>(p);
    for (int i = 0; i < pGroup->GetChildRECount(); ++i)
        listReferred(pGroup->m_arrTargetREs.GetBuffer()[i], listGroup);
}

}  // namespace

template <class T>
int reRegularExpress<T>::FindFatalReference() const {
    const int nCaptures = m_arrCaptureREs.GetSize();
    if (nCaptures == 0)
        return 0;
    std::vector<const node*> listGroup, listFatal;
    listReferred(this, listGroup);
    std::sort(listGroup.begin(), listGroup.end());
    listGroup.erase(std::unique(listGroup.begin(), listGroup.end()), listGroup.end());
    for (size_t i = 0; i < listGroup.size(); i += 64) {
        groupBits uFatal = referenceCheck(listGroup, i).run(*this);
        for (size_t j = i; uFatal != 0; ++j, uFatal >>= 1)
            if ((uFatal & 1) != 0)
                listFatal.push_back(listGroup[j]);
    }
    for (int i = 0; i < nCaptures; ++i)
        if (std::binary_search(listFatal.begin(), listFatal.end(), m_arrCaptureREs.GetBuffer()[i]))
            return i + 1;
    return 0;
}

template <class T>
BOOL reRegularExpress<T>::BuildUntrustedExpress(const T* lpszREText, unsigned int nFlags,
                                                chReferenceStringT<T>* pReason) {
    chReferenceStringT<T> strReason;
    const T* lpszError = BuildRegularExpress(lpszREText, nFlags);
    if (lpszError != NULL) {
        strReason.Format("error at character %d", static_cast<int>(lpszError - lpszREText) + 1);
    } else if (const int nGroup = FindFatalReference()) {
        strReason.Format("\\%d may be met while group %d has no match", nGroup, nGroup);
        QOR_TraceHelper::qorTrace(2, "Express \"%s\"", lpszREText);
        QOR_TraceHelper::qorTrace(2, "Refused: %s", static_cast<const T*>(strReason));
        ClearTree();
    }
    const BOOL bBuilt = strReason.IsEmpty();
    if (pReason != NULL)
        *pReason = strReason;
    return bBuilt;
}

template int reRegularExpress<char>::FindFatalReference() const;
template BOOL reRegularExpress<char>::BuildUntrustedExpress(const char*, unsigned int, chReferenceStringT<char>*);

}  // namespace QOR_RegularExpressHelper
