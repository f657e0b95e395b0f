// The compiler: one function for each thing that a pattern consists of. Each returns 1 when the text stood at such a
// thing, and moves the text past it; 0 when it did not, and leaves the text; -1 at an error, and moves the text to it.
//
// Nesting is bounded by maxDepth, and so is the stack. Nodes inside a node that fails are deleted with it, but a group
// that failed may remain among the captures until the whole build is given up.
#include <string.h>

#include "QORRegularExpress/build.h"
#include "QORRegularExpress/plan.h"
#include "internal/arena_array.h"
#include "internal/byte_string.h"
#include "internal/report.h"
#include "qor/TraceHelper/Trace.h"

using QOR_FileHelper::allocString;
using QOR_FileHelper::refString;

namespace QOR_RegularExpressHelper {

namespace {

constexpr int firstLetters = 8;  // most texts have no more

// Groups know their build; leaves have that of their parent.
reBuild* buildOf(const node* pRE) {
    const node* const pGroup = (pRE->m_uTraits & traitGroup) != 0 ? pRE : pRE->m_pParentRE;
    return pGroup != NULL ? static_cast<const group*>(pGroup)->m_pBuild : NULL;
}

// The memory of a node's source text, of which the caller stores nLength characters.
char* sourceBuffer(node* pRE, int nLength) {
    if (pRE->m_strREText.getStringData() != NULL)
        pRE->m_strREText = refString();
    QOR_AllocHelper::arena none(false);
    reBuild* const pBuild = buildOf(pRE);
    return allocString(pRE->m_strREText, pBuild != NULL ? pBuild->m_memory : none, nLength);
}

void setSource(node* pRE, const char* lpszFrom, const char* lpszTo) {
    const size_t nLength = static_cast<size_t>(lpszTo - lpszFrom);
    memcpy(sourceBuffer(pRE, static_cast<int>(nLength)), lpszFrom, nLength);
}

// The same in parentheses.
void setSequenceSource(node* pRE, const char* lpszFrom, const char* lpszTo) {
    const size_t nLength = static_cast<size_t>(lpszTo - lpszFrom);
    char* const lpsz = sourceBuffer(pRE, static_cast<int>(nLength) + 2);
    lpsz[0] = '(';
    memcpy(lpsz + 1, lpszFrom, nLength);
    lpsz[nLength + 1] = ')';
}

// Whether the limits allow one more element, and the level inside it.
bool mayAdd(const reBuild* pBuild, const node* pParentRE) {
    if (pBuild == NULL)
        return pParentRE->GetGradeLevel() < maxDepth;
    return pBuild->m_nNodes < maxNodeCount && pBuild->nextDepth() <= maxDepth;
}

// Notes a complete element, with the depth of the level inside it.
void noteElement(reBuild* pBuild, const node* pRE, int nDepth) {
    if (pBuild != NULL && looksAhead(pRE) && pBuild->m_nLook < nDepth)
        pBuild->m_nLook = nDepth;
}

// Notes what looks like the usual dialect in the pattern itself; those of aliases are not looked at.
void noteDialect(const group* pGroup, const char* lpszHint) {
    reBuild* pBuild = pGroup->m_pBuild;
    if (pBuild != NULL && pGroup->m_bNoCapture == 0 && pBuild->m_lpszHint == NULL)
        pBuild->m_lpszHint = lpszHint;
}

// Reads the rest of "{...}" after its brace.
int readTimes(const char*& lpszREText, node* pRE) {
    int nMin = 0;
    const char* lpsz = reGetDigitValue(lpszREText, nMin, 10);
    if (nMin < 0)
        return -1;
    int nMax = nMin;
    if (*lpsz == ',') {
        const char* lpszMax = lpsz + 1;
        const char* lpszAfter = reGetDigitValue(lpszMax, nMax, 10);
        const bool bGiven = lpszAfter != NULL;
        lpsz = bGiven ? lpszAfter : lpszMax;
        if (*lpsz == '}' && bGiven && nMax < nMin)
            lpsz = lpszMax;
    }
    lpszREText = lpsz;
    if (*lpsz != '}')
        return -1;
    ++lpszREText;
    pRE->m_nMinTimes = nMin;
    pRE->m_nMaxTimes = nMax;
    return 1;
}

}  // namespace

void traceError(const char* lpszREText, const char* lpszError) {
    const QOR_StringHelper::chReferenceStringT<char> strBlank(' ', static_cast<int>(lpszError - lpszREText));
    // What exceeds the longest pattern is not shown, so that the lines fit every trace target.
    const QOR_StringHelper::chReferenceStringT<char> strPattern(
        lpszREText, static_cast<int>(strnlen(lpszREText, maxPatternLength + 1)));
    const int nMark = strPattern.GetLength() - strBlank.GetLength() - 1;
    const QOR_StringHelper::chReferenceStringT<char> strMark('-', nMark);
    QOR_TraceHelper::qorTrace(2, "Express \"%s\"", static_cast<const char*>(strPattern));
    QOR_TraceHelper::qorTrace(2, "Error   \"%s^%s\"", static_cast<const char*>(strBlank),
                              static_cast<const char*>(strMark));
}

// ---- quantifiers

template <class T>
int re_Base<T>::PeekRepeatFromText(const T*& lpszREText) {
    switch (*lpszREText) {
        case '*':
            m_nMinTimes = 0;
            m_nMaxTimes = -1;
            break;
        case '+':
            m_nMinTimes = 1;
            m_nMaxTimes = -1;
            break;
        case '?':
            m_nMinTimes = 0;
            m_nMaxTimes = 1;
            break;
        case '{':
            break;
        default:
            return 1;
    }
    const bool bTimes = *lpszREText == '{';
    ++lpszREText;
    if (bTimes && readTimes(lpszREText, this) < 0)
        return -1;
    m_chRepeatMode = m_nMinTimes == m_nMaxTimes ? '-' : ' ';
    if (*lpszREText == '+' || *lpszREText == '?')
        m_chRepeatMode = *lpszREText++;
    return 1;
}

// ---- leaves

template <class T>
int re_Text<T>::tryParseREFromText(const T*& lpszREText) {
    reBuild* const pBuild = buildOf(this);
    const T* lpsz = lpszREText;
    for (;;) {
        const T* lpszPlain = lpsz;
        while (isPlain(*lpsz))
            ++lpsz;
        // A literal before '-' begins a range.
        if (*lpsz == '-' && lpsz > lpszPlain)
            --lpsz;
        const int nPlain = static_cast<int>(lpsz - lpszPlain);
        if (pBuild != NULL)
            giveBlock(m_arrText, pBuild->m_memory, nPlain > firstLetters ? nPlain : firstLetters);
        m_arrText.Append(lpszPlain, nPlain);
        int nValue = 0;
        const T* lpszNext = reGetAscii(this, lpsz, nValue);
        if (lpszNext == NULL || *lpszNext == '-')
            break;
        m_arrText.Add(static_cast<T>(nValue));
        lpsz = lpszNext;
    }
    if (m_arrText.IsEmpty())
        return 0;
    setSource(this, lpszREText, lpsz);
    lpszREText = lpsz;
    return this->PeekRepeatFromText(lpszREText);
}

template <class T>
int re_Range<T>::tryParseREFromText(const T*& lpszREText) {
    int nLow = 0, nHigh = 0;
    const T* lpsz = reGetAscii(this, lpszREText, nLow);
    if (lpsz == NULL || *lpsz != '-')
        return 0;
    lpsz = reGetAscii(this, lpsz + 1, nHigh);
    if (lpsz == NULL)
        return 0;
    m_chLow = static_cast<uint32_t>(nLow);
    m_chHigh = static_cast<uint32_t>(nHigh);
    if (m_chLow > m_chHigh) {
        m_chLow = static_cast<uint32_t>(nHigh);
        m_chHigh = static_cast<uint32_t>(nLow);
    }
    setSource(this, lpszREText, lpsz);
    lpszREText = lpsz;
    return 1;
}

template <class T>
int re_Reference<T>::tryParseREFromText(const T*& lpszREText) {
    reRegularExpress<T>* pExpress = expressOf(this);
    if (*lpszREText != '\\' || pExpress == NULL)
        return 0;
    int nValue = 0;
    const T* lpsz = reGetDigitValue(lpszREText + 1, nValue, 10);
    m_pRefRE = lpsz != NULL ? pExpress->GetCaptureRE(nValue) : NULL;
    if (m_pRefRE == NULL)
        return 0;
    setSource(this, lpszREText, lpsz);
    lpszREText = lpsz;
    return this->PeekRepeatFromText(lpszREText);
}

// The first literal decides which kind of leaf it can be, so that no node is made in vain.
template <class T>
int re_Group<T>::ParseLeaf(const T*& lpszREText, bool bSet) {
    if (lpszREText[0] == '\\' && lpszREText[1] >= '0' && lpszREText[1] <= '9') {
        const int nResult = bSet ? ParseNode<re_RelationCase<re_Reference<T>, T>>(lpszREText)
                                 : ParseNode<re_RelationAnd<re_Reference<T>, T>>(lpszREText);
        if (nResult != 0)
            return nResult;
    }
    int nValue = 0;
    const T* lpsz = reGetAscii(this, lpszREText, nValue);
    if (lpsz == NULL)
        return 0;
    if (*lpsz == '-')
        return bSet ? ParseNode<re_RelationCase<re_Range<T>, T>>(lpszREText) : 0;
    if (bSet)
        return ParseNode<re_RelationCase<re_Text<T>, T>>(lpszREText);
    const T* lpszFrom = lpszREText;
    const int nResult = ParseNode<re_RelationAnd<re_Text<T>, T>>(lpszREText);
    if (memchr(lpszFrom, '|', static_cast<size_t>(lpszREText - lpszFrom)) != NULL)
        noteDialect(this, "'|' is a plain character; alternatives are a set of groups, [(one)(other)]");
    return nResult;
}

template <class T>
template <class X>
int re_Group<T>::ParseNode(const T*& lpszREText) {
    const T* lpszFrom = lpszREText;
    X* pNew = newNode<X>(m_pBuild);
    if (!QOR_ASSERT(pNew != NULL))
        return -1;
    AddChildRE(pNew);
    int nResult = pNew->tryParseREFromText(lpszREText);
    if (nResult == 1 && !mayAdd(m_pBuild, this)) {
        lpszREText = lpszFrom;
        nResult = -1;
    }
    if (nResult != 1) {
        RemoveLastChild();
        return nResult;
    }
    if (m_pBuild != NULL) {
        ++m_pBuild->m_nNodes;
        noteElement(m_pBuild, pNew, m_pBuild->nextDepth());
    }
    return 1;
}

// ---- groups

template <class T>
int re_Group<T>::ParseElements(const T*& lpszREText, bool bSet) {
    const int nLookBefore = m_pBuild != NULL ? m_pBuild->m_nLook : 0;
    int nLookMost = nLookBefore;
    for (;;) {
        // The alternatives of a set do not follow one another.
        if (m_pBuild != NULL && bSet)
            m_pBuild->m_nLook = nLookBefore;
        int nResult = tryParseGroupREFromText(lpszREText);
        if (nResult == 0)
            nResult = ParseLeaf(lpszREText, bSet);
        if (m_pBuild != NULL && nLookMost < m_pBuild->m_nLook)
            nLookMost = m_pBuild->m_nLook;
        if (nResult == 1)
            continue;
        if (m_pBuild != NULL)
            m_pBuild->m_nLook = nLookMost;
        return nResult;
    }
}

template <class T>
int re_Group<T>::ParseSequence(const T*& lpszREText, T chEnding) {
    if (*lpszREText == '^') {
        this->m_bNegative = 1;
        ++lpszREText;
        if (m_pBuild != NULL)
            ++m_pBuild->m_nNegated;
    }
    return ParseElements(lpszREText, false) < 0 || *lpszREText != chEnding ? -1 : 1;
}

template <class T>
int re_Group<T>::ParseAndREFromTextByEnding(const T*& lpszREText, T chEnding) {
    const T* lpszFrom = lpszREText;
    if (ParseSequence(lpszREText, chEnding) < 0)
        return -1;
    setSequenceSource(this, lpszFrom, lpszREText);
    if (chEnding != ')')
        return 1;
    ++lpszREText;
    return this->PeekRepeatFromText(lpszREText);
}

template <class T>
int re_Group<T>::ParseSet(const T*& lpszREText) {
    const T* lpszFrom = lpszREText++;
    if (*lpszREText == '^') {
        this->m_bNegative = 1;
        ++lpszREText;
    }
    if (ParseElements(lpszREText, true) < 0 || *lpszREText != ']')
        return -1;
    ++lpszREText;
    setSource(this, lpszFrom, lpszREText);
    const bool bMember = this->m_pParentRE != NULL && (this->m_pParentRE->m_uTraits & traitSet) != 0;
    if (bMember && lpszREText - lpszFrom > 4 && lpszFrom[1] == ':' && lpszREText[-2] == ':')
        noteDialect(this, "a set has no named classes; digits are '\\d', white space '\\s', letters [a-zA-Z]");
    return this->PeekRepeatFromText(lpszREText);
}

template <class T>
int re_Group<T>::tryParseREFromText(const T*& lpszREText) {
    const bool bSet = (this->m_uTraits & traitSet) != 0;
    if (*lpszREText != (bSet ? '[' : '('))
        return 0;
    if (bSet)
        return ParseSet(lpszREText);
    ++lpszREText;
    if (lpszREText[0] == '?' && lpszREText[1] == ':') {
        lpszREText += 2;
    } else if (reRegularExpress<T>* pExpress = m_bNoCapture == 0 ? expressOf(this) : NULL) {
        pExpress->AddCaptureRE(this);
    }
    return ParseAndREFromTextByEnding(lpszREText, ')');
}

// Compiles a new group. m_nDepth is already that of its elements.
template <class T>
template <class X>
int re_Group<T>::ParseChild(const T*& lpszREText) {
    X* pNew = newNode<X>(m_pBuild);
    if (!QOR_ASSERT(pNew != NULL))
        return -1;
    pNew->m_bNoCapture = m_bNoCapture;
    pNew->m_pBuild = m_pBuild;
    AddChildRE(pNew);
    const int nResult = pNew->tryParseREFromText(lpszREText);
    pNew->m_pBuild = NULL;
    if (nResult != 1)
        RemoveLastChild();
    return nResult;
}

template <class T>
int re_Group<T>::ParseAlias(const T*& lpszREText, const T* lpszAlias, int nLength) {
    re_RelationAnd<re_Group<T>, T>* pNew = newNode<re_RelationAnd<re_Group<T>, T>>(m_pBuild);
    if (!QOR_ASSERT(pNew != NULL))
        return -1;
    pNew->m_bNoCapture = 1;
    pNew->m_pBuild = m_pBuild;
    AddChildRE(pNew);
    const T* lpsz = lpszAlias;
    const int nResult = pNew->ParseSequence(lpsz, 0);
    pNew->m_pBuild = NULL;
    if (nResult < 0) {
        traceError(lpszAlias, lpsz);
        RemoveLastChild();
        return -1;
    }
    setSource(pNew, lpszREText, lpszREText + nLength);
    lpszREText += nLength;
    if (pNew->PeekRepeatFromText(lpszREText) == 1)
        return 1;
    RemoveLastChild();
    return -1;
}

template <class T>
int re_Group<T>::tryParseGroupREFromText(const T*& lpszREText) {
    if (isPlain(*lpszREText))
        return 0;
    int nLength = 0;
    const bool bBracket = *lpszREText == '(' || *lpszREText == '[';
    const T* lpszAlias = bBracket ? NULL : reGetAlias(this, lpszREText, &nLength);
    if (!bBracket && lpszAlias == NULL)
        return 0;
    reBuild objNone(0);
    reBuild* pBuild = m_pBuild != NULL ? m_pBuild : &objNone;
    if (!mayAdd(m_pBuild, this) || (lpszAlias != NULL && !pBuild->takeAlias(lpszAlias)))
        return -1;
    if (*lpszREText == '.' && (this->m_uTraits & traitSet) != 0)
        noteDialect(this, "'.' is any character, in a set, too; a point is '\\.'");
    const int nDepthBefore = pBuild->m_nDepth;
    pBuild->m_nDepth = pBuild->nextDepth();
    const int nDepth = pBuild->m_nDepth;
    ++pBuild->m_nNodes;
    int nResult = 0;
    if (lpszAlias != NULL)
        nResult = ParseAlias(lpszREText, lpszAlias, nLength);
    else if (*lpszREText == '(')
        nResult = ParseChild<re_RelationAnd<re_Group<T>, T>>(lpszREText);
    else
        nResult = ParseChild<re_RelationCase<re_Group<T>, T>>(lpszREText);
    pBuild->m_nDepth = nDepthBefore;
    if (nResult == 1)
        noteElement(m_pBuild, m_arrTargetREs[m_arrTargetREs.GetSize() - 1], nDepth);
    return nResult;
}

template int re_Base<char>::PeekRepeatFromText(const char*&);
template int re_Text<char>::tryParseREFromText(const char*&);
template int re_Range<char>::tryParseREFromText(const char*&);
template int re_Reference<char>::tryParseREFromText(const char*&);
template int re_Group<char>::tryParseREFromText(const char*&);
template int re_Group<char>::ParseAndREFromTextByEnding(const char*&, char);
template int re_Group<char>::tryParseGroupREFromText(const char*&);
template int re_Group<char>::ParseElements(const char*&, bool);
template int re_Group<char>::ParseSet(const char*&);
template int re_Group<char>::ParseSequence(const char*&, char);
template int re_Group<char>::ParseLeaf(const char*&, bool);
template int re_Group<char>::ParseAlias(const char*&, const char*, int);

}  // namespace QOR_RegularExpressHelper
