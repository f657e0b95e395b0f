/// @file
/// The registry's store: every INI file that some process has opened, once, in memory that all processes share.
///
/// The segment "ipc_registry" of 1 MiB holds documents, their sections and their keys. A document is loaded by the
/// first process that opens its file and stays until the device restarts; from then on all processes read and change
/// the same keys there. A change is counted; saving writes the counted keys to the file. Comments and blank lines stay
/// in the file only. Values are text.
///
/// @code
/// using namespace QOR_RegistryHelper;
/// uCRegistryHelper* pRegistry = uCRegistryHelpergetGlobalObject();
/// pRegistry->Lock(-1);
/// regDocument* pDocument = pRegistry->getObject()->GetDocumentObject("/rundata/config/net.ini");
/// const regKey* pKey = pDocument->GetSectionObject("Net")->FindKeyObject("port");
/// const int nPort = pKey != NULL ? atoi(pKey->GetValue()) : 5060;
/// pRegistry->Unlock();
/// @endcode
///
/// Names of sections and keys are compared without regard to case, file names and values exactly. Everything in the
/// segment is touched under the registry's lock only, which is the frame's; it is taken before the lock of the named
/// blocks and that of the trace, and never together with that of the messages.
///
/// A process may be killed at any instruction. What others find is the store before or after the change: records are
/// complete before they are linked, and a new text is linked before the old one is freed. A document under construction
/// has no file name yet; a document without one is what a dead process has left, and whoever next adds something frees
/// it. Links are checked before they are followed; damage is a fatal assertion. Running out of room is the pool's fatal
/// assertion, behind which the others go on with the store as it was. Read on in Monitor.h.
#ifndef QOR_REGISTRYHELPER_STORE_H
#define QOR_REGISTRYHELPER_STORE_H

#include <atomic>
#include <string>

#include "qor/AllocHelper.h"
#include "qor/BaseHelper/Share.h"
#include "qor/BaseHelper/Sync.h"
#include "qor/ChainHelper/CheckedChain.h"
#include "qor/FileHelper/Ini.h"
#include "qor/ListHelper.h"
#include "qor/MsgQueueHelper/Message.h"
#include "qor/StringHelper.h"

/// The shared configuration registry.
namespace QOR_RegistryHelper {

using QOR_FileHelper::phraseConstTextA;

/// A link of shared memory to an object of the same segment: the distance from itself, all ones for null.
template <class T = void>
class offset_pointer : private QOR_ChainHelper::relativePointer {
public:
    /// Null.
    offset_pointer() { set(this, NULL); }
    /// The object, or null. The distance is not checked.
    T* get_pData() const { return static_cast<T*>(get(this)); }
    /// Points at an object, or at none. Fatal: it is too far away to be of the same segment.
    void set_pData(const T* p) { set(this, p); }
};

static_assert(sizeof(offset_pointer<>) == 4, "shared layout");

/// A list of the store's objects. The caller holds the registry's lock. Damage is a fatal assertion.
template <class T>
class regObjList : public QOR_ListHelper::chObjList_pool_share<T> {
public:
    /// The first object for which fn answers true, or null.
    template <class Fn>
    T* FindObject(Fn fn) const {
        return objectOf(chain().Find([&fn](chain_type* pLink) { return fn(*objectOf(pLink)); }));
    }
    /// Calls fn for every object, in order.
    template <class Fn>
    void ForEach(Fn fn) const {
        FindObject([&fn](T& object) {
            fn(object);
            return false;
        });
    }
    /// Links a new object at the end, after fn has filled it. Null, and the object is freed, when fn answers false.
    template <class Fn>
    T* AppendObject(Fn fnFill) {
        node_type* const pNode = this->BorrowNode();
        if (pNode == NULL)
            return NULL;
        if (!fnFill(pNode->m_value)) {
            this->ReturnNode(pNode);
            return NULL;
        }
        this->link_node(this->end(), pNode);
        return &pNode->m_value;
    }
    /// The last object, or null.
    T* LastObject() const { return objectOf(chain().Last()); }
    /// Unlinks an object of the list and frees it.
    void EraseObject(T* pObject) { this->erase(this->value_pointer_2_iterator(pObject)); }
    /// Unlinks and frees the last object, as often as there is one and fn, called with it, answers true.
    template <class Fn>
    void EraseLastWhile(Fn fn) {
        chain().DrainBackwards([&fn](chain_type* pLink) { return fn(*objectOf(pLink)); },
                               [this](chain_type* pLink) { EraseObject(objectOf(pLink)); });
    }

private:
    typedef typename QOR_ListHelper::chObjList_pool_share<T>::node_type node_type;
    typedef QOR_ChainHelper::list_chain_offset chain_type;

    QOR_ChainHelper::shareChain chain() const {
        return QOR_ChainHelper::shareChain(this->end().m_pThisNode, sizeof(node_type), "QORRegistry");
    }
    static T* objectOf(chain_type* pLink) { return pLink != NULL ? &static_cast<node_type*>(pLink)->m_value : NULL; }
};

/// A key and its value.
class QOR_API regKey {
public:
    /// Without name, value and pool.
    regKey();

    /// Gives the key its name and a value; once, before it can be found. Whether there was room for both.
    bool InitKey(QOR_AllocHelper::baseStaticPoolAlloc* pPool, const phraseConstTextA& name,
                 const phraseConstTextA& text);
    /// Whether the key has that name; uHash is regNameHash() of it.
    bool IsNamed(const phraseConstTextA& name, uint32_t uHash) const;
    /// The value, until it changes; null for a null key.
    const char* GetValue() const;
    /// Stores a value. 1 when it differs from the stored one, or is the first that the key gets; else 0. A value, or
    /// a key's name, that an INI file cannot hold is refused with a warning: 0, and nothing is changed.
    BOOL SetValue(const phraseConstTextA& text);
    /// Whether SetValue() would answer 1.
    bool IsChangedBy(const phraseConstTextA& text) const;

    QOR_StringHelper::chShareStringA m_strName;   ///< the name; it never changes
    QOR_StringHelper::chShareStringA m_strValue;  ///< the value
    int32_t m_nChagedCount;                       ///< changes not yet in the file
    int32_t m_bFresh;                             ///< 1 until the first SetValue()
    uint32_t m_uNameHash;                         ///< regNameHash() of the name
};

class regDocument;

/// A section: its keys, and who is told of their changes.
class QOR_API regSection {
public:
    /// Without name, keys and pool.
    regSection();
    /// Frees everything, the youngest first.
    ~regSection();

    /// Names the section; once, before it can be found. Whether there was room for the name.
    bool InitSection(QOR_AllocHelper::baseStaticPoolAlloc* pPool, const phraseConstTextA& name);
    /// Whether the section has that name; uHash is regNameHash() of it.
    bool IsNamed(const phraseConstTextA& name, uint32_t uHash) const;

    /// The key of a name, or null.
    regKey* FindKeyObject(const phraseConstTextA& name) const;
    /// The key of a name, appended without a value when there is none.
    regKey* GetKeyObject(const phraseConstTextA& name);
    /// Sets the value of a key, which is made when there is none; 1, and counted in key, section and document, when
    /// that changed something, else 0. What an INI file cannot hold, as the value or as the name of key or section, is
    /// refused: 0, and nothing is changed. strWarning becomes what is to be reported when the lock is free: of a key
    /// that was made ("Write: %s"), or of a refusal ("Refused: ..."), else empty.
    BOOL SetKeyValue(const phraseConstTextA& name, const phraseConstTextA& text, std::string& strWarning);
    /// Appends a key with its value, of a name that no key has, as read from the file: nothing is counted.
    regKey* AppendKey(const phraseConstTextA& name, const phraseConstTextA& text) { return AppendKey(name, text, 0); }
    /// Frees every key, the youngest first.
    void ClearKeys();

    /// The document that holds the section, or null.
    regDocument* GetHostDocument() const;
    /// Stores the document that holds the section.
    void SetHostDocument(const regDocument* pDocument) { m_pHostDocument.set_pData(pDocument); }

    /// Adds a monitor, after those of dead tasks have been removed: the task is told of each flush of a change of the
    /// section, by the method of a processor of its process, which may be null. Once more for each time it is added.
    QOR_MsgQueueHelper::msgEntryPair* AddMonitorTask(int idTask, const QOR_MsgQueueHelper::chMsgProcesser* pProcesser,
                                                     QOR_MsgQueueHelper::msgMethod pMethod);
    /// Removes a monitor; whether it was one of the section's. Any other address is compared, never followed.
    bool RemoveMonitorTask(const QOR_MsgQueueHelper::msgEntryPair* pEntry);
    /// Removes every monitor of that task, processor and method.
    void RemoveMonitorTask(int idTask, const QOR_MsgQueueHelper::chMsgProcesser* pProcesser,
                           QOR_MsgQueueHelper::msgMethod pMethod);
    /// Removes the monitors of tasks that no longer exist.
    void ClearGhostTask();

    regObjList<regKey> m_lstKey;                                ///< in the order in which they were made
    QOR_StringHelper::chShareStringA m_strName;                 ///< the name; it never changes
    regObjList<QOR_MsgQueueHelper::msgEntryPair> m_lstMonitor;  ///< who is told of changes
    int32_t m_bChanged;                                         ///< 1 from a change until the next flush
    int32_t m_nChagedCount;                                     ///< changes not yet in the file, of all keys
    offset_pointer<regDocument> m_pHostDocument;                ///< the document
    uint32_t m_uNameHash;                                       ///< regNameHash() of the name

private:
    regKey* AppendKey(const phraseConstTextA& name, const phraseConstTextA& text, int nChanges);
    template <class Fn>
    void RemoveMonitorsIf(Fn fnRemove);
};

/// A document: the sections of one INI file.
class QOR_API regDocument {
public:
    /// Without sections, file name and pool.
    regDocument();
    /// Frees everything, the youngest first.
    ~regDocument();

    /// Points everything at the pool; once, before it can be found.
    void InitDocument(QOR_AllocHelper::baseStaticPoolAlloc* pPool);
    /// The section of a name, or null.
    regSection* FindSectionObject(const phraseConstTextA& name) const;
    /// The section of a name, appended without keys when there is none.
    regSection* GetSectionObject(const phraseConstTextA& name);
    /// Takes in the sections and keys of a file, which may be missing, and then its name. 1; 0, with a warning
    /// ("[%s] NOT readable: ...") and nothing changed, for a file that is there and cannot be read.
    BOOL CreateFromFile(const char* lpszFileName);
    /// Takes in the sections and keys of a file already read, and then its name. Returns 1.
    BOOL CreateFromIni(const char* lpszFileName, const QOR_FileHelper::iniFile& file);
    /// Frees every section, the youngest first.
    void ClearSections();

    regObjList<regSection> m_lstSection;             ///< in the order in which they were made
    QOR_StringHelper::chShareStringA m_strFileName;  ///< the file; empty while the document is being made
    int32_t m_nChagedCount;                          ///< changes not yet in the file, of all sections
    int32_t m_bChanged;                              ///< 1 while a section may have its flag set
    uint32_t m_uSaveGeneration;                      ///< how often a write of the file was begun
    int32_t m_nSaveAsked;                            ///< requests to the saver that it has not yet met

private:
    regSection* AppendSection(const phraseConstTextA& name);
};

/// The root of the store.
class QOR_API regDocumentManager : public QOR_BaseHelper::ipcObjectHeader {
public:
    static constexpr int segmentSize = 0x100000;         ///< the segment's size in bytes
    static constexpr int segmentType = 1001;             ///< its type number
    static constexpr int poolSize = segmentSize - 0x2C;  ///< what documents share

    /// Runs in fresh shared memory. The header comes last: until then the segment counts as never made.
    regDocumentManager();

    /// The document of a file, or null.
    regDocument* FindDocumentObject(const char* lpszFileName) const;
    /// The document of a file, loaded when there is none. A file name that is not absolute is a warning
    /// ("[%s] NOT absolute path"). Null, with a warning ("[%s] NOT readable: ...") and no document made, for a file
    /// that is there and cannot be read: the next call tries again. Fatal: null or empty.
    regDocument* GetDocumentObject(const char* lpszFileName);
    /// The same without the warning, from a file already read.
    regDocument* GetDocumentObject(const char* lpszFileName, const QOR_FileHelper::iniFile& file);
    /// Frees the document that a process died upon while it was making it. To be called before anything is added.
    void ClearLostDocument();

    QOR_AllocHelper::baseStaticPoolAlloc m_objPool;  ///< serves all of the store
    regObjList<regDocument> m_lstDocument;           ///< in the order in which they were opened
    int32_t m_idSaverTask;                           ///< the task that saves for all; 0 when there is none
    uint8_t m_arrPool[poolSize];                     ///< the pool's area
};

static_assert(regDocumentManager::poolSize == 0xFFFD4, "the pool fills the segment");
static_assert(sizeof(regKey) == 28, "shared layout");
static_assert(sizeof(regSection) == 56, "shared layout");
static_assert(sizeof(regDocument) == 40, "shared layout");
static_assert(sizeof(regDocumentManager) == 0x100000, "shared layout");

/// A number that names have in common when they differ in case only, the same on every ABI.
QOR_API uint32_t regNameHash(const phraseConstTextA& name);

/// The process's view of the store. As the frame it is also the registry's lock. Any thread may call it. Get it by
/// uCRegistryHelpergetGlobalObject().
class QOR_API uCRegistryHelper
    : public QOR_BaseHelper::ipcObjectFrame<regDocumentManager, QOR_BaseHelper::chMapFile, QOR_BaseHelper::chMutex> {
public:
    /// Opens the store. Fatal: a second instance ("pData == NULL"), a segment of another build.
    uCRegistryHelper();

    /// The distance of an object from the begin of the store; 0 for null.
    uintptr_t GetHandle(const void* pObject) const;
    /// The section of a handle; null unless it is that of a section. The caller holds the lock.
    regSection* GetSection(uintptr_t uHandle);
    /// The document of a handle; null unless it is that of a document. The caller holds the lock.
    regDocument* GetDocument(uintptr_t uHandle);
    /// Takes the lock and answers the document of a file, which is read before that when no process has opened it yet.
    /// A file name that is not absolute is a warning. Null, without the lock and with a warning, for a file that is
    /// there and cannot be read. Fatal, and without the lock: a null or empty name.
    regDocument* LockDocument(const char* lpszFileName);

    /// Held, without the registry's lock, by who writes a document to its file.
    QOR_BaseHelper::chMutex& GetSaveLock() { return m_mtxSave; }

    /// In a child after fork. Runs by itself.
    void fork_reset();

private:
    regSection* FindSection(const regSection* pSection) const;

    QOR_BaseHelper::chMutex m_mtxSave;
    std::atomic<uintptr_t> m_arrSection[64];  // handles known to be those of sections, which never go
};

/// The process's uCRegistryHelper, made on first use and never torn down under running threads.
QOR_API uCRegistryHelper* uCRegistryHelpergetGlobalObject();

}  // namespace QOR_RegistryHelper

/// Tells the monitors of a document's changed sections, then saves it, or asks the saver to. Takes the registry's lock.
/// Returns 1. Fatal: null ("pDocument != NULL").
QOR_API BOOL registryFlush(QOR_RegistryHelper::regDocument* pDocument);
/// Writes a document's counted keys to its file. Takes the registry's lock. 1 when the file is up to date; 0 for null
/// and when it could not be written: then the keys stay counted.
QOR_API BOOL regSaveRegistryDocument(QOR_RegistryHelper::regDocument* pDocument);

#endif
