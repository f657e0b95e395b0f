/// @file
/// The nodes of a compiled pattern: their common base, and the four kinds.
///
/// A node keeps the interval of its last match, which is also its memory: applied again at the same position, it
/// returns the same result. Call ClearResult() before matching another text. One thread at a time may use a tree.
///
/// Members are public for reading. Trees are made by reRegularExpress; do not change one that it has built. A tree that
/// is put together by hand works, but is not protected against reading past a NUL that a negated sequence has taken.
///
/// A text ends at its NUL, or at the given end. With a given end, a NUL is a character like any other, and applying a
/// node past that end is a fatal assertion ("lpszSrcEnding == NULL || lpszSrcText <= lpszSrcEnding"). This happens to
/// patterns in which something follows a negated sequence that matched at the end, because a negated sequence takes a
/// character whether or not there is one. Past a text's NUL nothing matches. A back-reference compares as many
/// characters as its group captured, regardless of a given end; so many must be readable.
///
/// Continue with Relation.h.
#ifndef QOR_REGULAREXPRESSHELPER_NODE_H
#define QOR_REGULAREXPRESSHELPER_NODE_H

#include <new>

#include "qor/ArrayHelper.h"
#include "qor/RegularExpressHelper/Lexical.h"
#include "qor/StringHelper/ReferenceString.h"

namespace QOR_RegularExpressHelper {

struct rePlan;
struct reBuild;

/// The flag that makes upper-case and lower-case letters equal. Other bits are stored and have no effect.
constexpr uint32_t flagIgnoreCase = 1;

/// The base of all nodes.
template <class T>
class re_Base {
public:
    re_Base();
    re_Base(const re_Base&) = delete;
    re_Base& operator=(const re_Base&) = delete;

    /// Matches the children from iIndex on, once, without the quantifier: all in order, or the first that matches.
    /// Returns the end of the match, or null; with the number of children as the index, the text itself.
    /// Fatal: an index below 0 or above the number of children.
    virtual const T* ApplyChildREFrom(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) = 0;
    /// Matches what follows child iIndex: the rest of the sequence, then what follows this node in its ancestors, whose
    /// failure does not count. Returns the end of the match, or null.
    virtual const T* ApplyREsAfterChild(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding) = 0;
    /// Forgets the last match.
    virtual void ClearResult();
    /// Traces the node and its match at level 2.
    virtual void TraceResult();
    virtual ~re_Base();

    /// Nodes that a program makes are allocated on the heap.
    static void* operator new(size_t nSize);
    /// The same; null when there is no memory.
    static void* operator new(size_t nSize, const std::nothrow_t& r) noexcept;
    /// Constructs a node in memory of the caller, who keeps it.
    static void* operator new(size_t, void* p) noexcept { return p; }
    /// Frees a node, whether a program made it or it was built from a pattern.
    static void operator delete(void* p);
    /// The same.
    static void operator delete(void* p, const std::nothrow_t&) { operator delete(p); }
    /// Frees nothing: the memory is the caller's.
    static void operator delete(void*, void*) {}

    /// Matches the node, with its quantifier, at that position. Returns the end of the match, or null. With a null
    /// ending the text ends at its NUL.
    const T* ApplyREOnText(const T* lpszSrcText, const T* lpszSrcEnding);
    /// Returns the root of the tree.
    re_Base* GetRootRE();
    /// Returns the number of ancestors.
    int GetGradeLevel() const;
    /// Reads a quantifier, if there is one, and moves the text past it. Returns 1; or -1 at an error, to which the text
    /// is moved.
    int PeekRepeatFromText(const T*& lpszREText);

    QOR_StringHelper::chReferenceStringT<T> m_strREText;  ///< the node's source text
    int32_t m_bNegative;                                  ///< 1: matches where its children do not
    uint32_t m_nFlags;                                    ///< the root's flags
    int32_t m_nMinTimes;                                  ///< the least number of repetitions
    int32_t m_nMaxTimes;                                  ///< the largest; -1: no limit
    int32_t m_chRepeatMode;                               ///< '-' exact, ' ' looks ahead, '+' possessive, '?' lazy
    re_Base* m_pParentRE;                                 ///< the parent, or null
    int32_t m_iIndexInParent;                             ///< the index among the parent's children, or -1
    const T* m_lpszResultBegin;                           ///< where the node was applied last
    const T* m_lpszResultEnd;                             ///< where its match ended; null: it has none

    uint32_t m_uTraits;  ///< internal: see traitSet and the following
    rePlan* m_pPlan;     ///< internal: the analysis of a repeated node, made by the first match, or null

protected:
    /// Moves what the build has set in a node of the same kind, and leaves that one as new.
    void CutBaseFrom(re_Base& r);
};

constexpr uint32_t traitSet = 1;          ///< internal: children are alternatives
constexpr uint32_t traitGroup = 2;        ///< internal: children are nodes
constexpr uint32_t traitExpress = 4;      ///< internal: the node is a reRegularExpress
constexpr uint32_t traitCapture = 8;      ///< internal: the node is among the root's captures
constexpr uint32_t traitText = 16;        ///< internal: the node is a re_Text
constexpr uint32_t traitOvershoot = 32;   ///< internal: the tree has a negated sequence, which may pass the end
constexpr uint32_t traitReference = 64;   ///< internal: the node is a re_Reference
constexpr uint32_t traitUnplanned = 128;  ///< internal: a built root before its first match

/// A node whose children are nodes, which it owns.
template <class T>
class re_Group : public re_Base<T> {
public:
    re_Group();
    /// Deletes the children.
    virtual ~re_Group();
    /// Forgets the last match of the node and of all descendants.
    virtual void ClearResult();
    /// Traces the node, then its children.
    virtual void TraceResult();

    /// Returns the number of children.
    int GetChildRECount() const { return m_arrTargetREs.GetSize(); }
    /// Applies one child. Fatal: the group has no children ("!m_arrTargetREs.IsEmpty()").
    const T* ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    /// Matches the repetitions of a child beyond the required ones, by its mode; nTimes -1: no limit. Returns the end
    /// of the last one, which may be the text itself; null for the mode '-'. Fatal: nTimes 0.
    const T* ApplyChildForOptional(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding, int nTimes);

    /// Appends a child and takes ownership of it. It gets the root's flags. Fatal: null.
    void AddChildRE(re_Base<T>* pChildRE);
    /// Deletes the children.
    void ClearChildRE();
    /// Compiles "(...)" or "[...]" with its quantifier and moves the text past it. Returns 1; 0 where the text begins
    /// with something else; -1 at an error, to which the text is moved.
    int tryParseREFromText(const T*& lpszREText);
    /// Compiles a sequence up to its ending, and after a ')' the quantifier. Returns 1, or -1 at an error as above.
    int ParseAndREFromTextByEnding(const T*& lpszREText, T chEnding);
    /// Compiles a group, a set or an alias as a new child. Returns 1, 0 or -1 as above.
    int tryParseGroupREFromText(const T*& lpszREText);
    /// Moves the contents of a node of the same kind, and leaves that one as new. The root's captures and the
    /// back-references that referred to the other node then refer to this one.
    void CutFromObject(re_Group& r);

    QOR_ArrayHelper::chObjArray<re_Base<T>*, false, 4> m_arrTargetREs;  ///< the children
    int32_t m_bNoCapture;  ///< 1: groups inside do not capture, because they are part of an alias
    reBuild* m_pBuild;     ///< internal: the current build, or null

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
    /// Returns the number of characters.
    int GetChildRECount() const { return m_arrText.GetSize(); }
    /// Matches one character.
    const T* ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    /// Compiles literals with a quantifier. Returns 1; 0 where there are none; -1 at an error, to which the text is
    /// moved.
    int tryParseREFromText(const T*& lpszREText);
    /// Moves the contents of a node of the same kind, and leaves that one as new.
    void CutFromObject(re_Text& r);

    QOR_ArrayHelper::chObjArray<T, false, 4> m_arrText;  ///< the characters
};

/// A range of characters, both bounds included. It has no quantifier.
template <class T>
class re_Range : public re_Base<T> {
public:
    re_Range() : m_chLow(0), m_chHigh(0) {}
    /// Returns 1.
    int GetChildRECount() const { return 1; }
    /// Matches one character.
    const T* ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    /// Compiles "a-z". Returns 1, or 0 where the text is something else. Bounds in the wrong order are swapped.
    int tryParseREFromText(const T*& lpszREText);
    /// Moves the contents of a node of the same kind, and leaves that one as new.
    void CutFromObject(re_Range& r);

    uint32_t m_chLow;   ///< the lower bound, unsigned
    uint32_t m_chHigh;  ///< the upper bound, unsigned
};

/// A back-reference. It matches what its group matched last. It is a fatal assertion ("FALSE") if the group has no
/// match; while a group is being matched, it has none.
template <class T>
class re_Reference : public re_Base<T> {
public:
    re_Reference() : m_pRefRE(NULL) { this->m_uTraits |= traitReference; }
    /// Returns 1.
    int GetChildRECount() const { return 1; }
    /// Compares the text with what the group captured. Fatal: an index other than 0.
    const T* ApplyChildRE(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    /// Compiles "\1" with a quantifier. Returns 1; 0 where there is no such group so far; -1 at an error, to which the
    /// text is moved.
    int tryParseREFromText(const T*& lpszREText);
    /// Moves the contents of a node of the same kind, and leaves that one as new.
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
