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
/// What a pattern costs: compiling takes time in the order of its length (an alias counts as its pattern), and so does
/// what its first match works out for all that follow. Matching a pattern without repetitions that look ahead takes
/// time in the order of the text. A repetition looks ahead at each of its places at most, and what it looks at may
/// repeat and look ahead itself, so k of them in a row take time in the order of the text's length to the k-th power:
/// `.*a.*b.*c` is of the third. Marking them with `+` takes that away. Behind some 260,000 look-aheads their answers
/// are remembered, in a table that the next ClearResult() frees, one byte for each place of the text and repetition, at
/// most 4 MiB. Then the time is in the order of k times the square of the text's length, as long as the table holds
/// them all. The match and the results of all nodes that took part in it are the same; only a node that nothing but
/// looking ahead came to may keep an older result. A pattern with back-references cannot remember answers.
///
/// No input makes compiling, matching or destroying use more stack than maxDepth allows for (about 200 KiB).
#ifndef QOR_REGULAREXPRESSHELPER_EXPRESS_H
#define QOR_REGULAREXPRESSHELPER_EXPRESS_H

#include "qor/ListHelper.h"
#include "qor/RegularExpressHelper/Relation.h"

namespace QOR_RegularExpressHelper {

struct reState;

/// The characters of the longest pattern; the first one behind is an error.
constexpr int maxPatternLength = 32768;
/// The nodes of the largest tree; the element that needs more is an error.
constexpr int maxNodeCount = 65536;
/// The characters of all alias patterns that a pattern is made of, each counted where it is used; the alias that needs
/// more is an error.
constexpr int maxAliasText = 1048576;
/// How deep groups, sets and aliases nest, repetitions that look ahead and stand in front counted like levels. The
/// element that is deeper is an error.
constexpr int maxDepth = 256;

/// A compiled pattern.
template <class T>
class reRegularExpress : public re_RelationAnd<re_Group<T>, T> {
public:
    /// Compiles a pattern; null: an empty one, which matches nothing but the empty text, at every place.
    /// Fatal: a pattern with an error ("lpszREText == NULL").
    explicit reRegularExpress(const T* lpszREText = NULL, unsigned int nFlags = 0);
    virtual ~reRegularExpress();
    /// Forgets the last match of the whole tree.
    virtual void ClearResult();

    /// Compiles a pattern in place of the one before; custom aliases stay. Null, or the place of the error, which is
    /// traced; the expression is empty then. Fatal: null.
    const T* BuildRegularExpress(const T* lpszREText, unsigned int nFlags);
    /// Compiles a pattern that comes from outside the program, such as a line of a configuration file: as
    /// BuildRegularExpress() does, but a pattern with a FindFatalReference() is refused. 1; or 0 with an empty
    /// expression, and the reason is traced at level 2 and stored where pReason says, unless that is null. Where 1 is
    /// returned the reason is empty. Fatal: a null pattern.
    BOOL BuildUntrustedExpress(const T* lpszREText, unsigned int nFlags,
                               QOR_StringHelper::chReferenceStringT<T>* pReason = NULL);
    /// The number of the first group for which a match or a search could come to a back-reference while the group has
    /// no match, which is fatal ("FALSE"); 0: there is none, whatever the text. Judged from the pattern alone: it is
    /// taken for granted that every element matches some text and fails on another, so some pattern that no text can
    /// bring to that end is named, too. Typical are `([a-c]*)\1`, where the repetition looks ahead at the reference
    /// from inside the group, and `[(a)b]\1`, where the group need not take part; `([a-c]*+)\1` is safe. It takes
    /// time in the order of the number of nodes for each 64 groups that are referred to.
    int FindFatalReference() const;
    /// Finds the first place of a text, its end included, at which the pattern matches; the place, or null. The match
    /// ends at m_lpszResultEnd. The results are as if ClearResult() and ApplyREOnText() had been called for that place
    /// (for the end, if there is none) alone.
    const T* SearchREOnText(const T* lpszSrcText, const T* lpszSrcEnding);

    /// The n-th capturing group, counted from 1 by opening parentheses; null when there is none.
    re_Base<T>* GetCaptureRE(int n);
    /// Appends a capturing group, which is one of the tree's.
    void AddCaptureRE(re_Base<T>* pRE);

    /// Adds an alias for the patterns that are built afterwards, in place of one of the same name. A name is '/' and at
    /// least one more character, written in a pattern exactly so; where several names fit, the one added last wins,
    /// not the longest. The alias matches what its pattern does as a group that does not capture; the pattern is
    /// compiled where it is used and may use other aliases. Both texts are copied.
    /// 1, or 0 for another name, a null or a text longer than maxPatternLength.
    BOOL AddCustomAlias(const T* lpszName, const T* lpszREText);
    /// The pattern of the custom alias that a text begins with, and the length of its name; or null.
    const T* GetCustomAlias(const T* lpszText, int* pLen);

    /// Alias name to pattern, the last added at the tail; filled by AddCustomAlias().
    QOR_ListHelper::chMapList_dynamic<QOR_StringHelper::chConstTextT<T>, QOR_StringHelper::chConstTextT<T>, 16>
        m_mapCustomAlias;
    /// The capturing groups.
    QOR_ArrayHelper::chObjArray<re_Base<T>*, false, 4> m_arrCaptureREs;

    const T* m_lpszFoundEnd;  ///< internal: the NUL of the text that is being matched, once it was looked for
    reState* m_pState;        ///< internal: what the first match has worked out, and the state of matching

private:
    void ClearTree();
    const T* Compile(const T* lpszREText);

    QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<T>, 16> m_lstAliasText;
};

extern template class QOR_API reRegularExpress<char>;

}  // namespace QOR_RegularExpressHelper

#endif
