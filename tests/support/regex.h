// Helpers of the tests of regular expressions.
#ifndef QOR_TESTS_SUPPORT_REGEX_H
#define QOR_TESTS_SUPPORT_REGEX_H

#include <string>

#include "qor/RegularExpressHelper.h"

namespace qorTest {

typedef QOR_RegularExpressHelper::re_Base<char> regexNode;
typedef QOR_RegularExpressHelper::re_Group<char> regexGroup;
typedef QOR_RegularExpressHelper::reRegularExpress<char> regexTree;

// The length of the match at the beginning of a text; -1: none.
inline long lengthAt(regexTree& express, const char* lpszText, const char* lpszEnding = NULL) {
    express.ClearResult();
    const char* lpszEnd = express.ApplyREOnText(lpszText, lpszEnding);
    return lpszEnd != NULL ? static_cast<long>(lpszEnd - lpszText) : -1;
}
inline long matchLength(const char* lpszPattern, const char* lpszText, unsigned nFlags = 0) {
    regexTree express(lpszPattern, nFlags);
    return lengthAt(express, lpszText);
}
// With a given end, so that the text may contain NULs.
inline long matchLength(const char* lpszPattern, const std::string& strText) {
    regexTree express(lpszPattern, 0);
    return lengthAt(express, strText.c_str(), strText.c_str() + strText.size());
}

// The index of a pattern's error; -1: none.
inline long errorAt(regexTree& express, const std::string& strPattern) {
    const char* lpszError = express.BuildRegularExpress(strPattern.c_str(), 0);
    return lpszError != NULL ? static_cast<long>(lpszError - strPattern.c_str()) : -1;
}
inline long errorAt(const std::string& strPattern) {
    regexTree express;
    return errorAt(express, strPattern);
}

// What a node matched; "ERROR": nothing.
inline std::string resultOf(const regexNode* p) {
    return p->m_lpszResultEnd != NULL ? std::string(p->m_lpszResultBegin, p->m_lpszResultEnd) : "ERROR";
}
// What the n-th group captures when the pattern is applied at the beginning of the text.
inline std::string captureOf(const char* lpszPattern, const char* lpszText, int n) {
    regexTree express(lpszPattern, 0);
    express.ApplyREOnText(lpszText, NULL);
    return resultOf(express.GetCaptureRE(n));
}

}  // namespace qorTest

#endif
