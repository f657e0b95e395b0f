/// @file
/// Chains: intrusive links, which are embedded in the nodes of lists and trees.
///
/// Every link comes in two encodings. A pointer link is one machine pointer, for structures of one process. An offset
/// link is one 32-bit word that holds the distance in bytes from itself to its target. So a structure made of offset
/// links is valid wherever its segment is mapped, as long as each link and its target lie in the same segment. All ones
/// means null; a distance of 0 means the link itself.
///
/// In a list link, pNext points to the beginning of the next link, but pPrev to the *pPrev word* of the previous one.
/// This asymmetry is part of the shared layout; code that walks backwards goes one word back to reach the beginning of
/// a link.
///
/// @code
/// QOR_ChainHelper::list_chain_offset vRoot, vNode;
/// QOR_ChainHelper::link_list_node(&vRoot, &vRoot);   // an empty circular list
/// QOR_ChainHelper::link_list_node(&vRoot, &vNode);   // vRoot -> vNode
/// QOR_ChainHelper::link_list_node(&vNode, &vRoot);   // vNode -> vRoot
/// @endcode
///
/// Nothing here locks: the caller holds the lock of the segment. Read on in ChainHelper/CheckedChain.h.
#ifndef QOR_CHAINHELPER_H
#define QOR_CHAINHELPER_H

#include "qor/ChainHelper/ShareWord.h"
#include "qor/TraceHelper/Report.h"

/// Intrusive links, and access to the words of shared memory.
namespace QOR_ChainHelper {

/// The self-relative pointer of shared memory: one word that holds the distance in bytes from a base to a target in the
/// same segment; all ones means null. The base is the word itself or the record that contains it, and is the same for
/// get() and set().
class relativePointer {
public:
    /// The target, or null. The distance is not checked; shareRange::holds() does that.
    void* get(const void* pBase) const {
        const int32_t nDistance = loadShareWord(m_nDistance);
        if (nDistance == nullDistance)
            return NULL;
        return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(pBase) +
                                       static_cast<uintptr_t>(static_cast<intptr_t>(nDistance)));
    }
    /// Points to a target; null is allowed. Fatal: the word cannot hold the distance from the base to the target, which
    /// never happens inside one segment; the pointer is null then.
    void set(const void* pBase, const void* pTarget) {
        storeShareWord(m_nDistance, pTarget == NULL ? nullDistance : distance(pBase, pTarget));
    }

private:
    static constexpr int32_t nullDistance = -1;

    static int32_t distance(const void* pBase, const void* pTarget) {
        const intptr_t nDistance =
            static_cast<intptr_t>(reinterpret_cast<uintptr_t>(pTarget) - reinterpret_cast<uintptr_t>(pBase));
        const int32_t nWord = static_cast<int32_t>(nDistance);
        const bool bFits = nWord == nDistance && nWord != nullDistance;
        return QOR_ASSERT_IN("_chChain", bFits, "the distance fits into 32 bits") ? nWord : nullDistance;
    }

    int32_t m_nDistance;
};

static_assert(sizeof(relativePointer) == 4, "shared layout");

/// Defines the pointer link and the offset link of one direction.
#define QOR_CHAIN_LINK(name)                                                                                \
    /** A link of one process: the address of another link, or null. */                                     \
    class pointer_chain_##name {                                                                            \
    public:                                                                                                 \
        /** The target, or null. */                                                                         \
        pointer_chain_##name* get_##name() const { return m_##name; }                                       \
        /** Stores the target. */                                                                           \
        void set_##name(const pointer_chain_##name* p) { m_##name = const_cast<pointer_chain_##name*>(p); } \
                                                                                                            \
    private:                                                                                                \
        pointer_chain_##name* m_##name;                                                                     \
    };                                                                                                      \
    /** A link of shared memory: the distance to another link; all ones means null. */                      \
    class offset_chain_##name : private relativePointer {                                                   \
    public:                                                                                                 \
        /** The target, or null. */                                                                         \
        offset_chain_##name* get_##name() const { return static_cast<offset_chain_##name*>(get(this)); }    \
        /** Stores the distance to the target. Fatal: it does not fit into 32 bits. */                      \
        void set_##name(const offset_chain_##name* p) { set(this, p); }                                     \
    };                                                                                                      \
    static_assert(sizeof(pointer_chain_##name) == sizeof(void*), "one pointer");                            \
    static_assert(sizeof(offset_chain_##name) == 4, "shared layout");

QOR_CHAIN_LINK(pNext)
QOR_CHAIN_LINK(pPrev)
QOR_CHAIN_LINK(pLeft)
QOR_CHAIN_LINK(pRight)
QOR_CHAIN_LINK(pParent)
QOR_CHAIN_LINK(pChild)
#undef QOR_CHAIN_LINK

/// A double link: pNext, then pPrev.
template <class next_type, class prev_type>
struct list_chain {
    typedef next_type chain_pNext;  ///< the first word
    typedef prev_type chain_pPrev;  ///< the second word

    /// The beginning of the next link, or null.
    list_chain* get_pNext() const { return reinterpret_cast<list_chain*>(m_vNext.get_pNext()); }
    /// The pPrev word of the previous link, or null.
    prev_type* get_pPrev() const { return m_vPrev.get_pPrev(); }
    /// Stores the next link; null is allowed.
    void set_pNext(const list_chain* p) { m_vNext.set_pNext(p != NULL ? &p->m_vNext : NULL); }
    /// Stores the address of the previous link's pPrev word; null is allowed.
    void set_pPrev(const list_chain* p) { m_vPrev.set_pPrev(p != NULL ? &p->m_vPrev : NULL); }
    /// The beginning of the previous link, or null.
    list_chain* get_pPrevNode() const {
        static_assert(offsetof(list_chain, m_vNext) == 0 && offsetof(list_chain, m_vPrev) == sizeof(next_type),
                      "pNext, then pPrev");
        prev_type* p = get_pPrev();
        return p != NULL ? reinterpret_cast<list_chain*>(reinterpret_cast<char*>(p) - sizeof(next_type)) : NULL;
    }

private:
    next_type m_vNext;
    prev_type m_vPrev;
};

/// The double link of a list of one process.
typedef list_chain<pointer_chain_pNext, pointer_chain_pPrev> list_chain_pointer;
/// The double link of a list in shared memory, 8 bytes.
typedef list_chain<offset_chain_pNext, offset_chain_pPrev> list_chain_offset;

static_assert(sizeof(list_chain_pointer) == 2 * sizeof(void*), "two pointers");
static_assert(sizeof(list_chain_offset) == 8, "shared layout");

/// A list link followed directly by a payload.
template <class T, class chain>
struct list_node : chain {
    typedef T value_type;      ///< the payload's type
    typedef chain chain_type;  ///< the link's type

    list_node() : m_value() {}

    T m_value;  ///< the payload
};

/// A node of a list in shared memory: an 8-byte link, the payload from byte 8.
template <class T>
struct list_node_offset : list_node<T, list_chain_offset> {};

/// A node of a list of one process.
template <class T>
struct list_node_pointer : list_node<T, list_chain_pointer> {};

/// Makes pRight the right neighbour of pLeft: stores pLeft's pNext and pRight's pPrev, nothing else. Either may be
/// null. A head that is linked to itself is an empty circular list.
template <class chain>
void link_list_node(chain* pLeft, chain* pRight) {
    if (pLeft != NULL)
        pLeft->set_pNext(pRight);
    if (pRight != NULL)
        pRight->set_pPrev(pLeft);
}

/// Unlinks a node: links its neighbours to each other and sets its links to them to null. Nothing is checked;
/// checkedChain does that. Fatal: a null node.
template <class chain>
void unlink_list_node(chain* pNode) {
    if (!QOR_ASSERT_IN("_chChain", pNode != NULL, "pNode != NULL"))
        return;
    chain* pPrev = pNode->get_pPrevNode();
    chain* pNext = pNode->get_pNext();
    // The backward link first: walks follow the forward links, and the store of pPrev's pNext removes the node from
    // them.
    if (pNext != NULL)
        pNext->set_pPrev(pPrev);
    if (pPrev != NULL)
        pPrev->set_pNext(pNext);
    if (pNext != NULL)
        pNode->set_pNext(NULL);
    if (pPrev != NULL)
        pNode->set_pPrev(NULL);
}

}  // namespace QOR_ChainHelper

#endif
