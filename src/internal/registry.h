// What the sources over the registry's store share: walks over its lists, and its lock for a scope.
#ifndef QOR_INTERNAL_REGISTRY_H
#define QOR_INTERNAL_REGISTRY_H

#include <string>

#include "internal/report.h"
#include "internal/scope_lock.h"
#include "internal/share_chain.h"
#include "qor/RegistryHelper.h"

namespace QOR_RegistryHelper {

// ---- walks: by the way forward, bounded, each record checked to lie in the segment

template <class List>
QOR_ChainHelper::shareChain chainOf(const List& lst) {
    return QOR_ChainHelper::shareChain(lst.end().m_pThisNode, sizeof(typename List::node_type));
}

template <class List>
typename List::value_type* objectOf(const List&, QOR_ChainHelper::list_chain_offset* pLink) {
    return pLink != NULL ? &static_cast<typename List::node_type*>(pLink)->m_value : NULL;
}

template <class T>
template <class Fn>
T* regObjList<T>::FindObject(Fn fn) const {
    return objectOf(*this, chainOf(*this).Find(
                               [&](QOR_ChainHelper::list_chain_offset* pLink) { return fn(*objectOf(*this, pLink)); }));
}

template <class T>
template <class Fn>
void regObjList<T>::ForEach(Fn fn) const {
    FindObject([&fn](T& object) {
        fn(object);
        return false;
    });
}

template <class T>
T* regObjList<T>::LastObject() const {
    return objectOf(*this, chainOf(*this).Last());
}

template <class T>
template <class Fn>
T* regObjList<T>::AppendObject(Fn fnFill) {
    auto* pNode = this->BorrowNode();
    if (pNode == NULL)
        return NULL;
    if (!fnFill(pNode->m_value)) {
        this->ReturnNode(pNode);
        return NULL;
    }
    this->link_node(this->end(), pNode);
    return &pNode->m_value;
}

// ---- locks

inline uCRegistryHelper& registry() { return *uCRegistryHelpergetGlobalObject(); }

// The registry's lock.
class registryLock : public QOR_MsgQueueHelper::scopeShareLock<uCRegistryHelper> {
public:
    registryLock() : scopeShareLock(registry()) {}
};

// The registry's lock, with the document of a file; without it when there is no document.
class documentLock {
public:
    explicit documentLock(const char* lpszFileName) : m_pDocument(registry().LockDocument(lpszFileName)) {}
    ~documentLock() {
        if (m_pDocument != NULL)
            registry().Unlock();
    }
    documentLock(const documentLock&) = delete;
    documentLock& operator=(const documentLock&) = delete;

    regDocument* const m_pDocument;
};

// ---- arguments

inline const char* textOf(const char* lpszText) { return lpszText != NULL ? lpszText : ""; }

// ---- keys

// Calls fn with the value of a key while the lock is held; whether there is such a key. lpszReport says of a section
// without it "Read: %s", in the name of that module, when the lock is free again.
template <class Fn>
bool readKey(const char* lpszReport, uintptr_t uSection, const char* lpszKey, Fn fn) {
    const phraseConstTextA name(lpszKey);
    {
        registryLock lock;
        const regSection* pSection = registry().GetSection(uSection);
        if (pSection == NULL)
            return false;
        if (const regKey* pKey = pSection->FindKeyObject(name)) {
            fn(pKey->GetValue());
            return true;
        }
    }
    QOR_WARN_IN(lpszReport, false, ("Read: " + std::string(name, static_cast<size_t>(name.GetLength()))).c_str());
    return false;
}

}  // namespace QOR_RegistryHelper

#endif
