// Texts of both widths.
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

}  // namespace qorTest

#endif
