// Regular expressions: an input is a byte of options, a pattern up to a NUL, and a text. Any pattern compiles or has an
// error inside it; short ones must give the same results as the second matcher in every node.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "qor/TraceHelper.h"
#include "support/reference_compare.h"

using namespace QOR_RegularExpressHelper;
using qorTest::referenceCompare;

namespace {

constexpr size_t maxPattern = 160;  // too short to nest too deep
constexpr size_t maxText = 200;

void check(bool bGood, const std::string& strWhat) {
    if (bGood)
        return;
    fprintf(stderr, "%s\n", strWhat.c_str());
    abort();
}

void addAliases(referenceCompare& compare) {
    compare.addAlias("/x", "[ab]");
    compare.addAlias("/xy", "(a|b)c?");
    compare.addAlias("/neg", "^/x\\d");
}

// Matching any pattern is bounded; patterns with back-references are left out, since they may have to abort.
void tryAny(const std::string& strPattern, const std::string& strText, unsigned nFlags) {
    reRegularExpress<char> express;
    express.AddCustomAlias("/me", "(a/me)");
    const char* lpszError = express.BuildRegularExpress(strPattern.c_str(), nFlags);
    check(lpszError == NULL || (lpszError >= strPattern.c_str() && lpszError <= strPattern.c_str() + strPattern.size()),
          "an error outside the pattern");
    if (lpszError != NULL || strPattern.find('\\') != std::string::npos)
        return;
    const char* lpszEnd = strText.c_str() + strlen(strText.c_str());
    const char* lpszMatch = express.ApplyREOnText(strText.c_str(), NULL);
    check(lpszMatch == NULL || (lpszMatch >= strText.c_str() && lpszMatch <= lpszEnd + 1), "a match outside the text");
    const char* lpszFound = express.SearchREOnText(strText.c_str(), NULL);
    check(lpszFound == NULL || (lpszFound >= strText.c_str() && lpszFound <= lpszEnd), "found outside the text");
    check((lpszFound == strText.c_str()) == (lpszMatch != NULL), "another match when searching");
    express.TraceResult();
}

void compareBoth(const std::string& strPattern, const std::string& strText, bool bIgnoreCase, bool bGivenEnd) {
    referenceCompare compare;
    addAliases(compare);
    if (compare.build(strPattern, bIgnoreCase)) {
        for (long n = 0; n <= 3 && n <= static_cast<long>(strText.size()); ++n)
            compare.apply(strText, n, bGivenEnd);
        compare.clear();
        compare.search(strText, bGivenEnd);
    }
    check(compare.difference().empty(), compare.difference());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    if (nSize == 0)
        return 0;
    const unsigned nOptions = pData[0];
    const std::string strRest(reinterpret_cast<const char*>(pData) + 1, nSize - 1);
    const size_t nNul = strRest.find('\0');
    const std::string strPattern = strRest.substr(0, nNul);
    std::string strText = nNul != std::string::npos ? strRest.substr(nNul + 1, maxText) : "";
    tryAny(strPattern, strText, nOptions);
    const bool bGivenEnd = (nOptions & 2) != 0;
    if (!bGivenEnd)
        strText = strText.c_str();
    if (strPattern.size() <= maxPattern)
        compareBoth(strPattern, strText, (nOptions & 1) != 0, bGivenEnd);
    return 0;
}
