// What the registry shares with the flat interface and the shortcuts: its lock for a scope, the saver, and reads of
// keys.
#ifndef QOR_INTERNAL_REGISTRY_H
#define QOR_INTERNAL_REGISTRY_H

#include <optional>
#include <string>

#include "internal/scope_lock.h"
#include "qor/RegistryHelper.h"
#include "qor/TraceHelper/Report.h"

namespace QOR_RegistryHelper {

// ---- locks

inline uCRegistryHelper& registry() { return *uCRegistryHelpergetGlobalObject(); }

// The proof that the calling thread holds the registry's lock. What needs the lock takes a reference to it as an
// argument and reaches the store through it.
class registryHold : public QOR_BaseHelper::shareHold<uCRegistryHelper> {
public:
    // The section or document of a handle; null unless it is that of one.
    regSection* GetSection(uintptr_t uHandle) const { return m_objFrame.GetSection(uHandle); }
    regDocument* GetDocument(uintptr_t uHandle) const { return m_objFrame.GetDocument(uHandle); }

protected:
    using shareHold::shareHold;
};

// The registry's lock for a scope.
class registryLock : public QOR_BaseHelper::scopeShareLock<uCRegistryHelper, registryHold> {
public:
    explicit registryLock(uCRegistryHelper& objRegistry = registry()) : scopeShareLock(objRegistry, "QORRegistry") {}
    // Takes over the lock of an operation that has returned with it.
    explicit registryLock(std::adopt_lock_t r) : scopeShareLock(registry(), r) {}
};

// The same for a scope that adds to the store: what a process left unfinished when it died is freed first.
class additionLock : public registryLock {
public:
    additionLock() { getObject()->ClearLostDocument(); }
};

// The same with the document of a file, which is loaded if need be. Null, and the lock is not held: the file is there
// and cannot be read.
class documentLock {
public:
    explicit documentLock(const char* lpszFileName) : m_pDocument(registry().LockDocument(lpszFileName)) {
        if (m_pDocument != NULL)
            m_lock.emplace(std::adopt_lock);
    }
    documentLock(const documentLock&) = delete;
    documentLock& operator=(const documentLock&) = delete;

    regDocument* const m_pDocument;

private:
    std::optional<registryLock> m_lock;
};

// The same with a section; null, and the lock may not be held: there is none.
class sectionLock {
public:
    // The section of a handle.
    explicit sectionLock(uintptr_t uSection) { m_pSection = m_lock.emplace().GetSection(uSection); }
    // The section of a file, which is loaded if need be; a section that is missing is made.
    sectionLock(const char* lpszFileName, const char* lpszSectionName)
        : sectionLock(lpszFileName, phraseConstTextA(lpszSectionName)) {}

    regSection* get() const { return m_pSection; }

private:
    sectionLock(const char* lpszFileName, const phraseConstTextA& name) {
        if (m_document.emplace(lpszFileName).m_pDocument != NULL)
            m_pSection = m_document->m_pDocument->GetSectionObject(name);
    }

    std::optional<registryLock> m_lock;
    std::optional<documentLock> m_document;
    regSection* m_pSection = NULL;
};

// ---- files

// Reads a document. True: it was read, or there is no such file and the document is empty. False (errno): the file is
// there and cannot be read, and must not be taken for empty.
bool readDocument(QOR_FileHelper::iniFile& file, const char* lpszFileName);

// The warning for such a file.
void warnUnreadable(const char* lpszFileName, int nError);

// ---- the saver

// Makes a task the saver, and saves what its predecessor was asked to and has not done.
void appointSaver(int idTask);

// Makes the task the saver no longer, and saves what it was asked to and has not done. False: it was not the saver.
bool dismissSaver(int idTask);

// ---- arguments

inline const char* textOf(const char* lpszText) { return lpszText != NULL ? lpszText : ""; }

// ---- keys

// Calls fn with the value of a key while the lock is held. The section is told as sectionLock is, by its handle or by
// file and name. False: there is no such section or key. A missing key of a section is a warning ("Read: %s"), printed
// after the lock is released in the name of module lpszModule.
template <class Fn, class... Section>
bool readKey(const char* lpszModule, const char* lpszKey, Fn fn, Section... section) {
    const phraseConstTextA name(lpszKey);
    {
        const sectionLock lock(section...);
        if (lock.get() == NULL)
            return false;
        if (const regKey* pKey = lock.get()->FindKeyObject(name)) {
            fn(pKey->GetValue());
            return true;
        }
    }
    QOR_WARN_IN(lpszModule, false, ("Read: " + std::string(name, static_cast<size_t>(name.GetLength()))).c_str());
    return false;
}

}  // namespace QOR_RegistryHelper

#endif
