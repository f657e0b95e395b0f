// Matching: the general matcher, and the operations by which callers apply a node or a part of one.
//
// There are several ways to match, because each serves a case that the others do not serve as fast. All leave exactly
// the results in every node that the general matcher would leave without shortcuts.
// - The general matcher (this file and repeat.cpp) handles every tree, including those put together or changed by hand.
//   It recurses through the nodes and, where a repetition looks ahead, through what follows it.
// - Runs (repeat.cpp) are repetitions of one character each, such as \w+. A table says which characters are taken, so a
//   run is scanned where the general matcher would apply three nodes for each character. Positions at which looking
//   ahead has a known outcome are skipped.
// - The one-pass matcher (onepass.cpp) executes a flat list of steps, for patterns in which looking ahead cannot change
//   what a repetition takes; most patterns that users write are such. It neither recurses nor looks ahead.
//
// With the general matcher alone, the benchmark took 1.5 times as long for a date, which never looks ahead, so that
// this is the price of recursion; 2.4 times for an IP address, 3.3 times for an INI line and 3.5 times for a number.
// Compiling and the first match together gained a tenth at most. With the list of steps alone, there would have to be
// steps for sets, negation, repeated groups, back-references and looking ahead. They would need the recursion of the
// general matcher over ranges of steps, and still the results in each node and the analysis in plan.cpp; and trees that
// are made by hand have no list.
//
// Recursion leads only to nodes further on in the pattern, so the compiler can bound its depth (maxDepth). The virtual
// functions are the nodes' public interface; internally, nodes are distinguished by their traits, so that most calls
// are direct.
#include "QORRegularExpress/match.h"

#include "internal/report.h"

using namespace QOR_StringHelper;

namespace QOR_RegularExpressHelper {

namespace {

inline const char* applyNode(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding);

// ---- the end of the text

// Finds the end of a text whose NUL could be passed. The root keeps it: nothing matches after it.
const char* findEnd(node* pRE, const char* lpszText) {
    return expressOf(pRE)->m_lpszFoundEnd = lpszText + chStrlen(lpszText);
}

// Whether a node may be applied at a position. After an end that was found it just fails; after one that the caller
// gave it is fatal.
bool mayApply(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding) {
    if (lpszSrcEnding == NULL || lpszSrcText <= lpszSrcEnding)
        return true;
    const reRegularExpress<char>* pExpress = expressOf(pRE);
    if (pExpress == NULL || pExpress->m_lpszFoundEnd != lpszSrcEnding)
        QOR_ASSERT_TEXT(lpszSrcEnding == NULL || lpszSrcText <= lpszSrcEnding,
                        "lpszSrcEnding == NULL || lpszSrcText <= lpszSrcEnding");
    return false;
}

// The end that matching uses for a call from outside.
inline const char* endFor(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding) {
    return lpszSrcEnding == NULL && (pRE->m_uTraits & traitOvershoot) != 0 ? findEnd(pRE, lpszSrcText) : lpszSrcEnding;
}

// ---- one child

inline const char* applyChild(const re_Text<char>* pRE, int iIndex, const char* lpsz, const char* lpszEnding) {
    if (isAtEnd(lpsz, lpszEnding))
        return NULL;
    return isEqualChar(pRE->m_nFlags, pRE->m_arrText.GetBuffer()[iIndex], *lpsz) ? lpsz + 1 : NULL;
}

inline const char* applyChild(const re_Range<char>* pRE, int, const char* lpsz, const char* lpszEnding) {
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

const char* applyChild(const re_Reference<char>* pRE, int iIndex, const char* lpsz, const char*) {
    if (!QOR_ASSERT(iIndex == 0))
        return NULL;
    const node* pRefRE = pRE->m_pRefRE;
    if (!QOR_ASSERT_TEXT(pRefRE != NULL && pRefRE->m_lpszResultEnd != NULL, "FALSE"))
        return NULL;
    const bool bFold = (pRE->m_nFlags & flagIgnoreCase) != 0;
    for (const char* lpszRef = pRefRE->m_lpszResultBegin; lpszRef != pRefRE->m_lpszResultEnd; ++lpszRef, ++lpsz)
        if (*lpszRef != *lpsz && (!bFold || chUpper(*lpszRef) != chUpper(*lpsz)))
            return NULL;
    return lpsz;
}

inline const char* applyChild(const group* pRE, int iIndex, const char* lpsz, const char* lpszEnding) {
    return applyNode(pRE->m_arrTargetREs.GetBuffer()[iIndex], lpsz, lpszEnding);
}

// ---- the children of a node

// Applies the children from iIndex on, one after the other. There is at least one.
template <class X>
inline const char* applySequence(X* pRE, int iIndex, const char* lpszSrcText, const char* lpszSrcEnding) {
    const int nCount = pRE->GetChildRECount();
    const char* lpsz = lpszSrcText;
    for (; iIndex < nCount && lpsz != NULL; ++iIndex)
        lpsz = applyChild(pRE, iIndex, lpsz, lpszSrcEnding);
    if (pRE->m_bNegative == 0)
        return lpsz;
    return lpsz == NULL && mayApply(pRE, lpszSrcText, lpszSrcEnding) ? lpszSrcText + 1 : NULL;
}

// Applies the children from iIndex on until one matches. There is at least one.
template <class X>
inline const char* applySet(X* pRE, int iIndex, const char* lpszSrcText, const char* lpszSrcEnding) {
    const int nCount = pRE->GetChildRECount();
    const char* lpsz = NULL;
    for (; iIndex < nCount && lpsz == NULL; ++iIndex)
        lpsz = applyChild(pRE, iIndex, lpszSrcText, lpszSrcEnding);
    if (pRE->m_bNegative == 0)
        return lpsz;
    return lpsz == NULL && !isAtEnd(lpszSrcText, lpszSrcEnding) ? lpszSrcText + 1 : NULL;
}

const char* applyGroup(group* pRE, int iIndex, const char* lpszSrcText, const char* lpszSrcEnding) {
    if (iIndex == pRE->GetChildRECount())
        return lpszSrcText;
    if ((pRE->m_uTraits & traitSet) != 0)
        return applySet(pRE, iIndex, lpszSrcText, lpszSrcEnding);
    return applySequence(pRE, iIndex, lpszSrcText, lpszSrcEnding);
}

// A run of literals; it is never negated.
inline const char* applyText(const re_Text<char>* pRE, const char* lpsz, const char* lpszEnding) {
    const char* p = pRE->m_arrText.GetBuffer();
    const char* const pTo = p + pRE->m_arrText.GetSize();
    for (; p < pTo; ++p, ++lpsz)
        if (isAtEnd(lpsz, lpszEnding) || !isEqualChar(pRE->m_nFlags, *p, *lpsz))
            return NULL;
    return lpsz;
}

// ---- a node

// A group that takes one character.
inline const char* applySingle(const rePlan* pPlan, const char* lpsz, const char* lpszEnding) {
    if (!pPlan->m_pState->m_bSearching)
        setInner(pPlan, lpsz, lpszEnding);
    return !isAtEnd(lpsz, lpszEnding) && (pPlan->m_arrChar[charValue(*lpsz)] & rePlan::bitTakes) != 0 ? lpsz + 1 : NULL;
}

// A node with its quantifier.
inline const char* applyNode(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding) {
    if (lpszSrcText == pRE->m_lpszResultBegin)
        return pRE->m_lpszResultEnd;
    pRE->m_lpszResultBegin = lpszSrcText;
    pRE->m_lpszResultEnd = NULL;
    if (lpszSrcEnding != NULL && lpszSrcText > lpszSrcEnding && !mayApply(pRE, lpszSrcText, lpszSrcEnding))
        return NULL;
    const char* lpszResult = NULL;
    if (pRE->m_nMinTimes != 1 || pRE->m_nMaxTimes != 1)
        lpszResult = applyRepeated(pRE, lpszSrcText, lpszSrcEnding);
    else if (pRE->m_pPlan != NULL)
        lpszResult = applySingle(pRE->m_pPlan, lpszSrcText, lpszSrcEnding);
    else
        lpszResult = applyOnce(pRE, lpszSrcText, lpszSrcEnding);
    pRE->m_lpszResultEnd = lpszResult;
    return lpszResult;
}

}  // namespace

const char* applyOnce(node* pRE, const char* lpszSrcText, const char* lpszSrcEnding) {
    switch (pRE->m_uTraits & (traitGroup | traitText | traitSet)) {
        case traitGroup:
        case traitGroup | traitSet:
            return applyGroup(static_cast<group*>(pRE), 0, lpszSrcText, lpszSrcEnding);
        case traitText:
            return applyText(static_cast<re_Text<char>*>(pRE), lpszSrcText, lpszSrcEnding);
        case traitText | traitSet:
            return applySet(static_cast<re_Text<char>*>(pRE), 0, lpszSrcText, lpszSrcEnding);
        default:
            return pRE->ApplyChildREFrom(0, lpszSrcText, lpszSrcEnding);
    }
}

const char* applyAfter(node* pRE, int iIndex, const char* lpsz, const char* lpszEnding) {
    const char* lpszLast = NULL;
    while (pRE != NULL) {
        if ((pRE->m_uTraits & (traitSet | traitGroup)) == traitGroup)
            lpsz = applyGroup(static_cast<group*>(pRE), iIndex + 1, lpsz, lpszEnding);
        else if ((pRE->m_uTraits & traitSet) == 0)
            lpsz = pRE->ApplyChildREFrom(iIndex + 1, lpsz, lpszEnding);
        if (lpsz == NULL)
            break;
        lpszLast = lpsz;
        iIndex = pRE->m_iIndexInParent;
        pRE = pRE->m_pParentRE;
    }
    return lpszLast;
}

// ---- calls from outside

namespace {

// A caller applies a node or a part of one, so from now on the tree has results.
inline void markDirty(node* pRE) {
    reRegularExpress<char>* pExpress = expressOf(pRE);
    preparePlans(pExpress);
    if (pExpress != NULL && pExpress->m_pState != NULL)
        pExpress->m_pState->m_bClean = false;
}

bool isIndex(int iIndex, int nCount) {
    return QOR_ASSERT_TEXT(iIndex >= 0 && iIndex <= nCount, "iIndex >= 0 && iIndex <= this->GetChildRECount()");
}

// The children of a node from iIndex on. Leaves have no result but their own, and the matcher itself comes here for
// them, so only groups mark the tree.
template <class X>
const char* applyFrom(X* pRE, int iIndex, const char* lpszSrcText, const char* lpszSrcEnding) {
    const int nCount = pRE->GetChildRECount();
    if (!isIndex(iIndex, nCount))
        return NULL;
    if (iIndex == nCount)
        return lpszSrcText;
    if ((pRE->m_uTraits & traitGroup) != 0)
        markDirty(pRE);
    const char* const lpszEnding = endFor(pRE, lpszSrcText, lpszSrcEnding);
    return (pRE->m_uTraits & traitSet) != 0 ? applySet(pRE, iIndex, lpszSrcText, lpszEnding)
                                            : applySequence(pRE, iIndex, lpszSrcText, lpszEnding);
}

const char* applyFollowing(node* pRE, int iIndex, const char* lpszSrcText, const char* lpszSrcEnding) {
    markDirty(pRE);
    return applyAfter(pRE, iIndex, lpszSrcText, endFor(pRE, lpszSrcText, lpszSrcEnding));
}

}  // namespace

template <class T>
const T* re_Base<T>::ApplyREOnText(const T* lpszSrcText, const T* lpszSrcEnding) {
    if (lpszSrcText == m_lpszResultBegin || lpszSrcText == NULL)
        return lpszSrcText != NULL ? m_lpszResultEnd : NULL;
    if ((m_uTraits & traitExpress) != 0) {
        reRegularExpress<T>* pExpress = static_cast<reRegularExpress<T>*>(this);
        preparePlans(pExpress);
        if (pExpress->m_pState != NULL && pExpress->m_pState->m_arrStep != NULL &&
            applyOnePass(*pExpress, lpszSrcText, lpszSrcEnding))
            return m_lpszResultEnd;
    }
    markDirty(this);
    return applyNode(this, lpszSrcText, endFor(this, lpszSrcText, lpszSrcEnding));
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
    markDirty(this);
    return applyOptional(m_arrTargetREs[iIndex], lpszSrcText, endFor(this, lpszSrcText, lpszSrcEnding), nTimes);
}

template <class T>
const T* re_Text<T>::ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyChild(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class T>
const T* re_Range<T>::ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyChild(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class T>
const T* re_Reference<T>::ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyChild(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class X, class T>
const T* re_RelationAnd<X, T>::ApplyChildREFrom(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyFrom<X>(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class X, class T>
const T* re_RelationAnd<X, T>::ApplyREsAfterChild(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    if (!isIndex(iIndex + 1, this->GetChildRECount()))
        return NULL;
    return applyFollowing(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class X, class T>
const T* re_RelationCase<X, T>::ApplyChildREFrom(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyFrom<X>(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template <class X, class T>
const T* re_RelationCase<X, T>::ApplyREsAfterChild(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) {
    return applyFollowing(this, iIndex, lpszSrcText, lpszSrcEnding);
}

template const char* re_Base<char>::ApplyREOnText(const char*, const char*);
template const char* re_Group<char>::ApplyChildRE(int, const char*, const char*);
template const char* re_Group<char>::ApplyChildForOptional(int, const char*, const char*, int);
template const char* re_Text<char>::ApplyChildRE(int, const char*, const char*);
template const char* re_Range<char>::ApplyChildRE(int, const char*, const char*);
template const char* re_Reference<char>::ApplyChildRE(int, const char*, const char*);
template class re_RelationAnd<re_Group<char>, char>;
template class re_RelationAnd<re_Text<char>, char>;
template class re_RelationAnd<re_Reference<char>, char>;
template class re_RelationCase<re_Group<char>, char>;
template class re_RelationCase<re_Text<char>, char>;
template class re_RelationCase<re_Range<char>, char>;
template class re_RelationCase<re_Reference<char>, char>;

}  // namespace QOR_RegularExpressHelper
