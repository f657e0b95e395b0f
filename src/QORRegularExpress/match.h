// What the matchers share: the functions of the general matcher, and the results of nodes that a plan stands for.
#ifndef QOR_REGULAR_EXPRESS_MATCH_H
#define QOR_REGULAR_EXPRESS_MATCH_H

#include "QORRegularExpress/plan.h"

namespace QOR_RegularExpressHelper {

// ---- the general matcher; each function returns the end of the match, or null

// One repetition of a node (match.cpp).
const char* applyOnce(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding);
// What follows child iIndex, up through the tree (match.cpp). Only the rest of the innermost sequence can fail.
const char* applyAfter(node* pRE, int iIndex, const char* lpsz, const char* lpszEnding);
// All repetitions of a node (repeat.cpp).
const char* applyRepeated(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding);
// The repetitions beyond the required ones, nTimes at most; -1: no limit (repeat.cpp).
const char* applyOptional(node* pRE, const char* lpsz, const char* lpszEnding, int nTimes);

// ---- the one-pass matcher (onepass.cpp)

// Matches a root that has steps, and leaves all results. False: it has done nothing, the general matcher has to.
bool applyOnePass(reRegularExpress<char>& express, const char* lpszSrcText, const char* lpszSrcEnding);

// ---- characters

inline bool isAtEnd(const char* lpsz, const char* lpszEnding) {
    return lpszEnding != NULL ? lpsz >= lpszEnding : *lpsz == 0;
}

inline bool isEqualChar(uint32_t nFlags, char chPattern, char chText) {
    return chPattern == chText || ((nFlags & flagIgnoreCase) != 0 && chPattern == QOR_StringHelper::chReverse(chText));
}

// The end of the characters whose marks under uMask are uMarks, at most nMax of them.
inline const char* endOfRun(const rePlan* pPlan, unsigned uMask, unsigned uMarks, const char* lpsz,
                            const char* lpszEnding, size_t nMax) {
    const uint8_t* const pMarks = pPlan->m_arrChar;
    if (lpszEnding == NULL) {
        const char* const lpszBegin = lpsz;
        while (static_cast<size_t>(lpsz - lpszBegin) < nMax && *lpsz != 0 &&
               (pMarks[charValue(*lpsz)] & uMask) == uMarks)
            ++lpsz;
        return lpsz;
    }
    const char* const lpszTo = static_cast<size_t>(lpszEnding - lpsz) < nMax ? lpszEnding : lpsz + nMax;
    if (pPlan->m_bAll && uMask == rePlan::bitTakes)
        return lpszTo;
    while (lpsz < lpszTo && (pMarks[charValue(*lpsz)] & uMask) == uMarks)
        ++lpsz;
    return lpsz;
}

// ---- the results of descendants of a node that takes one character

// Sets them as applying the node at this position does.
inline void setInner(const rePlan* pPlan, const char* lpsz, const char* lpszEnding) {
    const reInner* const pTo = pPlan->m_arrInner + pPlan->m_nInner;
    if (isAtEnd(lpsz, lpszEnding)) {
        for (const reInner* p = pPlan->m_arrInner; p < pTo; ++p) {
            p->m_pRE->m_lpszResultBegin = lpsz;
            p->m_pRE->m_lpszResultEnd = NULL;
        }
        return;
    }
    const unsigned uChar = charValue(*lpsz);
    for (const reInner* p = pPlan->m_arrInner; p < pTo; ++p) {
        if (reInner::has(p->m_arrReached, uChar) == 0)
            continue;
        p->m_pRE->m_lpszResultBegin = lpsz;
        p->m_pRE->m_lpszResultEnd = reInner::has(p->m_arrTaken, uChar) != 0 ? lpsz + 1 : NULL;
    }
}

// Where different characters reach different descendants (rePlan::m_bEach): each gets the result of the last position
// that reaches it.
inline void setInnerOfEach(const rePlan* pPlan, const char* lpszBegin, const char* lpszLast, const char* lpszEnding) {
    const reInner* const pTo = pPlan->m_arrInner + pPlan->m_nInner;
    for (const reInner* p = pPlan->m_arrInner; p < pTo; ++p) {
        for (const char* lpsz = lpszLast; lpsz >= lpszBegin; --lpsz) {
            const bool bEnd = isAtEnd(lpsz, lpszEnding);
            if (!bEnd && reInner::has(p->m_arrReached, charValue(*lpsz)) == 0)
                continue;
            p->m_pRE->m_lpszResultBegin = lpsz;
            p->m_pRE->m_lpszResultEnd = !bEnd && reInner::has(p->m_arrTaken, charValue(*lpsz)) != 0 ? lpsz + 1 : NULL;
            break;
        }
    }
}

// Sets them as a run from lpszBegin to lpsz does. bRefused: the node was applied at lpsz, too, and failed.
inline void setInnerOfRun(const rePlan* pPlan, const char* lpszBegin, const char* lpsz, bool bRefused,
                          const char* lpszEnding) {
    if (pPlan->m_bEach) {
        setInnerOfEach(pPlan, lpszBegin, bRefused ? lpsz : lpsz - 1, lpszEnding);
        return;
    }
    if (lpsz > lpszBegin && (!bRefused || pPlan->m_bPartial))
        setInner(pPlan, lpsz - 1, lpszEnding);
    if (bRefused)
        setInner(pPlan, lpsz, lpszEnding);
}

}  // namespace QOR_RegularExpressHelper

#endif
