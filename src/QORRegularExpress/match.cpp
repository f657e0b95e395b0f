// Nodes: their trees, and matching.
//
// Matching is a recursion that goes down the tree and, where a repetition looks ahead, on to what follows it. Both ways
// lead to nodes further behind in the pattern only, so the depth is bounded by what the compiler counts (maxDepth).
//
// The shortcuts answer and leave every node's result exactly as the plain steps would:
// - Where a node takes one character (the child of a run, rePlan::m_bRun, or a group), a table says whether it does,
//   and the nodes below get the results that the character gives them (rePlan::m_arrBelow). A run is scanned, and the
//   nodes below then get the results of its last two places only: at these all of them are touched that ever were, and
//   last. Where that is not so (rePlan::m_bEach), each gets that of the last place that touches it.
// - Looking ahead at a character without bitLook ends as rePlan::m_bRestEmpty says, and touches the same nodes with the
//   same outcome at each such character. So of several such places in a row only the last is made up for, in front of
//   the next one that has to be tried, or at the end of the repetition. Where nodes below the repeated one look ahead
//   over the same nodes, the order would not be kept, so nothing is passed over.
// - A pattern in which looking ahead cannot change what a run takes is matched straight on from its root, as long as no
//   node has a result (reState::m_bClean): see QORRegularExpress/straight.cpp.
// Behind reState::mostLooks look-aheads their answers are kept and not made twice. Nodes that only looking ahead came
// to, and nothing else afterwards, then keep an older result; all others have theirs.
//
// A search that scouts (reState::m_bScouting) leaves both kinds of making up out; it matches once more at the end.
//
// The virtual functions are the nodes' face; inside, nodes are told apart by their traits, so that the compiler sees
// one recursion.
#include "qor/RegularExpressHelper.h"

#include <stdint.h>

#include <new>

#include "QORRegularExpress/plan.h"
#include "internal/report.h"
#include "qor/TraceHelper/Trace.h"

using namespace QOR_StringHelper;

namespace QOR_RegularExpressHelper {

namespace {

constexpr int mostTracedText = 16384;  // so that every line fits every target

template <class T>
inline const T* applyNode(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding);
template <class T>
const T* applyOnce(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding);
template <class T>
const T* applyAfter(re_Base<T>* pRE, int iIndex, const T* lpsz, const T* lpszEnding);

// The end of a text whose NUL may be passed. The root keeps it: behind it nothing matches.
template <class T>
const T* findEnd(re_Base<T>* pRE, const T* lpszText) {
    return expressOf(pRE)->m_lpszFoundEnd = lpszText + chStrlen(lpszText);
}

// Whether a node may stand there; behind an end that was found it may not, but behind one that was given it must not.
template <class T>
bool mayStand(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding) {
    if (lpszSrcEnding == NULL || lpszSrcText <= lpszSrcEnding)
        return true;
    const reRegularExpress<T>* pExpress = expressOf(pRE);
    if (pExpress == NULL || pExpress->m_lpszFoundEnd != lpszSrcEnding)
        QOR_ASSERT_TEXT(lpszSrcEnding == NULL || lpszSrcText <= lpszSrcEnding,
                        "lpszSrcEnding == NULL || lpszSrcText <= lpszSrcEnding");
    return false;
}

// Looking ahead behind the repetitions of one node.
template <class T>
class lookAhead {
public:
    lookAhead(re_Base<T>* pRE, const T* lpszSrcEnding)
        : m_pRE(pRE), m_pPlan(pRE->m_pPlan), m_lpszEnding(lpszSrcEnding), m_lpszSkipped(NULL) {}
    // Makes up for what was skipped last.
    ~lookAhead() {
        if (m_lpszSkipped != NULL && !m_pPlan->m_pState->m_bScouting)
            apply(m_lpszSkipped);
    }

    // It is known how looking ahead ends there.
    void skip(const T* lpsz) { m_lpszSkipped = lpsz; }

    // Whether what follows matches there.
    bool at(const T* lpsz) {
        if (m_pPlan != NULL) {
            if (m_pPlan->m_bNothingAfter || (m_pPlan->m_bNothingFails && m_pPlan->m_pState->m_bScouting))
                return true;
            if (!m_pPlan->m_bInnerLook && !isAtEnd(lpsz, m_lpszEnding) &&
                (m_pPlan->m_arrChar[charValue(*lpsz)] & rePlan::bitLook) == 0) {
                m_lpszSkipped = lpsz;
                return m_pPlan->m_bRestEmpty;
            }
        }
        if (m_lpszSkipped != NULL && !m_pPlan->m_pState->m_bScouting)
            apply(m_lpszSkipped);
        m_lpszSkipped = NULL;
        reAnswers* pAnswers = m_pPlan != NULL ? m_pPlan->m_pState->answers(lpsz, m_lpszEnding) : NULL;
        return pAnswers != NULL ? answer(*pAnswers, lpsz) : apply(lpsz);
    }

private:
    bool apply(const T* lpsz) {
        return applyAfter(m_pRE->m_pParentRE, m_pRE->m_iIndexInParent, lpsz, m_lpszEnding) != NULL;
    }
    bool answer(reAnswers& answers, const T* lpsz) {
        int nAnswer = answers.find(m_pPlan, lpsz);
        if (nAnswer == -1) {
            nAnswer = apply(lpsz);
            answers.add(m_pPlan, lpsz, nAnswer != 0);
        }
        return nAnswer != 0;
    }

    re_Base<T>* m_pRE;
    const rePlan* m_pPlan;
    const T* m_lpszEnding;
    const T* m_lpszSkipped;
};

// ---- the repetitions of a node, one by one

template <class T>
const T* takeMost(re_Base<T>* pRE, const T* lpsz, const T* lpszEnding, int nTimes) {
    for (; nTimes != 0; nTimes -= nTimes > 0) {
        const T* lpszNext = applyOnce(pRE, lpsz, lpszEnding);
        if (lpszNext == NULL || lpszNext == lpsz)
            break;
        pRE->m_lpszResultEnd = lpsz = lpszNext;
    }
    return lpsz;
}

template <class T>
const T* takeBest(re_Base<T>* pRE, const T* lpsz, const T* lpszEnding, int nTimes) {
    lookAhead<T> look(pRE, lpszEnding);
    const T* lpszBest = lpsz;
    for (;; nTimes -= nTimes > 0) {
        if (look.at(lpsz))
            lpszBest = lpsz;
        const T* lpszNext = nTimes != 0 ? applyOnce(pRE, lpsz, lpszEnding) : NULL;
        if (lpszNext == NULL || lpszNext == lpsz)
            return lpszBest;
        pRE->m_lpszResultEnd = lpsz = lpszNext;
    }
}

template <class T>
const T* takeLeast(re_Base<T>* pRE, const T* lpsz, const T* lpszEnding, int nTimes) {
    lookAhead<T> look(pRE, lpszEnding);
    // Also where no time remains: looking ahead leaves results.
    for (; !look.at(lpsz); nTimes -= nTimes > 0) {
        const T* lpszNext = nTimes != 0 ? applyOnce(pRE, lpsz, lpszEnding) : NULL;
        if (lpszNext == NULL || lpszNext == lpsz)
            break;
        pRE->m_lpszResultEnd = lpsz = lpszNext;
    }
    return lpsz;
}

template <class T>
const T* applyOptional(re_Base<T>* pRE, const T* lpsz, const T* lpszEnding, int nTimes) {
    switch (pRE->m_chRepeatMode) {
        case '+':
            return takeMost(pRE, lpsz, lpszEnding, nTimes);
        case ' ':
            return takeBest(pRE, lpsz, lpszEnding, nTimes);
        case '?':
            return takeLeast(pRE, lpsz, lpszEnding, nTimes);
        default:
            return NULL;
    }
}

template <class T>
const T* applyTimes(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding) {
    const int nMin = pRE->m_nMinTimes, nMax = pRE->m_nMaxTimes;
    const T* lpsz = lpszSrcText;
    for (int i = 0; i < nMin; ++i) {
        const T* lpszNext = applyOnce(pRE, lpsz, lpszSrcEnding);
        if (lpszNext == NULL)
            return NULL;
        if (lpszNext == lpsz)
            break;
        lpsz = lpszNext;
    }
    if (pRE->m_pParentRE == NULL || (nMax != -1 && nMax <= nMin))
        return lpsz;
    return applyOptional(pRE, lpsz, lpszSrcEnding, nMax == -1 ? -1 : nMax - nMin);
}

// ---- nodes that take one character each

template <class T>
inline const T* applySingle(const rePlan* pPlan, const T* lpsz, const T* lpszEnding) {
    if (!pPlan->m_pState->m_bScouting)
        touchBelow(pPlan, lpsz, lpszEnding);
    return !isAtEnd(lpsz, lpszEnding) && (pPlan->m_arrChar[charValue(*lpsz)] & rePlan::bitTakes) != 0 ? lpsz + 1 : NULL;
}

// The repetitions of one.

template <class T>
class charRun {
public:
    charRun(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding)
        : m_pRE(pRE),
          m_pTable(pRE->m_pPlan->m_arrChar),
          m_lpszBegin(lpszSrcText),
          m_lpszEnding(lpszSrcEnding),
          m_lpsz(lpszSrcText),
          m_bRefused(false) {}

    const T* apply() {
        const bool bEnough = scanTo(m_pRE->m_nMinTimes);
        const T* lpszResult = bEnough ? applyOptional() : NULL;
        if (m_pRE->m_pPlan->m_nBelow > 0 && !m_pRE->m_pPlan->m_pState->m_bScouting)
            touchRun(m_pRE->m_pPlan, m_lpszBegin, m_lpsz, m_bRefused, m_lpszEnding);
        return lpszResult;
    }

private:
    // One more repetition.
    bool step() {
        if (isAtEnd(m_lpsz, m_lpszEnding) || (m_pTable[charValue(*m_lpsz)] & rePlan::bitTakes) == 0) {
            m_bRefused = true;
            return false;
        }
        ++m_lpsz;
        return true;
    }
    bool isFull(int nTimes) const { return nTimes != -1 && m_lpsz - m_lpszBegin >= nTimes; }
    // The end of the characters of one kind from here on, up to so many repetitions.
    const T* endOfKind(int nTimes, unsigned uMask, unsigned uKind) const {
        const ptrdiff_t nLeft = nTimes == -1 ? PTRDIFF_MAX : nTimes - (m_lpsz - m_lpszBegin);
        const T* lpsz = m_lpsz;
        if (m_lpszEnding == NULL) {
            while (lpsz - m_lpsz < nLeft && *lpsz != 0 && (m_pTable[charValue(*lpsz)] & uMask) == uKind)
                ++lpsz;
            return lpsz;
        }
        const T* const lpszTo = m_lpszEnding - m_lpsz < nLeft ? m_lpszEnding : m_lpsz + nLeft;
        if (m_pRE->m_pPlan->m_bAll && uMask == rePlan::bitTakes)
            return lpszTo;
        while (lpsz < lpszTo && (m_pTable[charValue(*lpsz)] & uMask) == uKind)
            ++lpsz;
        return lpsz;
    }
    bool scanTo(int nTimes) {
        if (!isFull(nTimes))
            m_lpsz = endOfKind(nTimes, rePlan::bitTakes, rePlan::bitTakes);
        m_bRefused = !isFull(nTimes);
        return !m_bRefused;
    }

    const T* applyOptional() {
        const int nMin = m_pRE->m_nMinTimes, nMax = m_pRE->m_nMaxTimes;
        if (nMax != -1 && nMax <= nMin)
            return m_lpsz;
        if (m_pRE->m_chRepeatMode == '+' || (m_pRE->m_chRepeatMode == ' ' && m_pRE->m_pPlan->m_bNothingAfter)) {
            scanTo(nMax);
            return m_lpsz;
        }
        return m_pRE->m_chRepeatMode == '?' ? takeLeast() : takeBest();
    }

    // Passes over the places at which looking ahead is known to end without being tried. The last one, or null.
    const T* passOver(lookAhead<T>& look, int nMax) {
        if (isFull(nMax))
            return NULL;
        const T* lpsz = endOfKind(nMax, rePlan::bitTakes | rePlan::bitLook, rePlan::bitTakes);
        if (lpsz == m_lpsz)
            return NULL;
        m_pRE->m_lpszResultEnd = m_lpsz = lpsz;
        look.skip(lpsz - 1);
        return lpsz - 1;
    }

    const T* takeBest() {
        lookAhead<T> look(m_pRE, m_lpszEnding);
        const int nMax = m_pRE->m_nMaxTimes;
        const T* lpszBest = m_lpsz;
        for (;;) {
            const T* lpszPassed = passOver(look, nMax);
            if (lpszPassed != NULL && m_pRE->m_pPlan->m_bRestEmpty)
                lpszBest = lpszPassed;
            if (look.at(m_lpsz))
                lpszBest = m_lpsz;
            if (isFull(nMax) || !step())
                return lpszBest;
            m_pRE->m_lpszResultEnd = m_lpsz;
        }
    }

    const T* takeLeast() {
        lookAhead<T> look(m_pRE, m_lpszEnding);
        const int nMax = m_pRE->m_nMaxTimes;
        const bool bPass = !m_pRE->m_pPlan->m_bNothingAfter && !m_pRE->m_pPlan->m_bRestEmpty;
        for (;;) {
            if (bPass)
                passOver(look, nMax);
            if (look.at(m_lpsz) || isFull(nMax) || !step())
                return m_lpsz;
            m_pRE->m_lpszResultEnd = m_lpsz;
        }
    }

    re_Base<T>* m_pRE;
    const uint8_t* m_pTable;
    const T* m_lpszBegin;
    const T* m_lpszEnding;
    const T* m_lpsz;
    bool m_bRefused;
};

// ---- one repetition of a node

template <class T>
inline const T* applyLeaf(const re_Text<T>* pRE, int iIndex, const T* lpsz, const T* lpszEnding) {
    if (isAtEnd(lpsz, lpszEnding))
        return NULL;
    return isEqualChar(pRE->m_nFlags, pRE->m_arrText.GetBuffer()[iIndex], *lpsz) ? lpsz + 1 : NULL;
}

template <class T>
inline const T* applyLeaf(const re_Range<T>* pRE, int, const T* lpsz, const T* lpszEnding) {
    if (isAtEnd(lpsz, lpszEnding))
        return NULL;
    const uint32_t ch = charValue(*lpsz);
    if (pRE->m_chLow <= ch && ch <= pRE->m_chHigh)
        return lpsz + 1;
    if ((pRE->m_nFlags & flagIgnoreCase) == 0)
        return NULL;
    const uint32_t chOther = charValue(chReverse(*lpsz));
    return pRE->m_chLow <= chOther && chOther <= pRE->m_chHigh ? lpsz + 1 : NULL;
}

template <class T>
const T* applyLeaf(const re_Reference<T>* pRE, int iIndex, const T* lpsz, const T*) {
    if (!QOR_ASSERT(iIndex == 0))
        return NULL;
    const re_Base<T>* pRefRE = pRE->m_pRefRE;
    if (!QOR_ASSERT_TEXT(pRefRE != NULL && pRefRE->m_lpszResultEnd != NULL, "FALSE"))
        return NULL;
    const bool bFold = (pRE->m_nFlags & flagIgnoreCase) != 0;
    for (const T* lpszRef = pRefRE->m_lpszResultBegin; lpszRef != pRefRE->m_lpszResultEnd; ++lpszRef, ++lpsz)
        if (*lpszRef != *lpsz && (!bFold || chUpper(*lpszRef) != chUpper(*lpsz)))
            return NULL;
    return lpsz;
}

template <class T>
inline const T* applyLeaf(const re_Group<T>* pRE, int iIndex, const T* lpsz, const T* lpszEnding) {
    return applyNode(pRE->m_arrTargetREs.GetBuffer()[iIndex], lpsz, lpszEnding);
}

// Children from iIndex on, one after the other. There is at least one.
template <class X, class T>
inline const T* applyAnd(X* pRE, int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    const int nCount = pRE->GetChildRECount();
    const T* lpsz = lpszSrcText;
    for (; iIndex < nCount && lpsz != NULL; ++iIndex)
        lpsz = applyLeaf(pRE, iIndex, lpsz, lpszSrcEnding);
    if (pRE->m_bNegative == 0)
        return lpsz;
    return lpsz == NULL && mayStand<T>(pRE, lpszSrcText, lpszSrcEnding) ? lpszSrcText + 1 : NULL;
}

// The first child from iIndex on that matches. There is at least one.
template <class X, class T>
inline const T* applyCase(X* pRE, int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    const int nCount = pRE->GetChildRECount();
    const T* lpsz = NULL;
    for (; iIndex < nCount && lpsz == NULL; ++iIndex)
        lpsz = applyLeaf(pRE, iIndex, lpszSrcText, lpszSrcEnding);
    if (pRE->m_bNegative == 0)
        return lpsz;
    return lpsz == NULL && !isAtEnd(lpszSrcText, lpszSrcEnding) ? lpszSrcText + 1 : NULL;
}

template <class T>
const T* applyGroup(re_Group<T>* pRE, int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    if (iIndex == pRE->GetChildRECount())
        return lpszSrcText;
    if ((pRE->m_uTraits & traitSet) != 0)
        return applyCase(pRE, iIndex, lpszSrcText, lpszSrcEnding);
    return applyAnd(pRE, iIndex, lpszSrcText, lpszSrcEnding);
}

// A run of characters; it is never negated.
template <class T>
inline const T* applyText(const re_Text<T>* pRE, const T* lpsz, const T* lpszEnding) {
    const T* p = pRE->m_arrText.GetBuffer();
    const T* const pTo = p + pRE->m_arrText.GetSize();
    for (; p < pTo; ++p, ++lpsz)
        if (isAtEnd(lpsz, lpszEnding) || !isEqualChar(pRE->m_nFlags, *p, *lpsz))
            return NULL;
    return lpsz;
}

template <class T>
const T* applyOnce(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding) {
    switch (pRE->m_uTraits & (traitGroup | traitText | traitSet)) {
        case traitGroup:
        case traitGroup | traitSet:
            return applyGroup(static_cast<re_Group<T>*>(pRE), 0, lpszSrcText, lpszSrcEnding);
        case traitText:
            return applyText(static_cast<re_Text<T>*>(pRE), lpszSrcText, lpszSrcEnding);
        case traitText | traitSet:
            return applyCase(static_cast<re_Text<T>*>(pRE), 0, lpszSrcText, lpszSrcEnding);
        default:
            return pRE->ApplyChildREFrom(0, lpszSrcText, lpszSrcEnding);
    }
}

// A repeated node; apart, so that others do without its registers.
template <class T>
__attribute__((noinline)) const T* applyRepeated(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding) {
    if (pRE->m_pPlan != NULL && pRE->m_pPlan->m_bRun)
        return charRun<T>(pRE, lpszSrcText, lpszSrcEnding).apply();
    return applyTimes(pRE, lpszSrcText, lpszSrcEnding);
}

// A node with its quantifier.
template <class T>
inline const T* applyNode(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding) {
    if (lpszSrcText == pRE->m_lpszResultBegin)
        return pRE->m_lpszResultEnd;
    pRE->m_lpszResultBegin = lpszSrcText;
    pRE->m_lpszResultEnd = NULL;
    if (lpszSrcEnding != NULL && lpszSrcText > lpszSrcEnding && !mayStand(pRE, lpszSrcText, lpszSrcEnding))
        return NULL;
    const T* lpszResult = NULL;
    if (pRE->m_nMinTimes != 1 || pRE->m_nMaxTimes != 1)
        lpszResult = applyRepeated(pRE, lpszSrcText, lpszSrcEnding);
    else if (pRE->m_pPlan != NULL)
        lpszResult = applySingle(pRE->m_pPlan, lpszSrcText, lpszSrcEnding);
    else
        lpszResult = applyOnce(pRE, lpszSrcText, lpszSrcEnding);
    pRE->m_lpszResultEnd = lpszResult;
    return lpszResult;
}

// What follows a child, upwards through the tree. Only the rest of the innermost sequence can fail it.
template <class T>
const T* applyAfter(re_Base<T>* pRE, int iIndex, const T* lpsz, const T* lpszEnding) {
    const T* lpszGood = NULL;
    while (pRE != NULL) {
        if ((pRE->m_uTraits & (traitSet | traitGroup)) == traitGroup)
            lpsz = applyGroup(static_cast<re_Group<T>*>(pRE), iIndex + 1, lpsz, lpszEnding);
        else if ((pRE->m_uTraits & traitSet) == 0)
            lpsz = pRE->ApplyChildREFrom(iIndex + 1, lpsz, lpszEnding);
        if (lpsz == NULL)
            break;
        lpszGood = lpsz;
        iIndex = pRE->m_iIndexInParent;
        pRE = pRE->m_pParentRE;
    }
    return lpszGood;
}

// Somebody outside applies a node, or a part of it: its tree has results from then on.
template <class T>
inline void soil(re_Base<T>* pRE) {
    reRegularExpress<T>* pExpress = expressOf(pRE);
    preparePlans(pExpress);
    if (pExpress != NULL && pExpress->m_pState != NULL)
        pExpress->m_pState->m_bClean = false;
}

// Leaves have no other result than their own, and are called from inside, too.
template <class T>
inline void soilGroup(re_Base<T>* pRE) {
    if ((pRE->m_uTraits & traitGroup) != 0)
        soil(pRE);
}

// The end for a caller from outside.
template <class T>
inline const T* endFor(re_Base<T>* pRE, const T* lpszSrcText, const T* lpszSrcEnding) {
    return lpszSrcEnding == NULL && (pRE->m_uTraits & traitOvershoot) != 0 ? findEnd(pRE, lpszSrcText) : lpszSrcEnding;
}

}  // namespace

// ---- re_Base

namespace {

template <class T>
void dropPlans(re_Base<T>* pRE) {
    for (; pRE != NULL; pRE = pRE->m_pParentRE) {
        delete pRE->m_pPlan;
        pRE->m_pPlan = NULL;
    }
}

}  // namespace

template <class T>
re_Base<T>::re_Base()
    : m_bNegative(0),
      m_nFlags(0),
      m_nMinTimes(1),
      m_nMaxTimes(1),
      m_chRepeatMode('-'),
      m_pParentRE(NULL),
      m_iIndexInParent(-1),
      m_lpszResultBegin(NULL),
      m_lpszResultEnd(NULL),
      m_uTraits(0),
      m_pPlan(NULL) {}

template <class T>
re_Base<T>::~re_Base() {
    delete m_pPlan;
}

template <class T>
const T* re_Base<T>::ApplyREOnText(const T* lpszSrcText, const T* lpszSrcEnding) {
    if (lpszSrcText == m_lpszResultBegin || lpszSrcText == NULL)
        return lpszSrcText != NULL ? m_lpszResultEnd : NULL;
    if ((m_uTraits & traitExpress) != 0) {
        reRegularExpress<T>* pExpress = static_cast<reRegularExpress<T>*>(this);
        preparePlans(pExpress);
        if (pExpress->m_pState != NULL && pExpress->m_pState->m_arrStep != NULL &&
            applyStraight(*pExpress, lpszSrcText, lpszSrcEnding))
            return m_lpszResultEnd;
    }
    soil(this);
    return applyNode(this, lpszSrcText, endFor(this, lpszSrcText, lpszSrcEnding));
}

template <class T>
re_Base<T>* re_Base<T>::GetRootRE() {
    re_Base* pRE = this;
    while (pRE->m_pParentRE != NULL)
        pRE = pRE->m_pParentRE;
    return pRE;
}

template <class T>
int re_Base<T>::GetGradeLevel() const {
    int nLevel = 0;
    for (const re_Base* pRE = m_pParentRE; pRE != NULL; pRE = pRE->m_pParentRE)
        ++nLevel;
    return nLevel;
}

template <class T>
void re_Base<T>::ClearResult() {
    m_lpszResultBegin = NULL;
    m_lpszResultEnd = NULL;
}

template <class T>
void re_Base<T>::TraceResult() {
    const chReferenceStringT<T> strIndent('\t', GetGradeLevel());
    const T* lpszIndent = strIndent;
    const T* lpszREText = m_strREText;
    if (m_lpszResultEnd == NULL) {
        QOR_TraceHelper::qorTrace(2, "%s \"%s\"{%d,%d}%c = \"ERROR\"", lpszIndent, lpszREText, m_nMinTimes, m_nMaxTimes,
                                  m_chRepeatMode);
        return;
    }
    const int nLength = static_cast<int>(m_lpszResultEnd - m_lpszResultBegin);
    const chReferenceStringT<T> strResult(m_lpszResultBegin, nLength < mostTracedText ? nLength : mostTracedText);
    QOR_TraceHelper::qorTrace(2, "%s \"%s\"{%d,%d}%c = \"%s\"(%d)", lpszIndent, lpszREText, m_nMinTimes, m_nMaxTimes,
                              m_chRepeatMode, static_cast<const T*>(strResult), nLength);
}

template <class T>
void re_Base<T>::CutBaseFrom(re_Base& r) {
    m_strREText.CutFromObject(r.m_strREText);
    m_bNegative = r.m_bNegative;
    m_nMinTimes = r.m_nMinTimes;
    m_nMaxTimes = r.m_nMaxTimes;
    m_chRepeatMode = r.m_chRepeatMode;
    r.m_bNegative = 0;
    r.m_nMinTimes = r.m_nMaxTimes = 1;
    r.m_chRepeatMode = '-';
    // Results and plans belong to the place in the tree, and those of the nodes above know it.
    reRegularExpress<T>* pExpress = expressOf(&r);
    preparePlans(pExpress);
    if (pExpress != NULL && pExpress->m_pState != NULL)
        pExpress->m_pState->forgetNodes();
    dropPlans(&r);
    dropPlans(this);
    ClearResult();
}

// ---- re_Group

template <class T>
re_Group<T>::re_Group() : m_bNoCapture(0), m_pBuild(NULL) {
    this->m_uTraits |= traitGroup;
}

template <class T>
re_Group<T>::~re_Group() {
    ClearChildRE();
}

template <class T>
void re_Group<T>::ClearChildRE() {
    for (int i = 0; i < m_arrTargetREs.GetSize(); ++i)
        delete m_arrTargetREs[i];
    m_arrTargetREs.Clear();
}

template <class T>
void re_Group<T>::AddChildRE(re_Base<T>* pChildRE) {
    if (!QOR_ASSERT(pChildRE != NULL))
        return;
    if (m_pBuild == NULL)
        preparePlans(expressOf<T>(this));
    pChildRE->m_pParentRE = this;
    pChildRE->m_iIndexInParent = m_arrTargetREs.GetSize();
    pChildRE->m_nFlags = this->GetRootRE()->m_nFlags;
    m_arrTargetREs.Add(pChildRE);
}

template <class T>
void re_Group<T>::RemoveLastChild() {
    const int iLast = m_arrTargetREs.GetSize() - 1;
    delete m_arrTargetREs[iLast];
    m_arrTargetREs.RemoveAt(iLast, 1);
}

template <class T>
void re_Group<T>::ClearResult() {
    re_Base<T>::ClearResult();
    for (int i = 0; i < m_arrTargetREs.GetSize(); ++i) {
        re_Base<T>* pChild = m_arrTargetREs[i];
        pChild->m_lpszResultBegin = NULL;
        pChild->m_lpszResultEnd = NULL;
        if ((pChild->m_uTraits & traitGroup) != 0)
            pChild->ClearResult();
    }
}

template <class T>
void re_Group<T>::TraceResult() {
    re_Base<T>::TraceResult();
    for (int i = 0; i < m_arrTargetREs.GetSize(); ++i)
        m_arrTargetREs[i]->TraceResult();
}

template <class T>
const T* re_Group<T>::ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    if (!QOR_ASSERT(!m_arrTargetREs.IsEmpty()))
        return NULL;
    return m_arrTargetREs[iIndex]->ApplyREOnText(lpszSrcText, lpszSrcEnding);
}

template <class T>
const T* re_Group<T>::ApplyChildForOptional(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding, int nTimes) {
    if (!QOR_ASSERT(nTimes != 0))
        return NULL;
    soil<T>(this);
    return applyOptional(m_arrTargetREs[iIndex], lpszSrcText, endFor<T>(this, lpszSrcText, lpszSrcEnding), nTimes);
}

namespace {

// Lets back-references below name another group.
template <class T>
void renameGroup(re_Base<T>* pRE, re_Base<T>* pOld, re_Base<T>* pNew) {
    if ((pRE->m_uTraits & traitGroup) == 0) {
        if ((pRE->m_uTraits & traitReference) != 0 && static_cast<re_Reference<T>*>(pRE)->m_pRefRE == pOld)
            static_cast<re_Reference<T>*>(pRE)->m_pRefRE = pNew;
        return;
    }
    re_Group<T>* pGroup = static_cast<re_Group<T>*>(pRE);
    for (int i = 0; i < pGroup->m_arrTargetREs.GetSize(); ++i)
        renameGroup(pGroup->m_arrTargetREs[i], pOld, pNew);
}

}  // namespace

template <class T>
void re_Group<T>::CutFromObject(re_Group& r) {
    if (this == &r)
        return;
    ClearChildRE();
    this->CutBaseFrom(r);
    m_bNoCapture = r.m_bNoCapture;
    m_arrTargetREs.CutFromObject(r.m_arrTargetREs);
    for (int i = 0; i < m_arrTargetREs.GetSize(); ++i)
        m_arrTargetREs[i]->m_pParentRE = this;
    reRegularExpress<T>* pExpress = expressOf<T>(&r);
    if (pExpress == NULL || (r.m_uTraits & traitCapture) == 0)
        return;
    r.m_uTraits &= ~traitCapture;
    this->m_uTraits |= traitCapture;
    for (int i = 0; i < pExpress->m_arrCaptureREs.GetSize(); ++i)
        if (pExpress->m_arrCaptureREs[i] == &r)
            pExpress->m_arrCaptureREs[i] = this;
    renameGroup<T>(pExpress, &r, this);
    renameGroup<T>(this, &r, this);
}

// ---- leaves

template <class T>
re_Text<T>::re_Text() {
    this->m_uTraits |= traitText;
}

template <class T>
const T* re_Text<T>::ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyLeaf(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class T>
void re_Text<T>::CutFromObject(re_Text& r) {
    if (this == &r)
        return;
    this->CutBaseFrom(r);
    m_arrText.CutFromObject(r.m_arrText);
}

template <class T>
const T* re_Range<T>::ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyLeaf(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class T>
void re_Range<T>::CutFromObject(re_Range& r) {
    if (this == &r)
        return;
    this->CutBaseFrom(r);
    m_chLow = r.m_chLow;
    m_chHigh = r.m_chHigh;
    r.m_chLow = r.m_chHigh = 0;
}

template <class T>
const T* re_Reference<T>::ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyLeaf(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class T>
void re_Reference<T>::CutFromObject(re_Reference& r) {
    if (this == &r)
        return;
    this->CutBaseFrom(r);
    m_pRefRE = r.m_pRefRE;
    r.m_pRefRE = NULL;
}

// ---- relations

namespace {

template <class X>
bool isIndex(const X* pRE, int iIndex) {
    return QOR_ASSERT_TEXT(iIndex >= 0 && iIndex <= pRE->GetChildRECount(),
                           "iIndex >= 0 && iIndex <= this->GetChildRECount()");
}

// Applies the children of a node from one of them on, for a caller from outside or without knowing their kind.
template <class X, class T>
const T* applyFrom(X* pRE, int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    if (!isIndex(pRE, iIndex))
        return NULL;
    if (iIndex == pRE->GetChildRECount())
        return lpszSrcText;
    soilGroup<T>(pRE);
    const T* const lpszEnding = endFor<T>(pRE, lpszSrcText, lpszSrcEnding);
    return (pRE->m_uTraits & traitSet) != 0 ? applyCase(pRE, iIndex, lpszSrcText, lpszEnding)
                                            : applyAnd(pRE, iIndex, lpszSrcText, lpszEnding);
}

}  // namespace

template <class X, class T>
const T* re_RelationAnd<X, T>::ApplyChildREFrom(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyFrom<X, T>(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class X, class T>
const T* re_RelationAnd<X, T>::ApplyREsAfterChild(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    soil<T>(this);
    return isIndex<X>(this, iIndex + 1)
               ? applyAfter<T>(this, iIndex, lpszSrcText, endFor<T>(this, lpszSrcText, lpszSrcEnding))
               : NULL;
}

template <class X, class T>
const T* re_RelationCase<X, T>::ApplyChildREFrom(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyFrom<X, T>(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class X, class T>
const T* re_RelationCase<X, T>::ApplyREsAfterChild(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    soil<T>(this);
    return applyAfter<T>(this, iIndex, lpszSrcText, endFor<T>(this, lpszSrcText, lpszSrcEnding));
}

template class re_Base<char>;
template class re_Group<char>;
template class re_Text<char>;
template class re_Range<char>;
template class re_Reference<char>;
template class re_RelationAnd<re_Group<char>, char>;
template class re_RelationAnd<re_Text<char>, char>;
template class re_RelationAnd<re_Reference<char>, char>;
template class re_RelationCase<re_Group<char>, char>;
template class re_RelationCase<re_Text<char>, char>;
template class re_RelationCase<re_Range<char>, char>;
template class re_RelationCase<re_Reference<char>, char>;

}  // namespace QOR_RegularExpressHelper
