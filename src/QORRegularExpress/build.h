// The compiler's state during one build, and how it classifies characters.
#ifndef QOR_REGULAR_EXPRESS_BUILD_H
#define QOR_REGULAR_EXPRESS_BUILD_H

#include <string.h>

#include <new>

#include "internal/arena.h"
#include "qor/RegularExpressHelper/Express.h"

namespace QOR_RegularExpressHelper {

// m_nLook is the depth of the deepest preceding repetition that looks ahead: the matcher may be inside it when it
// reaches what follows.
struct reBuild {
    // The nodes of a pattern that is longer fill a page, with their texts and arrays.
    static constexpr size_t minPaged = 16;

    explicit reBuild(size_t nLength) : m_memory(nLength >= minPaged) {}

    QOR_AllocHelper::arena m_memory;
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

// A set of characters, which includes the pattern's terminator.
struct charTable {
    bool m_arrIs[256];

    template <size_t n>
    explicit constexpr charTable(const char (&sz)[n]) : m_arrIs() {
        for (const char ch : sz)
            m_arrIs[static_cast<unsigned char>(ch)] = true;
    }
    constexpr bool has(char ch) const { return m_arrIs[static_cast<unsigned char>(ch)]; }
};
// What has a special meaning somewhere in a pattern, and what is never a literal.
inline constexpr charTable objSpecialChars("^()[]{}?+*-.$/\\"), objOperators("^()[]{}?+*-");

inline bool isPlain(char ch) { return !objSpecialChars.has(ch); }

// Makes a node of a tree that is being built, or of one that a program changes by hand, which has no build. Null: out
// of memory.
template <class X>
inline X* newNode(reBuild* pBuild) {
    void* const p = pBuild != NULL ? pBuild->m_memory.alloc(sizeof(X)) : NULL;
    return p != NULL ? new (p) X : new (std::nothrow) X;
}

// Traces a pattern with a mark under the position of its error.
void traceError(const char* lpszREText, const char* lpszError);

}  // namespace QOR_RegularExpressHelper

#endif
