// Applies the library and the second matcher to the same pattern and text, and reports the first difference.
#ifndef QOR_TESTS_SUPPORT_REFERENCE_COMPARE_H
#define QOR_TESTS_SUPPORT_REFERENCE_COMPARE_H

#include <string>

#include "qor/RegularExpressHelper.h"
#include "support/reference_matcher.h"

namespace qorTest {

class referenceCompare {
public:
    typedef QOR_RegularExpressHelper::re_Base<char> node;
    typedef QOR_RegularExpressHelper::re_Group<char> group;

    // Adds an alias to both.
    void addAlias(const std::string& strName, const std::string& strPattern);
    // Compiles a pattern with both. Returns whether it compiles.
    bool build(const std::string& strPattern, bool bIgnoreCase);
    // Applies both at a position, without clearing their memory. With bGivenEnd the text may contain NULs. Where the
    // outcome is fatal, the library is not applied.
    referenceMatcher::outcome apply(const std::string& strText, long nAt, bool bGivenEnd);
    // Searches with both.
    referenceMatcher::outcome search(const std::string& strText, bool bGivenEnd);
    void clear();

    // What differed first; empty if nothing has.
    const std::string& difference() const { return m_strDifference; }
    QOR_RegularExpressHelper::reRegularExpress<char>& express() { return m_express; }

private:
    void setText(const std::string& strText);
    void compareSpans(const char* lpszWhat);
    void differ(const std::string& strWhat);
    std::string spanText(long nBegin, long nEnd) const;
    void visit(node* p, std::vector<std::string>& listSpan, std::vector<std::string>& listSource) const;

    QOR_RegularExpressHelper::reRegularExpress<char> m_express;
    referenceMatcher m_reference;
    std::string m_strPattern;
    std::string m_strText;
    std::string m_strBuffer;  // the text, followed by NULs
    std::string m_strDifference;
};

}  // namespace qorTest

#endif
