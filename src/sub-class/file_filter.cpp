// File filters: wildcard patterns as regular expressions.
#include <string.h>

#include "qor/SubClass/FileFilter.h"

#include "internal/report.h"

namespace QOR_SubClass {

typedef QOR_StringHelper::chReferenceStringT<char> refString;

refString fileExpress2REText(const char* lpszExpress) {
    refString strRE;
    if (!QOR_ASSERT(lpszExpress != NULL))
        return strRE;
    for (; *lpszExpress != 0; ++lpszExpress) {
        if (*lpszExpress == '*')
            strRE += ".*";
        else if (*lpszExpress == '?')
            strRE += '.';
        else if (strchr(".$()+-[]^{}", *lpszExpress) != nullptr)
            (strRE += '\\') += *lpszExpress;
        else
            strRE += *lpszExpress;
    }
    return strRE;
}

chFileFilter::chFileFilter(const char* lpszFilter) {
    if (lpszFilter != nullptr)
        SetFilter(lpszFilter);
}

BOOL chFileFilter::SetFilter(const char* lpszFilter) {
    m_lstAccept.clear();
    m_lstDeny.clear();
    while (!QOR_StringHelper::textEMPTY(lpszFilter)) {
        const char* lpszEnd = strchrnul(lpszFilter, ';');
        if (lpszEnd != lpszFilter)
            AddPattern(refString(lpszFilter, static_cast<int>(lpszEnd - lpszFilter)));
        lpszFilter = *lpszEnd == ';' ? lpszEnd + 1 : lpszEnd;
    }
    return TRUE;
}

// An expression that was refused stays in its list and matches no name: without it, a filter that has only such
// patterns would accept every name.
void chFileFilter::AddPattern(const refString& strPattern) {
    const char* lpszPattern = strPattern;
    const bool bDeny = *lpszPattern == '-';
    if (bDeny || *lpszPattern == '+')
        ++lpszPattern;
    (bDeny ? m_lstDeny : m_lstAccept)
        .alloc_push_back()
        .BuildUntrustedExpress(fileExpress2REText(lpszPattern), QOR_RegularExpressHelper::flagIgnoreCase);
}

bool chFileFilter::IsMatched(listExpress& lst, const char* lpszFileName) {
    for (auto it = lst.begin(); it != lst.end(); ++it) {
        it->ClearResult();
        const char* lpszEnd = it->ApplyREOnText(lpszFileName, NULL);
        if (lpszEnd != nullptr && *lpszEnd == 0)
            return true;
    }
    return false;
}

BOOL chFileFilter::IsAcceptFileName(const char* lpszFileName) {
    return QOR_ASSERT(lpszFileName != NULL) && (m_lstAccept.empty() || IsMatched(m_lstAccept, lpszFileName));
}

BOOL chFileFilter::IsDenyFileName(const char* lpszFileName) {
    return QOR_ASSERT(lpszFileName != NULL) && IsMatched(m_lstDeny, lpszFileName);
}

}  // namespace QOR_SubClass
