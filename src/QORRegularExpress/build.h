// The compiler's state during one build, and how it classifies characters.
#ifndef QOR_REGULAR_EXPRESS_BUILD_H
#define QOR_REGULAR_EXPRESS_BUILD_H

#include <string.h>

#include "qor/RegularExpressHelper/Express.h"

namespace QOR_RegularExpressHelper {

// m_nLook is the depth of the deepest preceding repetition that looks ahead: the matcher may be inside it when it
// reaches what follows.
struct reBuild {
    int m_nNodes = 0;
    int m_nDepth = 0;
    int m_nLook = 0;
    int m_nAliasText = 0;
    int m_nNegated = 0;             // negated sequences
    const char* m_lpszHint = NULL;  // explains the first thing that looks like the usual dialect

    // Counts the pattern of one more alias. False: it exceeds the limit.
    bool takeAlias(const char* lpszAlias) {
        m_nAliasText += static_cast<int>(strnlen(lpszAlias, maxAliasText));
        return m_nAliasText <= maxAliasText;
    }
    int nextDepth() const { return (m_nDepth > m_nLook ? m_nDepth : m_nLook) + 1; }
};

// The characters that have a special meaning somewhere in a pattern, including its terminator.
struct specialChars {
    bool m_arrIs[256];

    constexpr specialChars() : m_arrIs() {
        for (const char ch : "^()[]{}?+*-.$/\\")
            m_arrIs[static_cast<unsigned char>(ch)] = true;
    }
};
inline constexpr specialChars objSpecialChars;

inline bool isPlain(char ch) { return !objSpecialChars.m_arrIs[static_cast<unsigned char>(ch)]; }

// Traces a pattern with a mark under the position of its error.
void traceError(const char* lpszREText, const char* lpszError);

}  // namespace QOR_RegularExpressHelper

#endif
