// Every template of the installed headers, instantiated from them alone: a program that uses one has its definition, or
// finds it in the library.
#include <stdio.h>
#include <string.h>

#include "qor/qor.h"

using namespace QOR_AllocHelper;
using namespace QOR_ArrayHelper;
using namespace QOR_BaseHelper;
using namespace QOR_ChainHelper;
using namespace QOR_ListHelper;
using namespace QOR_MsgQueueHelper;
using namespace QOR_RegistryHelper;
using namespace QOR_RegularExpressHelper;
using namespace QOR_StringHelper;

typedef list_node_offset<int> offsetNode;
typedef list_node_pointer<int> pointerNode;
typedef chAlloc_Pool_share<offsetNode> offsetAlloc;
typedef chAlloc_Node_dynamic<pointerNode, 4> pointerAlloc;
typedef chMeth_List<chAlloc_Pool_share<list_node_offset<pair_type<int, int>>>> offsetPairs;
typedef chMeth_List<chAlloc_Node_dynamic<list_node_pointer<pair_type<int, int>>, 4>> pointerPairs;

struct treeNode : QOR_FileHelper::simpTreeNode<treeNode> {};

// ---- templates that are whole in the headers

template struct QOR_ChainHelper::list_chain<offset_chain_pNext, offset_chain_pPrev>;
template struct QOR_ChainHelper::list_chain<pointer_chain_pNext, pointer_chain_pPrev>;
template struct QOR_ChainHelper::list_node<int, list_chain_offset>;
template struct QOR_ChainHelper::list_node_offset<int>;
template struct QOR_ChainHelper::list_node_pointer<int>;
template void QOR_ChainHelper::link_list_node(list_chain_offset*, list_chain_offset*);
template void QOR_ChainHelper::unlink_list_node(list_chain_offset*);
template class QOR_ChainHelper::checkedChain<segmentChecks>;
template class QOR_ArrayHelper::chAlloc_Object<int>;
template class QOR_ArrayHelper::chMeth_ObjArray<int, true, 4>;
template class QOR_ArrayHelper::chObjArray<int, false, 4>;
template struct QOR_ListHelper::pair_type<int, int>;
template class QOR_ChainHelper::checkedChain<listChecks<list_chain_offset>>;
template class QOR_ChainHelper::checkedChain<listChecks<list_chain_pointer>>;
template class QOR_ListHelper::list_iterator<offsetNode>;
template class QOR_ListHelper::list_iterator<pointerNode>;
template class QOR_ListHelper::chAlloc_Node_dynamic<pointerNode, 4>;
template class QOR_ListHelper::chAlloc_Pool_share<offsetNode>;
template class QOR_ListHelper::chMeth_List<offsetAlloc>;
template class QOR_ListHelper::chMeth_List<pointerAlloc>;
template class QOR_ListHelper::chMeth_MapList<offsetPairs>;
template class QOR_ListHelper::chMeth_MapList<pointerPairs>;
template class QOR_ListHelper::chMeth_PairList<pointerPairs>;
template class QOR_ListHelper::chMeth_Cabin<offsetAlloc>;
template class QOR_ListHelper::chObjList_dynamic<int, 4>;
template class QOR_ListHelper::chObjList_pool_share<int>;
template class QOR_ListHelper::chMapList_dynamic<int, int, 4>;
template class QOR_ListHelper::chMapList_pool_share<int, int>;
template class QOR_ListHelper::chPairList_dynamic<int, int, 4>;
template class QOR_BaseHelper::ipcObjectFrame<ipcObjectHeader>;
template class QOR_BaseHelper::ipcObjectFrame<ipcObjectHeader, chMapFile_Local, chMutex_Local>;
template class QOR_FileHelper::simpTreeNode<treeNode>;
template BOOL QOR_MsgQueueHelper::sendMessageStruct(chThreadRemote&, UINT, const int&, int&, int, int*);
template bool QOR_MsgQueueHelper::msgObject::GetExtraStruct(int&) const;
template void QOR_MsgQueueHelper::msgObject::SetExtraStruct(const int&);
template struct QOR_MsgQueueHelper::chNamedSegment<4096, 77>;
template class QOR_RegistryHelper::offset_pointer<int>;
template class QOR_RegistryHelper::regObjList<int>;
template struct QOR_StringHelper::chStringDataT<char>;
template class QOR_StringHelper::chConstTextT<char>;
template class QOR_StringHelper::chConstTextT<unsigned short>;
template class QOR_StringHelper::chStaticTextT<char, 256>;
template class QOR_StringHelper::uCTextHelper<char, true>;
template class QOR_StringHelper::uCTextHelper<char, false>;

// ---- templates that are used by calls, and those whose definitions the library has

static int s_nFailed = 0;

#define CHECK(condition) \
    ((condition) ? (void)0 : (void)(++s_nFailed, printf("templates.cpp:%d: %s\n", __LINE__, #condition)))

static void useChain() {
    struct {
        list_chain_offset vHead;
        list_chain_offset aNode[3];
    } v;
    link_list_node(&v.vHead, &v.vHead);
    const shareChain chain(&v.vHead, sizeof(v.aNode[0]), "consumer");
    for (list_chain_offset& node : v.aNode)
        chain.InsertBefore(NULL, &node);
    const auto fnAny = [](const list_chain_offset*) { return true; };
    const auto fnTake = [&chain](list_chain_offset* p) { chain.Unlink(p); };
    CHECK(chain.Find(fnAny) == &v.aNode[0] && chain.FindLast(fnAny) == &v.aNode[2]);
    chain.Drain([&v](const list_chain_offset* p) { return p == &v.aNode[1]; }, fnTake);
    chain.DrainBackwards(fnAny, fnTake);
    CHECK(chain.First() == NULL);
}

static void useLists() {
    struct {
        baseStaticPoolAlloc pool;
        char aArea[1024];
        regObjList<int> list;
    } v;
    v.pool.init_pool(v.aArea, sizeof(v.aArea));
    v.list.InitPool(&v.pool);
    for (int i = 1; i <= 3; ++i)
        v.list.AppendObject([i](int& n) { return (n = i) != 0; });
    int nSum = 0;
    v.list.ForEach([&nSum](int n) { nSum += n; });
    CHECK(nSum == 6 && *v.list.FindObject([](int n) { return n == 2; }) == 2);
    CHECK(v.list.find_if([](int n) { return n > 3; }) == v.list.end());
    v.list.EraseLastWhile([](int n) { return n > 1; });
    CHECK(v.list.size() == 1);
    v.list.clear();
}

static void useTexts() {
    char szCopy[8];
    CHECK(strcmp(chStrncpy(szCopy, "abc", 7), "abc") == 0 && *chStrinc(szCopy) == 'b' && chStrlen(szCopy) == 3);
    CHECK(textEMPTY(getNullText<char>()) && textEMPTY(getNullText<unsigned short>()));
    CHECK(chIsDigit('1') && chIsWhiteSpace(' ') && chIsAlpha('a'));
    CHECK(chUpper('a') == 'A' && chLower('A') == 'a' && chReverse('a') == 'A');
    CHECK(!chIsLeadbyte(szCopy) && !chIsTrailbyte(szCopy, szCopy));
    const chConstTextT<char> view("abc");
    CHECK(comparedText(view) == view && compareTexts(view, "abc") == 0 && compareTexts("abc", view) == 0);
    CHECK(compareTexts(view, view) == 0 && compareTexts("abc", "abc") == 0 && view == "abc");
    chReferenceStringT<char> str("12");
    chReferenceStringT<unsigned short> strWide;
    CHECK((str + "3") == "123" && (str + view) == "12abc" && (str + str) == "1212" && strWide.IsEmpty());
    CHECK((str >> szCopy) && strcmp(szCopy, "12") == 0);
}

// A node is a kind of node in a relation.
static void useExpressions() {
    reRegularExpress<char> re;
    re_RelationAnd<re_Group<char>, char> group;
    re_RelationAnd<re_Text<char>, char> text;
    re_RelationCase<re_Range<char>, char> range;
    re_RelationAnd<re_Reference<char>, char> reference;
    re_Relation<re_Text<char>>* const pRelation = &text;
    re_Base<char>* const aBase[] = {&re, &group, pRelation, &range, &reference};
    CHECK(aBase[3] == &range);
}

int main() {
    useChain();
    useLists();
    useTexts();
    useExpressions();
    return s_nFailed;
}
