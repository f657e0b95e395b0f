// Words, tokens and phrases.
//
// Invariant: a text pointer never advances past the NUL.
#include "qor/StringHelper/Token.h"

#include "internal/report.h"

namespace QOR_StringHelper {

namespace {

constexpr int maxToken = 32;  // entries of the token table, the null at its end included

template <class T>
const T* skipWhiteSpace(const T* lpszText) {
    while (chIsWhiteSpace(*lpszText))
        lpszText = chStrinc(lpszText);
    return lpszText;
}

// A text without trailing white space.
template <class T>
chConstTextT<T> trimEnd(const T* lpszBegin, const T* lpszEnd) {
    while (lpszEnd > lpszBegin && chIsWhiteSpace(lpszEnd[-1]))
        --lpszEnd;
    return chConstTextT<T>(lpszBegin, static_cast<int>(lpszEnd - lpszBegin));
}

template <class T>
int textBreak(const T* lpszText, T chBreak, chConstTextT<T>* arrPart, int nMaxPart) {
    if (!QOR_ASSERT(lpszText != NULL))
        return 0;
    for (int nCount = 0;; ++lpszText) {
        const T* lpszBegin = lpszText;
        while (*lpszText != 0 && *lpszText != chBreak)
            lpszText = chStrinc(lpszText);
        if (nCount < nMaxPart)
            arrPart[nCount] = chConstTextT<T>(lpszBegin, static_cast<int>(lpszText - lpszBegin));
        ++nCount;
        if (*lpszText == 0)
            return nCount;
    }
}

template <class T>
int getWords(const T* lpszText, chConstTextT<T>* arrWord, int nMaxWord) {
    if (!QOR_ASSERT(lpszText != NULL))
        return 0;
    int nCount = 0;
    for (lpszText = skipWhiteSpace(lpszText); *lpszText != 0; lpszText = skipWhiteSpace(lpszText)) {
        const T* lpszBegin = lpszText;
        while (*lpszText != 0 && !chIsWhiteSpace(*lpszText))
            lpszText = chStrinc(lpszText);
        if (nCount < nMaxWord)
            arrWord[nCount] = chConstTextT<T>(lpszBegin, static_cast<int>(lpszText - lpszBegin));
        ++nCount;
    }
    return nCount;
}

template <class T>
int initTokenLength(const T* const* arrToken, int* arrTokenLen) {
    int nTokenCount = 0;
    for (; !textEMPTY(arrToken[nTokenCount]); ++nTokenCount)
        arrTokenLen[nTokenCount] = chStrlen(arrToken[nTokenCount]);
    return nTokenCount;
}

template <class T>
int matchedToken(const T* lpszText, const T* const* arrToken, const int* arrTokenLen) {
    for (int i = 0; !textEMPTY(arrToken[i]); ++i)
        if (uCTextHelper<T, true>::chStrncmp(lpszText, arrToken[i], arrTokenLen[i]) == 0)
            return i;
    return -1;
}

template <class T>
int findTokens(const T*& lpszText, const T* const* arrToken, const int* arrTokenLen) {
    if (!QOR_ASSERT(lpszText != NULL))
        return -1;
    for (const T* lpsz = lpszText; *lpsz != 0; lpsz = chStrinc(lpsz)) {
        const int iToken = matchedToken(lpsz, arrToken, arrTokenLen);
        if (iToken < 0)
            continue;
        lpszText = lpsz;
        return iToken;
    }
    return -1;
}

// The tokens that were passed as arguments.
template <class T>
struct tokenTable {
    const T* arrToken[maxToken];
    int arrTokenLen[maxToken];

    // Whether they fit, together with the null at the end.
    bool collect(const T* lpszToken, va_list args) {
        int nTokenCount = 0;
        for (; nTokenCount < maxToken && !textEMPTY(lpszToken); lpszToken = va_arg(args, const T*))
            arrToken[nTokenCount++] = lpszToken;
        if (!QOR_ASSERT_TEXT(nTokenCount < maxToken, "nTokenCount < chLENOF(arrTokenLen)"))
            return false;
        arrToken[nTokenCount] = NULL;
        initTokenLength<T>(arrToken, arrTokenLen);
        return true;
    }
};

template <class T>
int findByArguments(const T*& lpszText, const T* lpszToken, va_list args) {
    if (!QOR_ASSERT(lpszText != NULL && !textEMPTY(lpszToken)) || *lpszText == 0)
        return -1;
    tokenTable<T> table;
    return table.collect(lpszToken, args) ? findTokens<T>(lpszText, table.arrToken, table.arrTokenLen) : -1;
}

template <class T>
chConstTextT<T> getPhrase(const T* lpszText) {
    if (!QOR_ASSERT(lpszText != NULL))
        return chConstTextT<T>();
    lpszText = skipWhiteSpace(lpszText);
    return trimEnd(lpszText, lpszText + chStrlen(lpszText));
}

// What can end a phrase. find() returns the index of the one that begins at a place, or -1.

template <class T>
struct oneCharStop {
    T m_ch;

    int find(const T* lpsz) const { return *lpsz == m_ch ? 0 : -1; }
    int lengthOf(int) const { return 1; }
    int count() const { return 1; }
};

template <class T>
struct charStop {
    const T* m_lpszSet;
    int m_nCount;

    int find(const T* lpsz) const {
        int i = 0;
        while (i < m_nCount && m_lpszSet[i] != *lpsz)
            ++i;
        return i < m_nCount ? i : -1;
    }
    int lengthOf(int) const { return 1; }
    int count() const { return m_nCount; }
};

template <class T>
struct stringStop {
    const T* const* m_arrToken;
    const int* m_arrTokenLen;

    int find(const T* lpsz) const { return matchedToken(lpsz, m_arrToken, m_arrTokenLen); }
    int lengthOf(int iToken) const { return m_arrTokenLen[iToken]; }
    int count() const {
        int nCount = 0;
        while (!textEMPTY(m_arrToken[nCount]))
            ++nCount;
        return nCount;
    }
};

template <class T, class P, class stop>
int peekPhrase(const T*& lpszText, P& phrase, const stop& vStop) {
    lpszText = skipWhiteSpace(lpszText);
    if (*lpszText == 0)
        return -1;
    const T* lpszStop = lpszText;
    int iToken = -1;
    while (*lpszStop != 0 && (iToken = vStop.find(lpszStop)) < 0)
        lpszStop = chStrinc(lpszStop);
    phrase = trimEnd(lpszText, lpszStop);
    lpszText = iToken < 0 ? lpszStop : lpszStop + vStop.lengthOf(iToken);
    return iToken < 0 ? vStop.count() : iToken;
}

template <class T, class P>
int peekByChar(const T*& lpszText, P& phrase, T ch) {
    if (!QOR_ASSERT(lpszText != NULL))
        return -1;
    return peekPhrase(lpszText, phrase, oneCharStop<T>{ch});
}

template <class T, class P>
int peekByChars(const T*& lpszText, P& phrase, const T* lpszTokens) {
    if (!QOR_ASSERT(lpszText != NULL) || !QOR_ASSERT(lpszTokens != NULL))
        return -1;
    return peekPhrase(lpszText, phrase, charStop<T>{lpszTokens, chStrlen(lpszTokens)});
}

template <class T, class P>
int peekByTable(const T*& lpszText, P& phrase, const T* const* arrToken, const int* arrTokenLen) {
    if (!QOR_ASSERT(lpszText != NULL))
        return -1;
    return peekPhrase(lpszText, phrase, stringStop<T>{arrToken, arrTokenLen});
}

template <class T, class P>
int peekByArguments(const T*& lpszText, P& phrase, const T* lpszToken, va_list args) {
    if (!QOR_ASSERT(lpszText != NULL && !textEMPTY(lpszToken)))
        return -1;
    tokenTable<T> table;
    return table.collect(lpszToken, args) ? peekByTable(lpszText, phrase, table.arrToken, table.arrTokenLen) : -1;
}

}  // namespace

// ---- the exported functions, in both widths

#define QOR_TOKEN_FUNCTIONS(T)                                                                    \
    int qorTextBreak(const T* lpszText, T chBreak, chConstTextT<T>* arrPart, int nMaxPart) {      \
        return textBreak(lpszText, chBreak, arrPart, nMaxPart);                                   \
    }                                                                                             \
    int qorGetWords(const T* lpszText, chConstTextT<T>* arrWord, int nMaxWord) {                  \
        return getWords(lpszText, arrWord, nMaxWord);                                             \
    }                                                                                             \
    int qorInitTokenLength(const T* const* arrToken, int* arrTokenLen) {                          \
        return initTokenLength(arrToken, arrTokenLen);                                            \
    }                                                                                             \
    int qorGetMatchedToken(const T* lpszText, const T* const* arrToken, const int* arrTokenLen) { \
        return matchedToken(lpszText, arrToken, arrTokenLen);                                     \
    }                                                                                             \
    int qorFindTokens(const T*& lpszText, const T* const* arrToken, const int* arrTokenLen) {     \
        return findTokens(lpszText, arrToken, arrTokenLen);                                       \
    }                                                                                             \
    int qorFindTokens(const T*& lpszText, const T* lpszToken, ...) {                              \
        va_list args;                                                                             \
        va_start(args, lpszToken);                                                                \
        const int iToken = findByArguments(lpszText, lpszToken, args);                            \
        va_end(args);                                                                             \
        return iToken;                                                                            \
    }                                                                                             \
    chConstTextT<T> qorGetPhraseString(const T* lpszText) { return getPhrase(lpszText); }

#define QOR_PHRASE_FUNCTIONS(T, phraseText)                                                               \
    int qorPeekPhraseByCharToken(const T*& lpszText, phraseText<T>& phrase, T ch) {                       \
        return peekByChar(lpszText, phrase, ch);                                                          \
    }                                                                                                     \
    int qorPeekPhraseByCharTokens(const T*& lpszText, phraseText<T>& phrase, const T* lpszTokens) {       \
        return peekByChars(lpszText, phrase, lpszTokens);                                                 \
    }                                                                                                     \
    int qorPeekPhraseByStringTokens(const T*& lpszText, phraseText<T>& phrase, const T* const* arrToken,  \
                                    const int* arrTokenLen) {                                             \
        return peekByTable(lpszText, phrase, arrToken, arrTokenLen);                                      \
    }                                                                                                     \
    int qorPeekPhraseByStringTokens(const T*& lpszText, phraseText<T>& phrase, const T* lpszToken, ...) { \
        va_list args;                                                                                     \
        va_start(args, lpszToken);                                                                        \
        const int iToken = peekByArguments(lpszText, phrase, lpszToken, args);                            \
        va_end(args);                                                                                     \
        return iToken;                                                                                    \
    }

QOR_TOKEN_FUNCTIONS(char)
QOR_TOKEN_FUNCTIONS(unsigned short)
QOR_PHRASE_FUNCTIONS(char, chConstTextT)
QOR_PHRASE_FUNCTIONS(char, chReferenceStringT)
QOR_PHRASE_FUNCTIONS(unsigned short, chConstTextT)
QOR_PHRASE_FUNCTIONS(unsigned short, chReferenceStringT)

}  // namespace QOR_StringHelper
