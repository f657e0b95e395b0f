/// @file
/// Lists, sorted maps and pair lists, in the memory of one process or in a shared pool.
///
/// All are circular doubly linked lists over the chains of ChainHelper.h. The dynamic forms take their nodes from heap
/// blocks of N nodes; the pool_share forms take each node from a pool and link it by offsets, so the whole list can lie
/// in a segment: construct it in place, then point its allocator at the segment's pool with InitPool(). What a walk
/// meets in shared memory is checked; damage is the fatal assertion "broken share chain".
///
/// @code
/// QOR_ListHelper::chMapList_dynamic<int, int, 16> map;
/// map[5] = 50;
/// map[1] = 10;                                        // in front: a map is in ascending order of keys
/// for (auto it = map.begin(); it != map.end(); ++it)
///     use((*it).key, (*it).value);
/// @endcode
///
/// An iterator is valid until its node is erased; end() is the list's head. No container locks. A process that is
/// killed inside an operation leaves the list as it was or as it was to be; only size() may be one behind. An iterator
/// cannot tell that a damaged chain runs in a ring: a walk of one's own counts, or is left to find_if(), which does.
#ifndef QOR_LISTHELPER_H
#define QOR_LISTHELPER_H

#include <new>

#include "qor/AllocHelper.h"
#include "qor/ChainHelper/CheckedChain.h"

/// Lists and maps.
namespace QOR_ListHelper {

using QOR_ChainHelper::list_chain_offset;
using QOR_ChainHelper::list_chain_pointer;
using QOR_ChainHelper::list_node_offset;
using QOR_ChainHelper::list_node_pointer;

/// A key and its value, the payload of map nodes.
template <class K, class V>
struct pair_type {
    pair_type() : key(), value() {}
    K key;    ///< the key
    V value;  ///< the value
};

/// The checks of a list's links, by the kind of its chain.
template <class chain>
class listChecks;

/// The links of one process are trusted.
template <>
class listChecks<list_chain_pointer> {
public:
    typedef list_chain_pointer chain_type;  ///< the links

    /// Nothing depends on the head or on the size of a node.
    listChecks(const list_chain_pointer*, size_t) {}
    /// Whether a link may lead to a node at an address: always.
    bool isRecord(const list_chain_pointer*) const { return true; }
    /// There is no upper bound.
    uintptr_t maxRecords() const { return ~static_cast<uintptr_t>(0); }
    /// The fatal assertion.
    bool fail() const { return QOR_ASSERT_IN("_chList", false, "broken share chain"); }
};

/// The links of shared memory must stay in the segment of the list.
template <>
class listChecks<list_chain_offset> : public QOR_ChainHelper::segmentChecks {
public:
    /// A node has at least sizeNode bytes.
    listChecks(const list_chain_offset* pHead, size_t sizeNode)
        : segmentChecks(pHead, sizeNode, "_chList", "broken share chain") {}
};

/// The chain of a list's nodes.
template <class Node>
using listChain = QOR_ChainHelper::checkedChain<listChecks<typename Node::chain_type>>;

/// A place in a list: a node, or the head as the end.
template <class Node>
class list_iterator {
public:
    typedef typename Node::value_type value_type;  ///< the payload's type

    explicit list_iterator(Node* pNode = NULL) : m_pThisNode(pNode) {}

    /// The node's payload. Not at the end.
    value_type& operator*() const { return checkedNode()->m_value; }
    /// The node's payload. Not at the end.
    value_type* operator->() const { return &checkedNode()->m_value; }
    /// To the next node.
    list_iterator& operator++() { return moveTo(ring().Right(m_pThisNode)); }
    /// To the previous node.
    list_iterator& operator--() { return moveTo(ring().Left(m_pThisNode)); }
    /// The place n nodes on, or -n nodes back.
    list_iterator operator+(int n) const {
        list_iterator it = *this;
        for (; n > 0; --n)
            ++it;
        for (; n < 0; ++n)
            --it;
        return it;
    }
    bool operator==(const list_iterator& r) const { return m_pThisNode == r.m_pThisNode; }
    bool operator!=(const list_iterator& r) const { return m_pThisNode != r.m_pThisNode; }

    Node* m_pThisNode;  ///< the node; the head stands for the end

private:
    typedef typename Node::chain_type chain_type;

    // Any place of a ring can be the head of a walk. A step may lead to the list's head, which has no payload.
    listChain<Node> ring() const {
        return listChain<Node>(m_pThisNode, listChecks<chain_type>(m_pThisNode, sizeof(chain_type)));
    }
    list_iterator& moveTo(chain_type* pPlace) {
        m_pThisNode = reinterpret_cast<Node*>(pPlace);
        return *this;
    }
    // The steps have checked that there is room for a link; a payload needs more.
    Node* checkedNode() const {
        const listChecks<chain_type> checks(m_pThisNode, sizeof(Node));
        if (!checks.isRecord(m_pThisNode))
            checks.fail();
        return m_pThisNode;
    }
};

/// Nodes from heap blocks of N.
template <class Node, int N>
class chAlloc_Node_dynamic : public QOR_AllocHelper::baseDynamicNodeAlloc {
public:
    typedef Node node_type;  ///< the node's type
    static_assert(alignof(Node) <= 2 * sizeof(void*), "the heap aligns its blocks to two pointers");

    /// A new node with a default payload.
    Node* BorrowNode() {
        char* p = static_cast<char*>(borrow_node(sizeof(Node) + 2 * sizeShift, N));
        return p != NULL ? new (p + sizeShift) Node : NULL;
    }
    /// Destroys a node.
    void ReturnNode(Node* pNode) {
        pNode->~Node();
        return_node(reinterpret_cast<char*>(pNode) - sizeShift);
    }

private:
    // A block begins with one pointer; on 32-bit, a node that holds 64-bit numbers stands another one behind.
    static constexpr int sizeShift = alignof(Node) > sizeof(void*) ? sizeof(void*) : 0;
};

/// Nodes from a pool of the segment that the list lies in.
template <class Node>
class chAlloc_Pool_share : public QOR_AllocHelper::baseSharePoolAlloc {
public:
    typedef Node node_type;  ///< the node's type

    /// A new node with a default payload and nExtraSize bytes behind it. Fatal: a negative size.
    Node* BorrowNode(int nExtraSize = 0) {
        if (!QOR_ASSERT_IN("_chList", nExtraSize >= 0, "nExtraSize >= 0"))
            return NULL;
        constexpr int nMost = 0x7FFFFFFF - static_cast<int>(sizeof(Node));
        void* p = this->alloc(nExtraSize <= nMost ? static_cast<int>(sizeof(Node)) + nExtraSize : 0x7FFFFFFF);
        return p != NULL ? new (p) Node : NULL;
    }
    /// Destroys a node. Fatal: null.
    void ReturnNode(Node* pNode) {
        if (!QOR_ASSERT_IN("_chList", pNode != NULL, "pNode != NULL"))
            return;
        pNode->~Node();
        this->free(pNode);
    }
};

/// The list over a node allocator.
template <class Alloc>
class chMeth_List : public Alloc {
public:
    typedef typename Alloc::node_type node_type;        ///< the node's type
    typedef typename node_type::value_type value_type;  ///< an element's type
    typedef typename node_type::chain_type chain_type;  ///< the link's type
    typedef list_iterator<node_type> iterator;          ///< a place in the list

    chMeth_List() {
        QOR_ChainHelper::storeShareWord(m_nCount, 0);
        QOR_ChainHelper::link_list_node(&m_vHead, &m_vHead);
    }
    chMeth_List(const chMeth_List&) = delete;
    chMeth_List& operator=(const chMeth_List&) = delete;
    /// Erases every element.
    ~chMeth_List() { clear(); }

    /// The number of elements.
    int size() const { return QOR_ChainHelper::loadShareWord(m_nCount); }
    /// Whether there is none; by the links, which a killed process may have left one ahead of the number.
    bool empty() const { return begin() == end(); }
    /// The first element, or end().
    iterator begin() const { return ++end(); }
    /// The end position.
    iterator end() const { return iterator(reinterpret_cast<node_type*>(const_cast<chain_type*>(&m_vHead))); }
    /// The last element, or end().
    iterator tail() const { return --end(); }
    /// The first element. The list is not empty.
    value_type& front() const { return *begin(); }

    /// Appends a copy of an element.
    void push_back(const value_type& value) { insert(end(), value); }
    /// Puts a copy of an element in front.
    void push_front(const value_type& value) { insert(begin(), value); }
    /// Erases the last element; nothing when the list is empty.
    void pop_back() { erase(tail()); }
    /// Erases the first element; nothing when the list is empty.
    void pop_front() { erase(begin()); }
    /// Inserts a copy of an element in front of a place.
    iterator insert(iterator it, const value_type& value) {
        node_type* pNode = this->BorrowNode();
        if (pNode == NULL)
            return end();
        pNode->m_value = value;
        return link_node(it, pNode);
    }
    /// Inserts a default element in front of a place, for the caller to fill.
    value_type& alloc_insert(iterator it) { return *link_node(it, this->BorrowNode()); }
    /// Appends a default element, for the caller to fill.
    value_type& alloc_push_back() { return alloc_insert(end()); }

    /// Erases the element at a place; nothing at the end or when the list is empty.
    void erase(iterator it) {
        if (empty() || it == end())
            return;
        const listChain<node_type> chain = nodes();
        if (!chain.CheckRecord(it.m_pThisNode))
            return;
        QOR_ChainHelper::storeShareWord(m_nCount, size() > 0 ? size() - 1 : 0);
        chain.Unlink(it.m_pThisNode);
        this->ReturnNode(it.m_pThisNode);
    }
    /// Erases the first element equal to a value; whether there was one.
    bool erase_value(const value_type& value) {
        iterator it = find(value);
        const bool bFound = it != end();
        erase(it);
        return bFound;
    }
    /// Erases the element at an address; whether it is one of the list's.
    bool erase_value_pointer(const value_type* pValue) {
        iterator it = find_value_pointer(pValue);
        const bool bFound = it != end();
        erase(it);
        return bFound;
    }
    /// The first element equal to a value, or end().
    iterator find(const value_type& value) const {
        return find_if([&value](const value_type& r) { return r == value; });
    }
    /// The element at an address, or end(): the address is compared, never followed.
    iterator find_value_pointer(const value_type* pValue) const {
        return find_if([pValue](const value_type& r) { return &r == pValue; });
    }
    /// The place of an element that is one of the list's.
    static iterator value_pointer_2_iterator(const value_type* pValue) {
        node_type* pNull = reinterpret_cast<node_type*>(static_cast<uintptr_t>(4096));
        const uintptr_t uOffset = reinterpret_cast<uintptr_t>(&pNull->m_value) - 4096;
        return iterator(reinterpret_cast<node_type*>(reinterpret_cast<uintptr_t>(pValue) - uOffset));
    }
    /// The first element for which fn answers true, or end().
    template <class Fn>
    iterator find_if(Fn fn) const {
        chain_type* const p = nodes().Find([&fn](chain_type* pNode) { return fn(nodeOf(pNode)->m_value); });
        return p != NULL ? iterator(nodeOf(p)) : end();
    }
    /// Erases every element for which fn returns true.
    template <class Fn>
    void erase_if(Fn fn) {
        nodes().Drain([&fn](chain_type* pNode) { return fn(nodeOf(pNode)->m_value); },
                      [this](chain_type* pNode) { erase(iterator(nodeOf(pNode))); });
    }
    /// Erases every element.
    void clear() {
        erase_if([](const value_type&) { return true; });
    }

protected:
    /// Links a complete node in front of a place.
    iterator link_node(iterator it, node_type* pNode) {
        const listChain<node_type> chain = nodes();
        chain_type* const pLeft = chain.CheckedLeft(it.m_pThisNode);
        if (pLeft == NULL)
            return end();
        chain.InsertAfter(pLeft, pNode);
        QOR_ChainHelper::storeShareWord(m_nCount, static_cast<int32_t>(static_cast<uint32_t>(size()) + 1));
        return iterator(pNode);
    }

private:
    listChain<node_type> nodes() const {
        return listChain<node_type>(&m_vHead, listChecks<chain_type>(&m_vHead, sizeof(node_type)));
    }
    static node_type* nodeOf(chain_type* p) { return reinterpret_cast<node_type*>(p); }

    int32_t m_nCount;
    chain_type m_vHead;
};

/// A map in ascending order of unique keys; look-ups are linear. K has operator< and operator!=.
template <class List>
class chMeth_MapList : public List {
public:
    typedef typename List::iterator iterator;               ///< a place in the map
    typedef decltype(List::value_type::key) key_type;       ///< a key's type
    typedef decltype(List::value_type::value) mapped_type;  ///< a value's type

    /// The value of a key, inserted with a default value when it is missing.
    mapped_type& operator[](const key_type& key) {
        iterator it = not_below(key);
        if (it != this->end() && !((*it).key != key))
            return (*it).value;
        typename List::node_type* pNode = this->BorrowNode();
        pNode->m_value.key = key;
        return (*this->link_node(it, pNode)).value;
    }
    /// The place of a key, or end().
    iterator find_key(const key_type& key) const {
        iterator it = not_below(key);
        return it != this->end() && !((*it).key != key) ? it : this->end();
    }

private:
    iterator not_below(const key_type& key) const {
        return this->find_if([&key](const typename List::value_type& r) { return !(r.key < key); });
    }
};

/// An unsorted list of pairs; keys may repeat.
template <class List>
class chMeth_PairList : public List {
public:
    typedef decltype(List::value_type::key) key_type;       ///< a key's type
    typedef decltype(List::value_type::value) mapped_type;  ///< a value's type

    using List::push_back;
    /// Appends a pair.
    void push_back(const key_type& key, const mapped_type& value) {
        typename List::value_type& pair = this->alloc_push_back();
        pair.key = key;
        pair.value = value;
    }
    /// The first pair of a key, or end().
    typename List::iterator find_key(const key_type& key) const {
        return this->find_if([&key](const typename List::value_type& r) { return !(r.key != key); });
    }
};

/// A list of records of any size in a shared pool: each node holds an int and the record's bytes behind it.
template <class Alloc>
class chMeth_Cabin : public chMeth_List<Alloc> {
public:
    typedef typename chMeth_List<Alloc>::iterator iterator;  ///< a place in the list

    /// Inserts a node with nExtraSize record bytes in front of a place and returns the address of its int.
    /// Fatal: a null place.
    int* alloc_insert(iterator it, int nExtraSize) {
        if (!QOR_ASSERT_IN("_chList", it.m_pThisNode != NULL, "it.m_pThisNode != NULL"))
            return NULL;
        return alloc_insert_filled(it, nExtraSize, NULL);
    }
    /// alloc_insert() with the int set to nExtraSize and the record's bytes written before the node is linked.
    int* alloc_insert_filled(iterator it, int nExtraSize, const void* pData) {
        typename Alloc::node_type* pNode = this->BorrowNode(nExtraSize);
        if (pNode == NULL)
            return NULL;
        if (pData != NULL) {
            QOR_ChainHelper::storeShareWord(pNode->m_value, nExtraSize);
            QOR_ChainHelper::copyShareBytes(get_value_pointer(&pNode->m_value), pData, static_cast<size_t>(nExtraSize));
        }
        return &*this->link_node(it, pNode);
    }
    /// The record bytes behind a node's int.
    static void* get_value_pointer(const int* p) { return const_cast<int*>(p + 1); }
};

/// A list of T, N nodes per heap block.
template <class T, int N>
class chObjList_dynamic : public chMeth_List<chAlloc_Node_dynamic<list_node_pointer<T>, N>> {};

/// A list of T in shared memory.
template <class T>
class chObjList_pool_share : public chMeth_List<chAlloc_Pool_share<list_node_offset<T>>> {};

/// A sorted map, N nodes per heap block.
template <class K, class V, int N>
class chMapList_dynamic
    : public chMeth_MapList<chMeth_List<chAlloc_Node_dynamic<list_node_pointer<pair_type<K, V>>, N>>> {};

/// A sorted map in shared memory.
template <class K, class V>
class chMapList_pool_share : public chMeth_MapList<chMeth_List<chAlloc_Pool_share<list_node_offset<pair_type<K, V>>>>> {
};

/// An unsorted list of pairs, N nodes per heap block.
template <class K, class V, int N>
class chPairList_dynamic
    : public chMeth_PairList<chMeth_List<chAlloc_Node_dynamic<list_node_pointer<pair_type<K, V>>, N>>> {};

/// A list of variable-size records in shared memory.
typedef chMeth_Cabin<chAlloc_Pool_share<list_node_offset<int>>> chCabin_share;

static_assert(sizeof(chObjList_pool_share<int>) == 16, "shared layout");
static_assert(sizeof(chMapList_pool_share<int, int>) == 16, "shared layout");
static_assert(sizeof(chCabin_share) == 16, "shared layout");
static_assert(sizeof(list_node_offset<int>) == 12, "shared layout");

}  // namespace QOR_ListHelper

#endif
