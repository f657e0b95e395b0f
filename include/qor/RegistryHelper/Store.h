/// @file
/// The registry's store: every INI file that a process has opened, once, in memory that all processes share.
///
/// The segment "ipc_registry" of 1 MiB holds documents, their sections and their keys. The first process that opens a
/// file loads it as a document, which stays until the device restarts; from then on all processes read and change the
/// same keys there. A change is counted; saving writes the counted keys to the file. Comments and blank lines stay in
/// the file only. Values are text.
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
/// Names of sections and keys are compared without regard to case, file names and values exactly.
///
/// Everything in the segment is read and changed under the registry's lock only, which is the frame's. The order of
/// locks is: the save lock, the registry's, then those of the named blocks and the trace. The lock of the messages is
/// never taken together with the registry's. Functions that take the registry's lock say so; calling one in a thread
/// that holds the lock is a fatal assertion that names it ("[/tmp/qor_ipc_registry] is held by the calling thread
/// already"). All others are called with the lock held.
///
/// A process may be killed at any instruction: the others find the store as it was before the change or after it. A
/// document under construction has no file name; one that is found so is freed before anything is added. Links are
/// checked before they are followed; damage is a fatal assertion. Where there is no room, the pool's fatal assertion
/// ends the process, and the others go on with the store as it was. Read on in Monitor.h.
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

/// A link to an object of the same segment: the distance from the link itself, all ones for null.
template <class T = void>
class offset_pointer : private QOR_ChainHelper::relativePointer {
public:
    /// Null.
    offset_pointer() { set(this, NULL); }
    /// The object, or null. The distance is not checked here; the function that follows the link checks it.
    T* get_pData() const { return static_cast<T*>(get(this)); }
    /// Points at an object, or at none. Fatal: it is too far away to be of the same segment.
    void set_pData(const T* p) { set(this, p); }
};

static_assert(sizeof(offset_pointer<>) == 4, "shared layout");

/// A list of the store's objects. Damage is a fatal assertion ("broken share chain").
template <class T>
class regObjList : public QOR_ListHelper::chObjList_pool_share<T> {
public:
    /// The first object for which fn returns true, or null.
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
    /// Links a new object at the end, after fnFill has filled it. Null: fnFill returned false, and the object is freed;
    /// or the pool has no room, which is fatal.
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
    /// Unlinks and frees the last object, over and over, until there is none or fn, called with it, returns false.
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
    /// Frees name and value.
    ~regKey();

    /// Gives the key its name and a value; called once, before the key is linked. False: there was no room for both.
    bool InitKey(QOR_AllocHelper::baseStaticPoolAlloc* pPool, const phraseConstTextA& name,
                 const phraseConstTextA& text);
    /// Whether the key has that name; uHash is regNameHash() of it.
    bool IsNamed(const phraseConstTextA& name, uint32_t uHash) const;
    /// The value, valid until it changes; null for a null key.
    const char* GetValue() const;
    /// Stores a value, and counts nothing. 1: it differs from the stored one, or is the first of a new key; else 0. A
    /// value, or a name of the key, that an INI file cannot hold is refused with a warning: 0, and nothing is changed.
    /// Fatal: no room.
    BOOL SetValue(const phraseConstTextA& text);
    /// Whether SetValue() would store the value or return 1.
    bool IsChangedBy(const phraseConstTextA& text) const;
    /// Whether the key was deleted, and its record stays until the file does not have it any more.
    bool IsDeleted() const { return QOR_ChainHelper::loadShareWord(m_bFresh) == stateDeleted; }
    /// Deletes the key and its value, and counts nothing. The next SetValue() makes it a key again.
    void Delete();

    static constexpr int32_t stateDeleted = 2;  ///< m_bFresh of a deleted key

    QOR_StringHelper::chShareStringA m_strName;   ///< the name; it never changes
    QOR_StringHelper::chShareStringA m_strValue;  ///< the value
    int32_t m_nChagedCount;                       ///< changes not yet in the file
    int32_t m_bFresh;                             ///< 1 until the first SetValue(), stateDeleted after Delete()
    uint32_t m_uNameHash;                         ///< regNameHash() of the name
};

class regDocument;

/// What regSection::TrySetKeyValue() returns.
enum regSetResult {
    regSetChanged = 1,      ///< the value changed, or is the first of a new key
    regSetSame = 0,         ///< the key has that value already
    regSetNoSection = -1,   ///< there is no such section
    regSetBadSection = -2,  ///< an INI file cannot hold the section's name
    regSetBadKey = -3,      ///< an INI file cannot hold the key's name
    regSetBadValue = -4,    ///< an INI file cannot hold the value
    regSetNoRoom = -5       ///< the registry has no room for it
};

/// A section: its keys, and the monitors of their changes.
class QOR_API regSection {
public:
    /// Without name, keys and pool.
    regSection();
    /// Frees everything, the last first.
    ~regSection();

    /// Names the section; called once, before it is linked. False: there was no room for the name.
    bool InitSection(QOR_AllocHelper::baseStaticPoolAlloc* pPool, const phraseConstTextA& name);
    /// Whether the section has that name; uHash is regNameHash() of it.
    bool IsNamed(const phraseConstTextA& name, uint32_t uHash) const;

    /// The key of a name, or null when there is none or it was deleted.
    regKey* FindKeyObject(const phraseConstTextA& name) const;
    /// The key of a name, appended without a value when there is none. Fatal: no room.
    regKey* GetKeyObject(const phraseConstTextA& name);
    /// Sets the value of a key, which is made when there is none. 1: that changed something, which is counted in key,
    /// section and document; else 0. What an INI file cannot hold as a value or as the name of the key or section is
    /// refused: 0, and nothing is changed. strWarning becomes the warning to print after the lock is released: that a
    /// key was made ("Write: %s") or that the value was refused ("Refused: ..."); else it becomes empty. Fatal: no
    /// room.
    BOOL SetKeyValue(const phraseConstTextA& name, const phraseConstTextA& text, std::string& strWarning);
    /// SetKeyValue() that tells why it failed, without a warning, and for which a registry without room is no fatal
    /// assertion. A new key needs its room in one piece.
    regSetResult TrySetKeyValue(const phraseConstTextA& name, const phraseConstTextA& text);
    /// Deletes a key, which is counted as a change. The next save removes it from the file and frees it. False: there
    /// is no such key.
    bool DeleteKey(const phraseConstTextA& name);
    /// Deletes at most nMost keys. Returns how many.
    int DeleteKeys(int nMost);
    /// Whether the section has a key.
    bool HasKeys() const;
    /// Frees at most nMost deleted keys of which the file knows. Returns how many. The caller holds the save lock, too.
    int FreeDeletedKeys(int nMost);
    /// Appends a key with its value as read from the file, which is not counted. No key has that name yet. Fatal: no
    /// room.
    regKey* AppendKey(const phraseConstTextA& name, const phraseConstTextA& text) { return AppendKey(name, text, 0); }
    /// Frees every key, the last first.
    void ClearKeys();

    /// The document that holds the section, or null.
    regDocument* GetHostDocument() const;
    /// Stores the document that holds the section.
    void SetHostDocument(const regDocument* pDocument) { m_pHostDocument.set_pData(pDocument); }

    /// Removes the monitors of dead tasks, then adds one: each flush of a change of the section posts the task a
    /// message for the method of a processor of its process. The processor may be null. Added twice, it gets two.
    /// Fatal: no room.
    QOR_MsgQueueHelper::msgEntryPair* AddMonitorTask(int idTask, const QOR_MsgQueueHelper::chMsgProcesser* pProcesser,
                                                     QOR_MsgQueueHelper::msgMethod pMethod);
    /// Removes a monitor. False: it is none of the section's; the address is only compared, never followed.
    bool RemoveMonitorTask(const QOR_MsgQueueHelper::msgEntryPair* pEntry);
    /// Removes every monitor of that task, processor and method.
    void RemoveMonitorTask(int idTask, const QOR_MsgQueueHelper::chMsgProcesser* pProcesser,
                           QOR_MsgQueueHelper::msgMethod pMethod);
    /// Removes the monitors of tasks that no longer exist.
    void ClearGhostTask();

    regObjList<regKey> m_lstKey;                                ///< in the order in which they were made
    QOR_StringHelper::chShareStringA m_strName;                 ///< the name; it never changes
    regObjList<QOR_MsgQueueHelper::msgEntryPair> m_lstMonitor;  ///< the monitors
    int32_t m_bChanged;                                         ///< 1 from a change until the next flush
    int32_t m_nChagedCount;                                     ///< changes not yet in the file, of all keys
    offset_pointer<regDocument> m_pHostDocument;                ///< the document
    uint32_t m_uNameHash;                                       ///< regNameHash() of the name

private:
    regKey* AppendKey(const phraseConstTextA& name, const phraseConstTextA& text, int nChanges);
    regKey* FindKeyRecord(const phraseConstTextA& name) const;
    bool HasRoomFor(const phraseConstTextA& name, const phraseConstTextA& text) const;
    void CountChange();
    template <class Fn>
    void RemoveMonitorsIf(Fn fnRemove);
};

/// A document: the sections of one INI file.
class QOR_API regDocument {
public:
    /// Without sections, file name and pool.
    regDocument();
    /// Frees everything, the last first.
    ~regDocument();

    /// Gives the document its pool; called once, before it is linked.
    void InitDocument(QOR_AllocHelper::baseStaticPoolAlloc* pPool);
    /// The section of a name, or null.
    regSection* FindSectionObject(const phraseConstTextA& name) const;
    /// The section of a name, appended without keys when there is none. Fatal: no room.
    regSection* GetSectionObject(const phraseConstTextA& name);
    /// Adds the sections and keys of a file, then takes its name. A missing file has none. 1; 0, with a warning
    /// ("[%s] NOT readable: ...") and nothing changed: the file is there and cannot be read. Fatal: no room.
    BOOL CreateFromFile(const char* lpszFileName);
    /// The same with a file that is already read. Returns 1. Fatal: no room.
    BOOL CreateFromIni(const char* lpszFileName, const QOR_FileHelper::iniFile& file);
    /// Frees every section, the last first.
    void ClearSections();

    regObjList<regSection> m_lstSection;             ///< in the order in which they were made
    QOR_StringHelper::chShareStringA m_strFileName;  ///< the file; empty while the document is being made
    int32_t m_nChagedCount;                          ///< changes not yet in the file, of all sections
    int32_t m_bChanged;                              ///< 1 while a section may have its flag set
    uint32_t m_uSaveGeneration;                      ///< how often a write of the file has begun
    int32_t m_nSaveAsked;                            ///< requests that the saver has not yet answered

private:
    regSection* AppendSection(const phraseConstTextA& name);
};

/// The root of the store.
class QOR_API regDocumentManager : public QOR_BaseHelper::ipcObjectHeader {
public:
    static constexpr int segmentSize = 0x100000;         ///< the segment's size in bytes
    static constexpr int segmentType = 1001;             ///< its type number
    static constexpr int poolSize = segmentSize - 0x2C;  ///< what documents share

    /// Runs in new shared memory. The header is stored last: until then the segment counts as not constructed.
    regDocumentManager();

    /// The document of a file, or null.
    regDocument* FindDocumentObject(const char* lpszFileName) const;
    /// The document of a file, loaded when there is none. A file name that is not absolute is a warning
    /// ("[%s] NOT absolute path"). Null, with a warning ("[%s] NOT readable: ...") and no document made: the file is
    /// there and cannot be read; the next call tries again. Fatal: a null or empty name, no room.
    regDocument* GetDocumentObject(const char* lpszFileName);
    /// The same without the warnings, from a file that is already read.
    regDocument* GetDocumentObject(const char* lpszFileName, const QOR_FileHelper::iniFile& file);
    /// Frees a last document that has no file name. Call it before anything is added to the store.
    void ClearLostDocument();

    QOR_AllocHelper::baseStaticPoolAlloc m_objPool;  ///< for everything in the store
    regObjList<regDocument> m_lstDocument;           ///< in the order in which they were opened
    int32_t m_idSaverTask;                           ///< the task that saves for all processes, or 0
    uint8_t m_arrPool[poolSize];                     ///< the pool's area
};

static_assert(regDocumentManager::poolSize == 0xFFFD4, "the pool fills the segment");
static_assert(sizeof(regKey) == 28, "shared layout");
static_assert(sizeof(regSection) == 56, "shared layout");
static_assert(sizeof(regDocument) == 40, "shared layout");
static_assert(sizeof(regDocumentManager) == 0x100000, "shared layout");

/// Case-insensitive hash of a name, the same on every ABI.
QOR_API uint32_t regNameHash(const phraseConstTextA& name);

/// This process's mapping of the store; as the frame it is also the registry's lock. Any thread may use it. There is
/// one instance in a process, uCRegistryHelpergetGlobalObject().
class QOR_API uCRegistryHelper
    : public QOR_BaseHelper::ipcObjectFrame<regDocumentManager, QOR_BaseHelper::chMapFile, QOR_BaseHelper::chMutex> {
public:
    /// Opens the store. Fatal: a second instance ("pData == NULL"), a segment of another build.
    uCRegistryHelper();

    /// The handle of an object of the store: its distance from the beginning of the store. 0 for null and anything
    /// outside.
    uintptr_t GetHandle(const void* pObject) const;
    /// The section of a handle; null unless it is that of a section. Handles that this process has looked up lately are
    /// found without a search.
    regSection* GetSection(uintptr_t uHandle);
    /// The document of a handle; null unless it is that of a document.
    regDocument* GetDocument(uintptr_t uHandle);
    /// Takes the registry's lock, without time-out, and returns the document of a file. When no process has opened it
    /// yet, the file is read before the lock is taken. A file name that is not absolute is a warning. Null, without the
    /// lock and with a warning: the file is there and cannot be read. Fatal, and without the lock: a null or empty
    /// name; the calling thread holds the registry's lock.
    regDocument* LockDocument(const char* lpszFileName);

    /// The save lock, held while a document is written to its file. It is taken before the registry's.
    QOR_BaseHelper::chMutex& GetSaveLock() { return m_mtxSave; }

    /// internal: the room for notes next to the store; null unless p points into this mapping of the store.
    void* GetNotes(const void* p) const;

    /// In a child after fork. Runs by itself.
    void fork_reset();

private:
    regSection* FindSection(const regSection* pSection) const;

    QOR_BaseHelper::chMutex m_mtxSave;
    std::atomic<uintptr_t> m_arrSection[64];  // handles that are known to be those of sections, which are never freed
};

/// The process's uCRegistryHelper, constructed on first use and never destructed, since threads may still use it while
/// the process ends. Fatal: the construction itself asks for it ("globle object constructting !").
QOR_API uCRegistryHelper* uCRegistryHelpergetGlobalObject();

}  // namespace QOR_RegistryHelper

/// Posts a message to each monitor of a document's changed sections, then asks the saver to save the document, or saves
/// it. Nothing to do is 1 as well. Takes the registry's lock, after that the messages', and to save the save lock.
/// Returns 1. Fatal: null ("pDocument != NULL"); the calling thread holds one of these locks, and it is needed.
QOR_API BOOL registryFlush(QOR_RegistryHelper::regDocument* pDocument);
/// Writes a document's counted keys to its file. 1: the file is up to date. 0: null; or the file could not be read or
/// written, which is a warning, and the keys stay counted. Takes the save lock and the registry's. Fatal: there is
/// something to write, and the calling thread holds the registry's lock.
QOR_API BOOL regSaveRegistryDocument(QOR_RegistryHelper::regDocument* pDocument);

#endif
