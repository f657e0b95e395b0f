/// @file
/// Wildcard patterns for the file names to accept and those to deny.
///
/// A filter is patterns separated by ';'. A pattern after '-' denies, any other accepts, with or without a '+'
/// before it. '*' stands for any number of characters and '?' for one; letters of either case are equal. A pattern
/// applies to a whole name. Without a pattern that accepts, every name is accepted.
///
/// @code
/// QOR_SubClass::chFileFilter filter("*.ini;*.xml;-backup*");
/// const BOOL bWanted = filter.IsAcceptFileName("device.ini") && !filter.IsDenyFileName("device.ini");    // 1
/// @endcode
///
/// Every other character stands for itself, except a backslash, which has its meaning in the regular expressions of
/// RegularExpressHelper.h. A pattern that is no valid expression, or whose back-references could end the process,
/// matches no name; the reason is traced at level 2. Read on in FileSearch.h.
#ifndef QOR_SUBCLASS_FILEFILTER_H
#define QOR_SUBCLASS_FILEFILTER_H

#include "qor/ListHelper.h"
#include "qor/RegularExpressHelper.h"
#include "qor/StringHelper.h"
#include "qor/Types.h"

namespace QOR_SubClass {

/// The regular expression that matches the same names as a wildcard pattern. Fatal: null.
QOR_API QOR_StringHelper::chReferenceStringT<char> fileExpress2REText(const char* lpszExpress);

/// A compiled filter, used by one thread at a time.
class QOR_API chFileFilter {
public:
    /// The filter of a text; null: it accepts every name and denies none.
    explicit chFileFilter(const char* lpszFilter = NULL);
    chFileFilter(const chFileFilter&) = delete;
    chFileFilter& operator=(const chFileFilter&) = delete;

    /// Replaces all patterns by those of a text; null has none. Empty patterns are skipped.
    /// @return 1
    BOOL SetFilter(const char* lpszFilter);
    /// Whether a pattern that accepts matches the whole name, or there is no such pattern. Fatal: null.
    BOOL IsAcceptFileName(const char* lpszFileName);
    /// Whether a pattern that denies matches the whole name. Fatal: null.
    BOOL IsDenyFileName(const char* lpszFileName);

private:
    typedef QOR_ListHelper::chObjList_dynamic<QOR_RegularExpressHelper::reRegularExpress<char>, 16> listExpress;

    void AddPattern(const QOR_StringHelper::chReferenceStringT<char>& strPattern);
    static bool IsMatched(listExpress& lst, const char* lpszFileName);

    listExpress m_lstAccept;
    listExpress m_lstDeny;
};

}  // namespace QOR_SubClass

#endif
