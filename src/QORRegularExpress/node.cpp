// The nodes of a tree: making and taking apart, results, and moving a node.
#include "QORRegularExpress/build.h"
#include "QORRegularExpress/plan.h"
#include "internal/arena_array.h"
#include "internal/report.h"
#include "qor/TraceHelper/Trace.h"

using namespace QOR_StringHelper;
using QOR_AllocHelper::arena;

namespace QOR_RegularExpressHelper {

namespace {

constexpr int firstChildren = 4;      // most groups have no more
constexpr int maxTracedText = 16384;  // so that every line fits every trace target

}  // namespace

// ---- re_Base

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
void* re_Base<T>::operator new(size_t nSize) {
    return ::operator new(nSize);
}

template <class T>
void* re_Base<T>::operator new(size_t nSize, const std::nothrow_t& r) noexcept {
    return ::operator new(nSize, r);
}

template <class T>
void re_Base<T>::operator delete(void* p) {
    arena::freeObject(p);
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
    const chReferenceStringT<T> strResult(m_lpszResultBegin, nLength < maxTracedText ? nLength : maxTracedText);
    QOR_TraceHelper::qorTrace(2, "%s \"%s\"{%d,%d}%c = \"%s\"(%d)", lpszIndent, lpszREText, m_nMinTimes, m_nMaxTimes,
                              m_chRepeatMode, static_cast<const T*>(strResult), nLength);
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
    const arena::batch freedTogether;
    for (int i = 0; i < m_arrTargetREs.GetSize(); ++i)
        delete m_arrTargetREs[i];
    m_arrTargetREs.Clear();
}

template <class T>
void re_Group<T>::AddChildRE(re_Base<T>* pChildRE) {
    if (!QOR_ASSERT(pChildRE != NULL))
        return;
    if (m_pBuild == NULL)
        preparePlans(expressOf(this));
    else
        giveBlock(m_arrTargetREs, m_pBuild->m_memory, firstChildren);
    pChildRE->m_pParentRE = this;
    pChildRE->m_iIndexInParent = m_arrTargetREs.GetSize();
    pChildRE->m_nFlags = m_pBuild != NULL ? this->m_nFlags : this->GetRootRE()->m_nFlags;
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

// ---- leaves

template <class T>
re_Text<T>::re_Text() {
    this->m_uTraits |= traitText;
}

// ---- moving a node

namespace {

void dropPlans(node* pRE) {
    for (; pRE != NULL; pRE = pRE->m_pParentRE) {
        delete pRE->m_pPlan;
        pRE->m_pPlan = NULL;
    }
}

void dropPlansOfChildren(group* pGroup) {
    for (int i = 0; i < pGroup->m_arrTargetREs.GetSize(); ++i) {
        node* const pChild = pGroup->m_arrTargetREs[i];
        delete pChild->m_pPlan;
        pChild->m_pPlan = NULL;
        if ((pChild->m_uTraits & traitGroup) != 0)
            dropPlansOfChildren(static_cast<group*>(pChild));
    }
}

// Makes the back-references in a subtree that refer to one group refer to another.
void renameGroup(node* pRE, const node* pOld, node* pNew) {
    if ((pRE->m_uTraits & traitGroup) == 0) {
        if ((pRE->m_uTraits & traitReference) != 0 && static_cast<re_Reference<char>*>(pRE)->m_pRefRE == pOld)
            static_cast<re_Reference<char>*>(pRE)->m_pRefRE = pNew;
        return;
    }
    group* pGroup = static_cast<group*>(pRE);
    for (int i = 0; i < pGroup->m_arrTargetREs.GetSize(); ++i)
        renameGroup(pGroup->m_arrTargetREs[i], pOld, pNew);
}

}  // namespace

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
    // Results and plans belong to the position in the tree, and the plans of ancestors depend on the node.
    reRegularExpress<T>* pExpress = expressOf(&r);
    preparePlans(pExpress);
    if (pExpress != NULL && pExpress->m_pState != NULL)
        pExpress->m_pState->forgetNodes();
    dropPlans(&r);
    dropPlans(this);
    ClearResult();
}

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
    reRegularExpress<T>* pExpress = expressOf(&r);
    // Plans refer to the state of their tree, which this node may outlive.
    if (expressOf(this) != pExpress)
        dropPlansOfChildren(this);
    if (pExpress == NULL || (r.m_uTraits & traitCapture) == 0)
        return;
    r.m_uTraits &= ~traitCapture;
    this->m_uTraits |= traitCapture;
    for (int i = 0; i < pExpress->m_arrCaptureREs.GetSize(); ++i)
        if (pExpress->m_arrCaptureREs[i] == &r)
            pExpress->m_arrCaptureREs[i] = this;
    renameGroup(pExpress, &r, this);
    renameGroup(this, &r, this);
}

template <class T>
void re_Text<T>::CutFromObject(re_Text& r) {
    if (this == &r)
        return;
    this->CutBaseFrom(r);
    m_arrText.CutFromObject(r.m_arrText);
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
void re_Reference<T>::CutFromObject(re_Reference& r) {
    if (this == &r)
        return;
    this->CutBaseFrom(r);
    m_pRefRE = r.m_pRefRE;
    r.m_pRefRE = NULL;
}

template class re_Base<char>;
template class re_Group<char>;
template class re_Text<char>;
template class re_Range<char>;
template class re_Reference<char>;

}  // namespace QOR_RegularExpressHelper
