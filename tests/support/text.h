// Texts of both widths, and fatal assertions by their exact texts.
#ifndef QOR_TESTS_SUPPORT_TEXT_H
#define QOR_TESTS_SUPPORT_TEXT_H

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "qor/StringHelper.h"

namespace qorTest {

// A text of either width for as long as the object lives.
template <class T>
class letters {
public:
    letters(const std::string& str) {
        for (char ch : str)
            m_arrText.push_back(static_cast<T>(static_cast<unsigned char>(ch)));
        m_arrText.push_back(0);
    }
    operator const T*() const { return m_arrText.data(); }
    const T* get() const { return m_arrText.data(); }

private:
    std::vector<T> m_arrText;
};

// The same characters as 8-bit text.
template <class T>
std::string narrow(const T* lpszText, int nLength = -1) {
    if (nLength < 0)
        nLength = QOR_StringHelper::chStrlen(lpszText);
    return std::string(lpszText, lpszText + nLength);
}

template <class T>
std::string narrow(const QOR_StringHelper::chConstTextT<T>& text) {
    return narrow(static_cast<const T*>(text), text.GetLength());
}

template <class T>
std::string narrow(const QOR_StringHelper::chReferenceStringT<T>& str) {
    return narrow(static_cast<const T*>(str), str.GetLength());
}

// A pattern for the line of a report: the module and the fixed text between the brackets and the ids.
inline std::string reportOf(const char* lpszModule, const char* lpszText) {
    std::string strPattern = "\\[" + std::string(lpszModule) + ":[0-9]+\\] ";
    for (; *lpszText != 0; ++lpszText)
        strPattern += (strchr("\\^$.|?*+()[]{}", *lpszText) != nullptr ? "\\" : "") + std::string(1, *lpszText);
    return strPattern + " \\(";
}

}  // namespace qorTest

// The statement ends the process with that assertion of the strings.
#define EXPECT_STRING_FATAL(statement, text) \
    EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), qorTest::reportOf("_chString", text))

#endif
