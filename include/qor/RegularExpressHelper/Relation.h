/// @file
/// The two relations between a node's children: a sequence, or alternatives.
///
/// A negated sequence takes one character where its children fail, even at the end of the text; a negated set takes one
/// where none of its members matches, but not at the end of the text. Continue with Express.h.
#ifndef QOR_REGULAREXPRESSHELPER_RELATION_H
#define QOR_REGULAREXPRESSHELPER_RELATION_H

#include "qor/RegularExpressHelper/Node.h"

namespace QOR_RegularExpressHelper {

/// The base of both relations over a kind of node.
template <class X>
class re_Relation : public X {};

/// Children that are matched one after the other.
template <class X, class T>
class re_RelationAnd : public re_Relation<X> {
public:
    virtual const T* ApplyChildREFrom(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    virtual const T* ApplyREsAfterChild(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
};

/// Children that are alternatives: the first that matches wins.
template <class X, class T>
class re_RelationCase : public re_Relation<X> {
public:
    re_RelationCase() { this->m_uTraits |= traitSet; }
    virtual const T* ApplyChildREFrom(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
    virtual const T* ApplyREsAfterChild(int iIndex, const T* lpszSrcText, const T* lpszSrcEnding);
};

extern template class QOR_API re_RelationAnd<re_Group<char>, char>;
extern template class QOR_API re_RelationAnd<re_Text<char>, char>;
extern template class QOR_API re_RelationAnd<re_Reference<char>, char>;
extern template class QOR_API re_RelationCase<re_Group<char>, char>;
extern template class QOR_API re_RelationCase<re_Text<char>, char>;
extern template class QOR_API re_RelationCase<re_Range<char>, char>;
extern template class QOR_API re_RelationCase<re_Reference<char>, char>;

}  // namespace QOR_RegularExpressHelper

#endif
