/// @file
/// Lists, sorted maps and pair lists, in the memory of one process or in a shared pool.
///
/// All are circular doubly linked lists of the nodes of ChainHelper.h, walked and changed by CheckedChain.h. The
/// dynamic forms allocate their nodes in heap blocks of N nodes. The pool_share forms allocate each node from a pool
/// and link it by offsets, so that the whole list can lie in a segment: construct it in place, then give it the
/// segment's pool by InitPool(). Links in shared memory are checked before they are followed; damage is the fatal
/// assertion "broken share chain".
///
/// @code
/// QOR_ListHelper::chMapList_dynamic<int, int, 16> map;
/// map[5] = 50;
/// map[1] = 10;                                        // comes first: a map is in ascending order of keys
/// for (auto it = map.begin(); it != map.end(); ++it)
///     use((*it).key, (*it).value);
/// @endcode
///
/// An iterator is valid until its node is erased; end() is the list's head. No container locks. In a framed segment
/// (`BaseHelper/Share.h`) an operation whose process is killed has not happened. An iterator does not notice that a
/// damaged chain never comes back to the head: a loop over iterators of a shared list has to count its steps, or use
/// find_if() or erase_if(), which do.
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

/// A key and its value: the payload of map nodes.
template <class K, class V>
struct pair_type {
    pair_type() : key(), value() {}
    K key;    ///< the key
    V value;  ///< the value
};

/// What checkedChain checks of a list's links, by the kind of its chain.
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

/// A place in a list: a node, or the head, which stands for the end.
template <class Node>
class list_iterator {
public:
    typedef typename Node::value_type value_type;  ///< the payload's type

    explicit list_iterator(Node* pNode = NULL) : m_pThisNode(pNode) {}

    /// The node's payload. Must not be called at the end.
    value_type& operator*() const { return checkedNode()->m_value; }
    /// The node's payload. Must not be called at the end.
    value_type* operator->() const { return &checkedNode()->m_value; }
    /// Moves to the next node, or to the end; from the end to the first node.
    list_iterator& operator++() { return moveTo(ring().StepRight(m_pThisNode)); }
    /// Moves to the previous node; from the first node to the end, from the end to the last node.
    list_iterator& operator--() { return moveTo(ring().StepLeft(m_pThisNode)); }
    /// The place n nodes further, or -n nodes back. O(n).
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

    // A walk can begin at any place of a ring. A step may lead to the list's head, which has no payload.
    listChain<Node> ring() const {
        return listChain<Node>(m_pThisNode, listChecks<chain_type>(m_pThisNode, sizeof(chain_type)));
    }
    list_iterator& moveTo(chain_type* pPlace) {
        m_pThisNode = reinterpret_cast<Node*>(pPlace);
        return *this;
    }
    // The step that led here has checked that there is room for a link; a payload needs more.
    Node* checkedNode() const {
        const listChecks<chain_type> checks(m_pThisNode, sizeof(Node));
        if (!checks.isRecord(m_pThisNode))
            checks.fail();
        return m_pThisNode;
    }
};

/// Allocates nodes in heap blocks of N nodes.
template <class Node, int N>
class chAlloc_Node_dynamic : public QOR_AllocHelper::baseDynamicNodeAlloc {
public:
    typedef Node node_type;  ///< the node's type
    static_assert(alignof(Node) <= 2 * sizeof(void*), "the heap aligns its blocks to two pointers");

    /// Allocates a node with a default payload. Fatal: no memory.
    Node* BorrowNode() {
        char* p = static_cast<char*>(borrow_node(sizeof(Node) + 2 * sizeShift, N));
        return p != NULL ? new (p + sizeShift) Node : NULL;
    }
    /// Destroys and frees a node.
    void ReturnNode(Node* pNode) {
        pNode->~Node();
        return_node(reinterpret_cast<char*>(pNode) - sizeShift);
    }

private:
    // A block begins with one pointer. A node with the alignment of two, as 64-bit numbers have on 32-bit, begins one
    // pointer later in its slot.
    static constexpr int sizeShift = alignof(Node) > sizeof(void*) ? sizeof(void*) : 0;
};

/// Allocates nodes from a pool in the segment of the list.
template <class Node>
class chAlloc_Pool_share : public QOR_AllocHelper::baseSharePoolAlloc {
public:
    typedef Node node_type;  ///< the node's type

    /// Allocates a node with a default payload and nExtraSize bytes after it. Fatal: a negative size, no pool, no room.
    Node* BorrowNode(int nExtraSize = 0) {
        if (!QOR_ASSERT_IN("_chList", nExtraSize >= 0, "nExtraSize >= 0"))
            return NULL;
        constexpr int nMost = 0x7FFFFFFF - static_cast<int>(sizeof(Node));
        void* p = this->alloc(nExtraSize <= nMost ? static_cast<int>(sizeof(Node)) + nExtraSize : 0x7FFFFFFF);
        return p != NULL ? new (p) Node : NULL;
    }
    /// Destroys and frees a node. Fatal: null.
    void ReturnNode(Node* pNode) {
        if (!QOR_ASSERT_IN("_chList", pNode != NULL, "pNode != NULL"))
            return;
        pNode->~Node();
        this->free(pNode);
    }
};

/// The list whose nodes Alloc allocates.
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

    /// The number of elements. O(1).
    int size() const { return QOR_ChainHelper::loadShareWord(m_nCount); }
    /// Whether there are no elements.
    bool empty() const { return begin() == end(); }
    /// The first element, or end().
    iterator begin() const { return ++end(); }
    /// The end position.
    iterator end() const { return iterator(reinterpret_cast<node_type*>(const_cast<chain_type*>(&m_vHead))); }
    /// The last element, or end().
    iterator tail() const { return --end(); }
    /// The first element. The list must not be empty.
    value_type& front() const { return *begin(); }

    /// Appends a copy of an element. O(1).
    void push_back(const value_type& value) { insert(end(), value); }
    /// Inserts a copy of an element as the first one. O(1).
    void push_front(const value_type& value) { insert(begin(), value); }
    /// Erases the last element; does nothing if the list is empty.
    void pop_back() { erase(tail()); }
    /// Erases the first element; does nothing if the list is empty.
    void pop_front() { erase(begin()); }
    /// Inserts a copy of an element before a place, and returns the place of the copy.
    iterator insert(iterator it, const value_type& value) {
        node_type* pNode = this->BorrowNode();
        if (pNode == NULL)
            return end();
        pNode->m_value = value;
        return link_node(it, pNode);
    }
    /// Inserts a default element before a place, for the caller to fill.
    value_type& alloc_insert(iterator it) { return *link_node(it, this->BorrowNode()); }
    /// Appends a default element, for the caller to fill.
    value_type& alloc_push_back() { return alloc_insert(end()); }

    /// Erases the element at a place; does nothing at the end or if the list is empty. O(1).
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
    /// Erases the first element equal to a value; whether there was one. O(n).
    bool erase_value(const value_type& value) {
        iterator it = find(value);
        const bool bFound = it != end();
        erase(it);
        return bFound;
    }
    /// Erases the element at an address; whether the list had it. O(n).
    bool erase_value_pointer(const value_type* pValue) {
        iterator it = find_value_pointer(pValue);
        const bool bFound = it != end();
        erase(it);
        return bFound;
    }
    /// The first element equal to a value, or end(). O(n).
    iterator find(const value_type& value) const {
        return find_if([&value](const value_type& r) { return r == value; });
    }
    /// The element at an address, or end(). The address is compared, never followed. O(n).
    iterator find_value_pointer(const value_type* pValue) const {
        return find_if([pValue](const value_type& r) { return &r == pValue; });
    }
    /// The place of an element of a list. O(1).
    static iterator value_pointer_2_iterator(const value_type* pValue) {
        node_type* pNull = reinterpret_cast<node_type*>(static_cast<uintptr_t>(4096));
        const uintptr_t uOffset = reinterpret_cast<uintptr_t>(&pNull->m_value) - 4096;
        return iterator(reinterpret_cast<node_type*>(reinterpret_cast<uintptr_t>(pValue) - uOffset));
    }
    /// The first element for which fn returns true, or end(). O(n).
    template <class Fn>
    iterator find_if(Fn fn) const {
        chain_type* const p = nodes().Find([&fn](chain_type* pNode) { return fn(nodeOf(pNode)->m_value); });
        return p != NULL ? iterator(nodeOf(p)) : end();
    }
    /// Erases every element for which fn returns true. fn may be called several times for an element that stays: the
    /// search begins anew after every erased one. O(n) if few are erased or all.
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
    /// Links a complete node before a place, and returns the place of the node.
    iterator link_node(iterator it, node_type* pNode) {
        const listChain<node_type> chain = nodes();
        chain_type* const pLeft = chain.CheckedLeft(it.m_pThisNode);
        if (pLeft != NULL && chain.InsertAfter(pLeft, pNode))
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

/// A map: pairs in ascending order of their keys, which are unique. Searches are O(n). Keys need operator< and
/// operator!=.
template <class List>
class chMeth_MapList : public List {
public:
    typedef typename List::iterator iterator;               ///< a place in the map
    typedef decltype(List::value_type::key) key_type;       ///< a key's type
    typedef decltype(List::value_type::value) mapped_type;  ///< a value's type

    /// The value of a key; a missing key is inserted with a default value.
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

/// A list of pairs in order of insertion; keys may repeat. Keys need operator!=.
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
    /// The first pair with a key, or end(). O(n).
    typename List::iterator find_key(const key_type& key) const {
        return this->find_if([&key](const typename List::value_type& r) { return !(r.key != key); });
    }
};

/// A list of records of any size in a shared pool: each node holds an int, followed by the bytes of the record.
template <class Alloc>
class chMeth_Cabin : public chMeth_List<Alloc> {
public:
    typedef typename chMeth_List<Alloc>::iterator iterator;  ///< a place in the list

    /// Inserts a node for a record of nExtraSize bytes before a place, and returns the address of its int. The bytes
    /// are undefined. Fatal: a null place, a negative size, no room.
    int* alloc_insert(iterator it, int nExtraSize) {
        if (!QOR_ASSERT_IN("_chList", it.m_pThisNode != NULL, "it.m_pThisNode != NULL"))
            return NULL;
        return alloc_insert_filled(it, nExtraSize, NULL);
    }
    /// As alloc_insert(); unless pData is null, sets the int to nExtraSize and copies the bytes of the record from
    /// pData before the node is linked.
    int* alloc_insert_filled(iterator it, int nExtraSize, const void* pData) {
        typename Alloc::node_type* pNode = this->BorrowNode(nExtraSize);
        if (pNode == NULL)
            return NULL;
        if (pData != NULL) {
            QOR_ChainHelper::storeShareWord(pNode->m_value, nExtraSize);
            QOR_ChainHelper::fillShareBytes(get_value_pointer(&pNode->m_value), pData, static_cast<size_t>(nExtraSize));
        }
        return &*this->link_node(it, pNode);
    }
    /// The bytes of the record whose node has its int at p.
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
