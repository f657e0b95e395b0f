/// @file
/// The compiled pattern: the root of the tree, with the captures and the custom aliases.
///
/// @code
/// QOR_RegularExpressHelper::reRegularExpress<char> express(NULL, 0);
/// express.AddCustomAlias("/num", "[0-9]+");
/// QOR_StringHelper::chReferenceStringT<char> strReason;
/// if (!express.BuildUntrustedExpress(lpszPattern, QOR_RegularExpressHelper::flagIgnoreCase, &strReason))
///     return refuse(strReason);                          // the reason is also traced
/// const char* lpszBegin = express.SearchREOnText(lpszText, NULL);
/// if (lpszBegin != NULL)
///     use(lpszBegin, express.m_lpszResultEnd);
/// @endcode
///
/// Compiling is O(n) in the length of the pattern (an alias counts as its pattern), and so is the analysis that the
/// first match makes for all that follow. Matching a pattern without repetitions that look ahead is O(n) in the length
/// of the text. A repetition looks ahead once from each of its positions at most, and what it looks at may repeat and
/// look ahead itself; so k of them in a row are O(n^k), and `.*a.*b.*c` is O(n^3). Possessive repetitions (`.*+`) do
/// not look ahead. After some 260,000 look-aheads their outcomes are remembered in a table, which the next
/// ClearResult() frees: one byte for each position and repetition, 4 MiB at most. Matching is then O(k n^2) as long as
/// the table holds all of them. The match and the results of all nodes that took part in it are the same; only a node
/// that nothing but looking ahead has reached may keep an older result. In a pattern with back-references, outcomes
/// cannot be remembered.
///
/// No input makes compiling, matching or destroying use more stack than maxDepth levels take (about 200 KiB).
#ifndef QOR_REGULAREXPRESSHELPER_EXPRESS_H
#define QOR_REGULAREXPRESSHELPER_EXPRESS_H

#include "qor/ListHelper.h"
#include "qor/RegularExpressHelper/Relation.h"

namespace QOR_RegularExpressHelper {

struct reState;

/// The length of the longest pattern in characters; the first character beyond it is an error.
constexpr int maxPatternLength = 32768;
/// The number of nodes of the largest tree; the element that exceeds it is an error.
constexpr int maxNodeCount = 65536;
/// The total length of the patterns of all aliases that a pattern uses, counted at each use; the alias that exceeds it
/// is an error.
constexpr int maxAliasText = 1048576;
/// The deepest nesting of groups, sets and aliases; preceding repetitions that look ahead count as levels. The element
/// that exceeds it is an error.
constexpr int maxDepth = 256;

/// A compiled pattern.
template <class T>
class reRegularExpress : public re_RelationAnd<re_Group<T>, T> {
public:
    /// Compiles a pattern; null: an empty one, which matches the empty text at every position.
    /// Fatal: a pattern with an error ("lpszREText == NULL").
    explicit reRegularExpress(const T* lpszREText = NULL, unsigned int nFlags = 0);
    virtual ~reRegularExpress();
    /// Forgets the last match of the whole tree.
    virtual void ClearResult();

    /// Compiles a pattern, which replaces the previous one; custom aliases stay. Returns null; or the position of the
    /// error, which is traced, and the expression is empty. Fatal: null.
    const T* BuildRegularExpress(const T* lpszREText, unsigned int nFlags);
    /// Compiles a pattern that comes from outside the program, such as a line of a configuration file. Works like
    /// BuildRegularExpress(), but refuses a pattern with a FindFatalReference(). Returns 1; or 0 with an empty
    /// expression, and the reason is traced at level 2 and stored in pReason, unless that is null. With 1 the reason is
    /// empty. Fatal: a null pattern.
    BOOL BuildUntrustedExpress(const T* lpszREText, unsigned int nFlags,
                               QOR_StringHelper::chReferenceStringT<T>* pReason = NULL);
    /// Returns the number of the first group for which a match or a search could reach a back-reference while the group
    /// has no match, which is fatal ("FALSE"); 0: there is none, whatever the text. Only the pattern is examined: every
    /// element is assumed to match some text and to fail on another, so patterns may be named that no text can bring
    /// there. Typical are `([a-c]*)\1`, where the repetition looks ahead at the reference from inside the group, and
    /// `[(a)b]\1`, where the group need not take part; `([a-c]*+)\1` is safe. O(nodes) for every 64 groups that are
    /// referred to.
    int FindFatalReference() const;
    /// Finds the first position of a text, its end included, at which the pattern matches. Returns it, or null. The
    /// match ends at m_lpszResultEnd. The results are as if only ClearResult() and ApplyREOnText() for that position
    /// had been called; if there is none, for the end.
    const T* SearchREOnText(const T* lpszSrcText, const T* lpszSrcEnding);

    /// Returns the n-th capturing group, counted from 1 by opening parentheses; null when there is none.
    re_Base<T>* GetCaptureRE(int n);
    /// Appends a capturing group, which is a node of the tree.
    void AddCaptureRE(re_Base<T>* pRE);

    /// Adds an alias for patterns that are built later, or replaces the one of the same name. A name is '/' and at
    /// least one more character, and is written so in a pattern; where several names fit, the one added last wins, not
    /// the longest. The alias matches what its pattern matches as a group that does not capture. The pattern is
    /// compiled where it is used and may use other aliases. Both texts are copied. Returns 1; or 0 for any other name,
    /// a null or a text longer than maxPatternLength.
    BOOL AddCustomAlias(const T* lpszName, const T* lpszREText);
    /// Returns the pattern of the custom alias that a text begins with, and stores the length of its name; or returns
    /// null.
    const T* GetCustomAlias(const T* lpszText, int* pLen);

    /// Alias names to patterns, the last added at the tail; filled by AddCustomAlias().
    QOR_ListHelper::chMapList_dynamic<QOR_StringHelper::chConstTextT<T>, QOR_StringHelper::chConstTextT<T>, 16>
        m_mapCustomAlias;
    /// The capturing groups.
    QOR_ArrayHelper::chObjArray<re_Base<T>*, false, 4> m_arrCaptureREs;

    const T* m_lpszFoundEnd;  ///< internal: the NUL of the text, once it has been looked for
    reState* m_pState;        ///< internal: the analysis made by the first match, and the state of matching

private:
    void ClearTree();
    const T* Compile(const T* lpszREText);

    QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<T>, 16> m_lstAliasText;
};

extern template class QOR_API reRegularExpress<char>;

}  // namespace QOR_RegularExpressHelper

#endif
