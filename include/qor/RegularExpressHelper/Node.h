/// @file
/// The nodes of a compiled pattern: what every one has, and the four kinds.
///
/// A node keeps the interval of its last match, which is also its memory: applied to the same place again it gives the
/// same answer. ClearResult() forgets it and comes before every other text. One tree serves one thread at a time.
///
/// Members are there to be read. Trees are made by reRegularExpress, and one that it has built is not changed by hand.
/// A tree that is put together by hand works, but has no guard against reading on behind a NUL that a negated sequence
/// has passed.
///
/// A text ends at its NUL, or at the end that is given: then a NUL is a character like others, and applying a node
/// behind that end is a fatal assertion ("lpszSrcEnding == NULL || lpszSrcText <= lpszSrcEnding"). That happens to
/// patterns in which more follows a negated sequence that stood at the end, because the negation of a sequence takes
/// a character without asking whether there is one; behind a text's NUL nothing matches. A back-reference compares as
/// many characters as its group captured without looking at a given end; so many must be readable behind it.
///
/// Read on in Relation.h.
#ifndef QOR_REGULAREXPRESSHELPER_NODE_H
#define QOR_REGULAREXPRESSHELPER_NODE_H

#include "qor/ArrayHelper.h"
#include "qor/RegularExpressHelper/Lexical.h"
#include "qor/StringHelper/ReferenceString.h"

namespace QOR_RegularExpressHelper {

struct rePlan;
struct reBuild;

/// The flag that makes letters of either case equal. Other bits are kept and have no effect.
constexpr uint32_t flagIgnoreCase = 1;

/// What every node has.
template <class T>
class re_Base {
public:
    re_Base();
    re_Base(const re_Base&) = delete;
    re_Base& operator=(const re_Base&) = delete;

    /// Matches the children from iIndex on, once, without the quantifier: all in order, or the first of them that
    /// matches. The end of the match, or null. All children's count as the index yields the text itself.
    /// Fatal: another index.
    virtual const T* ApplyChildREFrom(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) = 0;
    /// What follows child iIndex: the rest of the sequence, and whatever follows that further up, which cannot fail it.
    /// The end of the match, or null.
    virtual const T* ApplyREsAfterChild(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) = 0;
    /// Forgets the last match.
    virtual void ClearResult();
    /// Traces the node and its match at level 2.
    virtual void TraceResult();
    virtual ~re_Base();

    /// Matches the node, with its quantifier, at that place. The end of the match, or null. A null ending means that
    /// the text ends at its NUL.
    const T* ApplyREOnText(const T* lpszSrcText, const T* lpszSrcEnding);
    /// The top of the tree.
    re_Base* GetRootRE();
    /// The number of nodes above this one.
    int GetGradeLevel() const;
    /// Reads a quantifier, if there is one, and moves behind it: 1; -1 at an error, to which the text is moved.
    int PeekRepeatFromText(const T*& lpszREText);

    QOR_StringHelper::chReferenceStringT<T> m_strREText;  ///< the node's source text
    int32_t m_bNegative;                                  ///< 1: matches where its children do not
    uint32_t m_nFlags;                                    ///< the root's flags
    int32_t m_nMinTimes;                                  ///< the least number of repetitions
    int32_t m_nMaxTimes;                                  ///< the largest; -1: no limit
    int32_t m_chRepeatMode;      ///< '-' exact, ' ' looks ahead, '+' takes what it can, '?' as little as it may
    re_Base* m_pParentRE;        ///< the node above, or null
    int32_t m_iIndexInParent;    ///< the place among its children, or -1
    const T* m_lpszResultBegin;  ///< where the node was applied last
    const T* m_lpszResultEnd;    ///< where its match ended; null: it has none

    uint32_t m_uTraits;  ///< internal: what the node is, see traitSet and following
    rePlan* m_pPlan;     ///< internal: what the first match has worked out for a repeated node, or null

protected:
    /// Takes what the build has found out about a node of the same kind, and leaves that one as new.
    void CutBaseFrom(re_Base& r);
};

constexpr uint32_t traitSet = 1;          ///< internal: children are alternatives
constexpr uint32_t traitGroup = 2;        ///< internal: children are nodes
constexpr uint32_t traitExpress = 4;      ///< internal: the node is a reRegularExpress
constexpr uint32_t traitCapture = 8;      ///< internal: the node is among the root's captures
constexpr uint32_t traitText = 16;        ///< internal: the node is a re_Text
constexpr uint32_t traitOvershoot = 32;   ///< internal: a negated sequence of the tree may pass the end of the text
constexpr uint32_t traitReference = 64;   ///< internal: the node is a re_Reference
constexpr uint32_t traitUnplanned = 128;  ///< internal: a root that was built and not yet matched

/// A node whose children are nodes, which it owns.
template <class T>
class re_Group : public re_Base<T> {
public:
    re_Group();
    /// Deletes the children.
    virtual ~re_Group();
    /// Forgets the last match of the node and of all below it.
    virtual void ClearResult();
    /// Traces the node, then its children.
    virtual void TraceResult();

    /// The number of children.
    int GetChildRECount() const { return m_arrTargetREs.GetSize(); }
    /// Applies one child. Fatal: there is none ("!m_arrTargetREs.IsEmpty()").
    const T* ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    /// The repetitions of a child beyond its least number, as its mode says; nTimes -1: no limit. The end of the last
    /// one, which may be the text itself; null for a mode that knows none. Fatal: nTimes 0.
    const T* ApplyChildForOptional(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding, int nTimes);

    /// Appends a child and takes it over. It gets the root's flags. Fatal: null.
    void AddChildRE(re_Base<T>* pChildRE);
    /// Deletes the children.
    void ClearChildRE();
    /// Compiles "(...)" or "[...]" with its quantifier and moves behind it: 1. Where the text begins otherwise 0.
    /// -1 at an error, to which the text is moved.
    int tryParseREFromText(const T*& lpszREText);
    /// Compiles a sequence up to its ending, and behind a ')' the quantifier. 1, or -1 at an error as above.
    int ParseAndREFromTextByEnding(const T*& lpszREText, T chEnding);
    /// Compiles a group, a set or an alias as a new child. 1, 0 or -1 as above.
    int tryParseGroupREFromText(const T*& lpszREText);
    /// Takes what a node of the same kind has, and leaves that one as new. Captures of the root and back-references
    /// that name the other name this one from then on.
    void CutFromObject(re_Group& r);

    QOR_ArrayHelper::chObjArray<re_Base<T>*, false, 4> m_arrTargetREs;  ///< the children
    int32_t m_bNoCapture;  ///< 1: groups below do not capture, because they are part of an alias
    reBuild* m_pBuild;     ///< internal: the build under way, or null

private:
    int ParseElements(const T*& lpszREText, bool bSet);
    int ParseSequence(const T*& lpszREText, T chEnding);
    int ParseLeaf(const T*& lpszREText, bool bSet);
    int ParseSet(const T*& lpszREText);
    template <class X>
    int ParseChild(const T*& lpszREText);
    int ParseAlias(const T*& lpszREText, const T* lpszAlias, int nLength);
    template <class X>
    int ParseNode(const T*& lpszREText);
    void RemoveLastChild();
};

/// A run of literal characters, one child each.
template <class T>
class re_Text : public re_Base<T> {
public:
    re_Text();
    /// The number of characters.
    int GetChildRECount() const { return m_arrText.GetSize(); }
    /// Matches one character.
    const T* ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    /// Compiles literals with a quantifier: 1 or, where there is none, 0; -1 at an error, to which the text is moved.
    int tryParseREFromText(const T*& lpszREText);
    /// Takes what a node of the same kind has, and leaves that one as new.
    void CutFromObject(re_Text& r);

    QOR_ArrayHelper::chObjArray<T, false, 4> m_arrText;  ///< the characters
};

/// A range of characters, both ends included. It has no quantifier.
template <class T>
class re_Range : public re_Base<T> {
public:
    re_Range() : m_chLow(0), m_chHigh(0) {}
    /// 1.
    int GetChildRECount() const { return 1; }
    /// Matches one character.
    const T* ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    /// Compiles "a-z": 1, or 0. Ends in the wrong order are swapped.
    int tryParseREFromText(const T*& lpszREText);
    /// Takes what a node of the same kind has, and leaves that one as new.
    void CutFromObject(re_Range& r);

    uint32_t m_chLow;   ///< the lower end, unsigned
    uint32_t m_chHigh;  ///< the upper end, unsigned
};

/// A back-reference. It matches what its group matched last; a group that has no match, also one that is just being
/// matched, is a fatal assertion ("FALSE").
template <class T>
class re_Reference : public re_Base<T> {
public:
    re_Reference() : m_pRefRE(NULL) { this->m_uTraits |= traitReference; }
    /// 1.
    int GetChildRECount() const { return 1; }
    /// Compares the text with what the group captured. Fatal: another index than 0.
    const T* ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    /// Compiles "\1" with a quantifier: 1, or 0 where no such group is known; -1 at an error, to which the text is
    /// moved.
    int tryParseREFromText(const T*& lpszREText);
    /// Takes what a node of the same kind has, and leaves that one as new.
    void CutFromObject(re_Reference& r);

    re_Base<T>* m_pRefRE;  ///< the group
};

extern template class QOR_API re_Base<char>;
extern template class QOR_API re_Group<char>;
extern template class QOR_API re_Text<char>;
extern template class QOR_API re_Range<char>;
extern template class QOR_API re_Reference<char>;

}  // namespace QOR_RegularExpressHelper

#endif
