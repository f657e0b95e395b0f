// The root: building, searching, captures and custom aliases.
#include <string.h>

#include "QORRegularExpress/build.h"
#include "QORRegularExpress/plan.h"
#include "internal/report.h"
#include "qor/TraceHelper/Trace.h"

using namespace QOR_StringHelper;

namespace QOR_RegularExpressHelper {

template <class T>
reRegularExpress<T>::reRegularExpress(const T* lpszREText, unsigned int nFlags) : m_lpszFoundEnd(NULL), m_pState(NULL) {
    this->m_uTraits |= traitExpress;
    this->m_nFlags = nFlags;
    if (lpszREText != NULL)
        lpszREText = BuildRegularExpress(lpszREText, nFlags);
    QOR_ASSERT(lpszREText == NULL);
}

template <class T>
reRegularExpress<T>::~reRegularExpress() {
    delete m_pState;
}

template <class T>
void reRegularExpress<T>::ClearResult() {
    m_lpszFoundEnd = NULL;
    if (m_pState == NULL || m_pState->m_arrNode == NULL) {
        re_Group<T>::ClearResult();
    } else {
        re_Base<T>::ClearResult();
        m_pState->clearNodes();
        m_pState->m_bClean = true;
    }
    if (m_pState != NULL)
        m_pState->clear();
}

// ---- building

template <class T>
void reRegularExpress<T>::ClearTree() {
    this->ClearChildRE();
    m_arrCaptureREs.RemoveAll();
    this->m_strREText.Clear();
    this->m_bNegative = 0;
    this->m_uTraits &= ~(traitOvershoot | traitUnplanned);
    delete m_pState;
    m_pState = NULL;
    ClearResult();
}

namespace {

void markOvershoot(node* pRE) {
    pRE->m_uTraits |= traitOvershoot;
    if ((pRE->m_uTraits & traitGroup) == 0)
        return;
    group* pGroup = static_cast<group*>(pRE);
    for (int i = 0; i < pGroup->GetChildRECount(); ++i)
        markOvershoot(pGroup->m_arrTargetREs[i]);
}

constexpr int hintLevel = 3;

// Explains what makes a pattern look as if it was meant in the usual dialect, or null. The compiler has noted most of
// it on its way, so that patterns without a hint pay nothing for it.
const char* dialectHint(const reRegularExpress<char>& express, const reBuild& build, const char* lpszREText) {
    if (build.m_lpszHint != NULL)
        return build.m_lpszHint;
    // A single negated element is of use here, and so are patterns that negate more than once.
    if (express.m_bNegative != 0 && build.m_nNegated == 1 && express.GetChildRECount() > 1)
        return "'^' negates the pattern; a match begins where it is asked for";
    const size_t nLength = strlen(lpszREText);
    if (nLength > 2 && (strncmp(lpszREText, "\\b", 2) == 0 ||
                        (strcmp(lpszREText + nLength - 2, "\\b") == 0 && lpszREText[nLength - 3] != '\\')))
        return "'\\b' is a backspace; there are no word boundaries";
    return NULL;
}

}  // namespace

// Returns the position of the error, or null.
template <class T>
const T* reRegularExpress<T>::Compile(const T* lpszREText) {
    const size_t nLength = strnlen(lpszREText, maxPatternLength + 1);
    if (nLength > static_cast<size_t>(maxPatternLength))
        return lpszREText + maxPatternLength;
    reBuild build(nLength);
    this->m_pBuild = &build;
    const T* lpsz = lpszREText;
    const int nResult = this->ParseAndREFromTextByEnding(lpsz, 0);
    this->m_pBuild = NULL;
    if (nResult != 1)
        return lpsz;
    if (build.m_nNegated > 0)
        markOvershoot(this);
    this->m_uTraits |= traitUnplanned;
    if (const char* lpszHint = dialectHint(*this, build, lpszREText))
        QOR_TraceHelper::qorTrace(hintLevel, "Express \"%s\": %s", lpszREText, lpszHint);
    return NULL;
}

void planUnplanned(reRegularExpress<char>& express) {
    express.m_uTraits &= ~traitUnplanned;
    QOR_ASSERT_TEXT(planTree(express), "pNew != NULL");
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

namespace {

// The first position up to the end at which a match can begin.
const char* findStart(const reState& state, const char* lpszFrom, const char* lpszTo) {
    if (state.m_nStart >= 0) {
        const void* p = memchr(lpszFrom, state.m_nStart, static_cast<size_t>(lpszTo - lpszFrom));
        return p != NULL ? static_cast<const char*>(p) : lpszTo;
    }
    while (lpszFrom < lpszTo && !state.m_arrStart[charValue(*lpszFrom)])
        ++lpszFrom;
    return lpszFrom;
}

// The next position to try after one that failed.
const char* passFailed(const reState& state, const char* lpsz, const char* lpszTo) {
    if (state.m_pLead == NULL)
        return lpsz + 1;
    const char* lpszFrom = lpsz;
    while (lpsz < lpszTo && (state.m_pLead->m_arrChar[charValue(*lpsz)] & rePlan::bitTakes) != 0)
        ++lpsz;
    return lpsz == lpszFrom || (state.m_bLeadEmpty && lpsz < lpszTo) ? lpsz + 1 : lpsz;
}

}  // namespace

// Positions at which no match can begin are skipped. After the first attempt, nodes keep their memory from position to
// position and, unless a back-reference reads results, set only the results that decide the match; the position that is
// found is then matched once more to set all of them.
template <class T>
const T* reRegularExpress<T>::SearchREOnText(const T* lpszSrcText, const T* lpszSrcEnding) {
    if (lpszSrcText == NULL)
        return NULL;
    const T* lpszTo = lpszSrcEnding != NULL ? lpszSrcEnding : lpszSrcText + chStrlen(lpszSrcText);
    const auto attempt = [&](const T* lpsz, bool bClear) {
        if (bClear)
            ClearResult();
        m_lpszFoundEnd = lpszSrcEnding != NULL ? NULL : lpszTo;
        return this->ApplyREOnText(lpsz, lpszTo) != NULL;
    };
    preparePlans(this);
    if (m_pState == NULL)
        return attempt(lpszSrcText, true) ? lpszSrcText : NULL;
    const T* lpsz = findStart(*m_pState, lpszSrcText, lpszTo);
    if (attempt(lpsz, true))
        return lpsz;
    m_pState->m_bSearching = !m_pState->m_bReference;
    bool bFound = false;
    while (lpsz < lpszTo && !bFound) {
        lpsz = findStart(*m_pState, passFailed(*m_pState, lpsz, lpszTo), lpszTo);
        bFound = attempt(lpsz, m_pState->m_bReference);
    }
    m_pState->m_bSearching = false;
    return attempt(lpsz, true) ? lpsz : NULL;
}

// ---- captures

template <class T>
re_Base<T>* reRegularExpress<T>::GetCaptureRE(int n) {
    return n >= 1 && n <= m_arrCaptureREs.GetSize() ? m_arrCaptureREs.GetBuffer()[n - 1] : NULL;
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
    // In order of addition, not of names: the search goes backwards.
    for (auto it = m_mapCustomAlias.begin(); it != m_mapCustomAlias.end(); ++it) {
        if ((*it).key != name)
            continue;
        const T* const arrOld[] = {(*it).key, (*it).value};
        m_mapCustomAlias.erase(it);
        for (const T* lpszOld : arrOld)
            m_lstAliasText.erase(m_lstAliasText.find_if(
                [lpszOld](const chReferenceStringT<T>& str) { return static_cast<const T*>(str) == lpszOld; }));
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
