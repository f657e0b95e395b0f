// The root: building, searching, captures and custom aliases.
#include "internal/regular_express.h"

#include <string.h>

#define QOR_MODULE "RegularExpress"
#include "internal/report.h"

using namespace QOR_StringHelper;

namespace QOR_RegularExpressHelper {

template <class T>
reRegularExpress<T>::reRegularExpress(const T* lpszREText, unsigned int nFlags) : m_lpszFoundEnd(NULL) {
    this->m_uTraits |= traitExpress;
    this->m_nFlags = nFlags;
    if (lpszREText != NULL)
        lpszREText = BuildRegularExpress(lpszREText, nFlags);
    QOR_ASSERT(lpszREText == NULL);
}

template <class T>
reRegularExpress<T>::~reRegularExpress() {}

template <class T>
void reRegularExpress<T>::ClearResult() {
    re_Group<T>::ClearResult();
    m_lpszFoundEnd = NULL;
}

// ---- building

template <class T>
void reRegularExpress<T>::ClearTree() {
    this->ClearChildRE();
    m_arrCaptureREs.RemoveAll();
    this->m_strREText.Clear();
    this->m_bNegative = 0;
    this->m_uTraits &= ~traitOvershoot;
    delete this->m_pPlan;
    this->m_pPlan = NULL;
    ClearResult();
}

// The place of the error, or null.
template <class T>
const T* reRegularExpress<T>::Compile(const T* lpszREText) {
    if (strnlen(lpszREText, maxPatternLength + 1) > static_cast<size_t>(maxPatternLength))
        return lpszREText + maxPatternLength;
    reBuild build;
    this->m_pBuild = &build;
    const T* lpsz = lpszREText;
    const int nResult = this->ParseAndREFromTextByEnding(lpsz, 0);
    this->m_pBuild = NULL;
    if (nResult != 1)
        return lpsz;
    return QOR_ASSERT_TEXT(planTree(*this), "pNew != NULL") ? NULL : lpszREText;
}

template <class T>
const T* reRegularExpress<T>::BuildRegularExpress(const T* lpszREText, unsigned int nFlags) {
    if (!QOR_ASSERT(lpszREText != NULL))
        return NULL;
    ClearTree();
    this->m_nFlags = nFlags;
    const T* lpszError = Compile(lpszREText);
    if (lpszError != NULL) {
        traceError(lpszREText, lpszError);
        ClearTree();
    }
    return lpszError;
}

// ---- searching

// The first place up to the end at which a match may begin.
template <class T>
const T* reRegularExpress<T>::FindStart(const T* lpszFrom, const T* lpszTo) const {
    const rePlan* pPlan = this->m_pPlan;
    if (pPlan == NULL)
        return lpszFrom;
    if (pPlan->m_nStart >= 0) {
        const void* p = memchr(lpszFrom, pPlan->m_nStart, static_cast<size_t>(lpszTo - lpszFrom));
        return p != NULL ? static_cast<const T*>(p) : lpszTo;
    }
    while (lpszFrom < lpszTo && (pPlan->m_arrChar[charValue(*lpszFrom)] & rePlan::bitStart) == 0)
        ++lpszFrom;
    return lpszFrom;
}

// Places where no match can begin are passed over, and what nodes remember is kept from place to place: a node's answer
// depends on nothing but the place, unless there are back-references.
template <class T>
const T* reRegularExpress<T>::SearchREOnText(const T* lpszSrcText, const T* lpszSrcEnding) {
    if (lpszSrcText == NULL)
        return NULL;
    const T* lpszTo = lpszSrcEnding != NULL ? lpszSrcEnding : lpszSrcText + chStrlen(lpszSrcText);
    const bool bKeep = this->m_pPlan != NULL && !this->m_pPlan->m_bReference;
    const T* lpszFoundEnd = lpszSrcEnding != NULL ? NULL : lpszTo;
    ClearResult();
    const T* lpsz = FindStart(lpszSrcText, lpszTo);
    for (; lpsz < lpszTo; lpsz = FindStart(lpsz + 1, lpszTo)) {
        m_lpszFoundEnd = lpszFoundEnd;
        if (this->ApplyREOnText(lpsz, lpszTo) != NULL)
            break;
        if (!bKeep)
            ClearResult();
    }
    ClearResult();
    m_lpszFoundEnd = lpszFoundEnd;
    return this->ApplyREOnText(lpsz, lpszTo) != NULL ? lpsz : NULL;
}

// ---- captures

template <class T>
re_Base<T>* reRegularExpress<T>::GetCaptureRE(int n) {
    return n >= 1 && n <= m_arrCaptureREs.GetSize() ? m_arrCaptureREs[n - 1] : NULL;
}

template <class T>
void reRegularExpress<T>::AddCaptureRE(re_Base<T>* pRE) {
    if (pRE != NULL)
        pRE->m_uTraits |= traitCapture;
    m_arrCaptureREs.Add(pRE);
}

// ---- custom aliases

template <class T>
BOOL reRegularExpress<T>::AddCustomAlias(const T* lpszName, const T* lpszREText) {
    if (textEMPTY(lpszName) || lpszName[0] != '/' || lpszName[1] == 0 || lpszREText == NULL ||
        strnlen(lpszName, maxPatternLength + 1) > static_cast<size_t>(maxPatternLength) ||
        strnlen(lpszREText, maxPatternLength + 1) > static_cast<size_t>(maxPatternLength))
        return 0;
    chReferenceStringT<T>& strName = m_lstAliasText.alloc_push_back();
    strName = lpszName;
    chReferenceStringT<T>& strREText = m_lstAliasText.alloc_push_back();
    strREText = lpszREText;
    const chConstTextT<T> name(strName, -1);
    // In order of adding, not of names: the search goes backwards.
    for (auto it = m_mapCustomAlias.begin(); it != m_mapCustomAlias.end(); ++it) {
        if ((*it).key != name)
            continue;
        m_mapCustomAlias.erase(it);
        break;
    }
    auto& pair = m_mapCustomAlias.alloc_push_back();
    pair.key = name;
    pair.value = chConstTextT<T>(strREText, -1);
    return 1;
}

template <class T>
const T* reRegularExpress<T>::GetCustomAlias(const T* lpszText, int* pLen) {
    if (!QOR_ASSERT(lpszText != NULL))
        return NULL;
    for (auto it = m_mapCustomAlias.tail(); it != m_mapCustomAlias.end(); --it) {
        const chConstTextT<T>& name = (*it).key;
        if (name.IsEmpty() || strncmp(lpszText, name, static_cast<size_t>(name.GetLength())) != 0)
            continue;
        *pLen = name.GetLength();
        return (*it).value;
    }
    return NULL;
}

template class reRegularExpress<char>;

}  // namespace QOR_RegularExpressHelper
