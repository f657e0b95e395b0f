// A second matcher of the library's pattern syntax, for comparison: it follows the rules step by step without any
// shortcut, and shares no code with the library.
#ifndef QOR_TESTS_SUPPORT_REFERENCE_MATCHER_H
#define QOR_TESTS_SUPPORT_REFERENCE_MATCHER_H

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qorTest {

// Where a node was applied last and where its match ended, as indexes in the text; -1: nowhere.
struct referenceSpan {
    long nBegin = -1;
    long nEnd = -1;
    bool operator==(const referenceSpan& r) const { return nBegin == r.nBegin && nEnd == r.nEnd; }
};

struct referenceNode;

class referenceMatcher {
public:
    enum outcome { matched, failed, fatal, tooLong };

    referenceMatcher();
    ~referenceMatcher();

    // Aliases, the last added first in the search.
    void addAlias(const std::string& strName, const std::string& strPattern);
    // Compiles a pattern. Returns the index of the error, or -1.
    long build(const std::string& strPattern, bool bIgnoreCase);
    // Applies the whole pattern at an index. With bGivenEnd the text ends at strText's size, otherwise at its NUL.
    outcome apply(const std::string& strText, long nAt, bool bGivenEnd);
    // Whether the last outcome was fatal because of a back-reference to a group without a match.
    bool isFatalReference() const { return m_bFatalReference; }
    void clear();

    // The end of the last match.
    long end() const;
    std::vector<referenceSpan> captures() const;
    // The span, and the source with the quantifier, of every node, parents before children.
    std::vector<referenceSpan> spans() const;
    std::vector<std::string> sources() const;

private:
    friend struct referenceNode;
    struct parser;
    struct run;

    std::vector<std::pair<std::string, std::string>> m_listAlias;
    std::unique_ptr<referenceNode> m_pRoot;
    std::vector<referenceNode*> m_listCapture;
    bool m_bIgnoreCase = false;
    bool m_bFatalReference = false;
};

}  // namespace qorTest

#endif
