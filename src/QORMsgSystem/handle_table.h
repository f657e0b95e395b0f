// Handles: 32-bit words that stand for live objects of this process in shared records. A handle is the object's address
// where addresses have 32 bits, and elsewhere a number that no other live object has. Only this process decodes its
// handles.
#ifndef QOR_MSG_SYSTEM_HANDLE_TABLE_H
#define QOR_MSG_SYSTEM_HANDLE_TABLE_H

#include <stdint.h>

#include <unordered_map>

#include "internal/scope_lock.h"
#include "qor/BaseHelper/Sync.h"

namespace QOR_MsgQueueHelper {

// The handle of an object that has been destroyed before it is put into a record: never that of a live one.
constexpr uint32_t staleHandle = 0xFFFFFFFFu;

template <typename T>
class HandleTable {
public:
    uint32_t Add(const T* p) {
        scopeLock<QOR_BaseHelper::chCriticalSection> lock(m_csTable);
        const uint32_t uWord = sizeof(void*) == 4 ? addressWord(p) : freeNumber();
        m_mapObject[uWord] = const_cast<T*>(p);
        m_mapWord[p] = uWord;
        return uWord;
    }
    void Remove(const T* p) {
        scopeLock<QOR_BaseHelper::chCriticalSection> lock(m_csTable);
        auto it = m_mapWord.find(p);
        if (it == m_mapWord.end())
            return;
        m_mapObject.erase(it->second);
        m_mapWord.erase(it);
    }
    // The handle of a live object; 0 for null and for objects that are not listed.
    uint32_t Encode(const T* p) {
        scopeLock<QOR_BaseHelper::chCriticalSection> lock(m_csTable);
        auto it = m_mapWord.find(p);
        return it == m_mapWord.end() ? 0 : it->second;
    }
    // The live object of a handle, or null.
    T* Decode(uint32_t uWord) {
        scopeLock<QOR_BaseHelper::chCriticalSection> lock(m_csTable);
        auto it = m_mapObject.find(uWord);
        return it == m_mapObject.end() ? NULL : it->second;
    }
    // Before and after fork, so that the child never finds the table half changed.
    void fork_prepare() { m_csTable.Lock(); }
    void fork_done() { m_csTable.Unlock(); }

private:
    static uint32_t addressWord(const T* p) { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p)); }
    uint32_t freeNumber() {
        do
            m_uLast = (m_uLast + 1) | numberBase;
        while (m_uLast == staleHandle || m_mapObject.count(m_uLast) != 0);
        return m_uLast;
    }

    QOR_BaseHelper::chCriticalSection m_csTable;
    // A timer's number is also its id where the program has not chosen one, and programs choose small ids.
    static constexpr uint32_t numberBase = 0x80000000u;

    uint32_t m_uLast = 0;
    std::unordered_map<uint32_t, T*> m_mapObject;
    std::unordered_map<const T*, uint32_t> m_mapWord;
};

}  // namespace QOR_MsgQueueHelper

#endif
