// Rows of bad input to the flat functions: what each call gives, or the assertion that ends it.
#ifndef QOR_TESTS_SUPPORT_BAD_INPUT_H
#define QOR_TESTS_SUPPORT_BAD_INPUT_H

#include <string.h>

#include <functional>
#include <string>
#include <vector>

namespace qorTest {

struct badInput {
    const char* lpszFunction;
    std::string strCase;
    std::function<bool()> fnCall;  // whether the result is the promised one
    std::string strDeath;          // the assertion line as a pattern; empty when the call returns
};

typedef std::vector<badInput> table;

// The pattern of a fixed text.
inline std::string patternOf(const std::string& strText) {
    std::string strPattern;
    for (const char ch : strText) {
        if (strchr("\\^$.|?*+()[]{}", ch) != NULL)
            strPattern += '\\';
        strPattern += ch;
    }
    return strPattern;
}

// The rows of one function.
class rowsOf {
public:
    rowsOf(table& listRow, const char* lpszFunction) : m_listRow(listRow), m_lpszFunction(lpszFunction) {}

    rowsOf& good(const std::string& strCase, std::function<bool()> fnCall) {
        m_listRow.push_back({m_lpszFunction, strCase, fnCall, ""});
        return *this;
    }
    rowsOf& fatal(const std::string& strCase, const char* lpszModule, const char* lpszText,
                  std::function<void()> fnCall) {
        const std::string strDeath = "\\[" + patternOf(lpszModule) + ":[0-9]+\\] " + patternOf(lpszText) + " \\(";
        m_listRow.push_back({m_lpszFunction, strCase, [fnCall]() { return fnCall(), false; }, strDeath});
        return *this;
    }

private:
    table& m_listRow;
    const char* m_lpszFunction;
};

// The rows of descriptors, signals, records, reading counters, and of names and keys that are listed and deleted.
void addLaterFunctions(table& listRow);

}  // namespace qorTest

#endif
