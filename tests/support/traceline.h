// Traced lines without what differs from run to run.
#ifndef QOR_TESTS_SUPPORT_TRACELINE_H
#define QOR_TESTS_SUPPORT_TRACELINE_H

#include <algorithm>
#include <string>

namespace qorTest {

// Where the text after the prefix "[author+dddd:0xhhhh] dddddddd.ddd " begins, or npos.
inline size_t traceTextAt(const std::string& strLine, const std::string& strAuthor) {
    static const char szDigits[] = "0123456789";
    size_t nAt = 0;
    const auto skip = [&](const std::string& strText) {
        const bool bThere = strLine.compare(nAt, strText.size(), strText) == 0;
        nAt += strText.size();
        return bThere;
    };
    const auto skipAny = [&](const char* lpszSet, size_t nLeast) {
        const size_t nFrom = nAt;
        nAt = std::min(strLine.find_first_not_of(lpszSet, nAt), strLine.size());
        return nAt - nFrom >= nLeast;
    };
    const bool bPrefix = skip("[" + strAuthor + "+") && skipAny(szDigits, 4) && skip(":0x") &&
                         skipAny("0123456789abcdef", 4) && skip("] ") && skipAny(szDigits, 8) && skip(".") &&
                         skipAny(szDigits, 3) && skip(" ");
    return bPrefix ? nAt : std::string::npos;
}

// The texts of traced lines; a line that lacks the prefix appears as it is, marked.
inline std::string traceTexts(const std::string& strLines, const std::string& strAuthor = "TRC") {
    std::string strTexts;
    for (size_t nFrom = 0; nFrom < strLines.size();) {
        const size_t nEnd = std::min(strLines.find('\n', nFrom), strLines.size() - 1) + 1;
        const std::string strLine = strLines.substr(nFrom, nEnd - nFrom);
        const size_t nText = traceTextAt(strLine, strAuthor);
        strTexts += nText == std::string::npos ? "no prefix: " + strLine : strLine.substr(nText);
        nFrom = nEnd;
    }
    return strTexts;
}

}  // namespace qorTest

#endif
