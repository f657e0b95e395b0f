/// @file
/// A string in a shared pool, which every process that maps the segment can read.
///
/// The object, its pool and its text lie in the same segment; the caller of every operation holds the segment's lock.
///
/// @code
/// pRecord->strName.InitPool(pPool);                                    // once, after construction in place
/// pRecord->strName = QOR_StringHelper::chConstTextT<char>("sampler");
/// @endcode
#ifndef QOR_STRINGHELPER_SHARESTRING_H
#define QOR_STRINGHELPER_SHARESTRING_H

#include "qor/AllocHelper.h"
#include "qor/StringHelper/Text.h"

namespace QOR_StringHelper {

/// The text block of a shared string: a block of its pool, with length + 8 bytes.
struct chShareTextA {
    int32_t m_nLength;  ///< characters without the NUL
    char m_szText[4];   ///< all characters, and the NUL
};

/// A string in a shared pool; an empty one has no block.
class QOR_API chShareStringA : public QOR_AllocHelper::baseSharePoolAlloc {
public:
    /// Empty, without a pool.
    chShareStringA();
    chShareStringA(const chShareStringA&) = delete;
    /// Frees the block.
    ~chShareStringA();

    /// Stores a copy of a view, which may be part of this string; an empty one needs no pool. Fatal: no pool, no room
    /// in it, a damaged link.
    chShareStringA& operator=(const chConstTextT<char>& text);
    /// The length in characters, as stored; 0 without a block.
    int GetLength() const;
    /// The text with its NUL; empty without a block.
    operator const char*() const;
    /// The text block, or null. Fatal: a damaged link ("broken share string").
    chShareTextA* get_Text() const;
    /// Stores the text block, and frees none; null is allowed. Fatal: a block that is more than 2 GiB away.
    void set_Text(chShareTextA* pText);

private:
    QOR_ChainHelper::relativePointer m_iOffsetText;  // from this object
};

static_assert(sizeof(chShareStringA) == 8 && sizeof(chShareTextA) == 8, "shared layout");
static_assert(offsetof(chShareTextA, m_nLength) == 0 && offsetof(chShareTextA, m_szText) == 4, "shared layout");

}  // namespace QOR_StringHelper

#endif
