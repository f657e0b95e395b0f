// Flushing documents: telling their monitors, and writing their files.
//
// Locks: the save lock, then the registry's. Messages are posted under neither. Files are written under the save lock
// alone, so getters and setters go on meanwhile.
//
// A key stays counted until the file holds it: whoever saves lowers the counts of what it has read, when it has written
// that. So a saver that dies, or a full disk, costs time and no change.
#include <limits.h>

#include <string>
#include <vector>

#include "internal/message.h"
#include "internal/registry.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "qor/flat.h"

using namespace QOR_ChainHelper;
using namespace QOR_MsgQueueHelper;
using namespace QOR_RegistryHelper;

namespace {

// A saver that does not come round is not given more messages than this for one document: then who flushes saves. So a
// thread that has the task id of a dead saver by chance costs no change either.
constexpr int maxSaveAsked = 16;

// ---- telling the monitors

struct notification {
    uintptr_t uSection;
    msgEntryPair entry;
};

// What there is to tell. Afterwards no section is marked as changed.
std::vector<notification> takeNotifications(regDocument& document) {
    std::vector<notification> listTell;
    if (loadShareWord(document.m_bChanged) == 0)
        return listTell;
    document.m_lstSection.ForEach([&](regSection& section) {
        if (loadShareWord(section.m_bChanged) == 0)
            return;
        const uintptr_t uSection = registry().GetHandle(&section);
        section.m_lstMonitor.ForEach([&](const msgEntryPair& entry) { listTell.push_back({uSection, entry}); });
        storeShareWord(section.m_bChanged, 0);
    });
    storeShareWord(document.m_bChanged, 0);
    return listTell;
}

void tell(const std::vector<notification>& listTell) {
    std::vector<msgProxy> listProxy;
    for (const notification& told : listTell)
        listProxy.push_back({TM_REGISTRY_CHANGE, told.entry.m_uProcesser, told.entry.m_objMethod});
    std::vector<batchPost> listPost;
    for (size_t i = 0; i < listTell.size(); ++i)
        listPost.push_back({listTell[i].entry.m_idTask, NULL,
                            makeDraft(TM_MESSAGE_PROXY, 0, static_cast<int>(listTell[i].uSection), sizeof(msgProxy),
                                      &listProxy[i], false),
                            true});
    postBatch(listPost);
}

// ---- asking the saver

// The saver's task, which now counts as asked; 0 when there is none, or it has been asked often enough.
int askedSaver(regDocument& document) {
    const int idSaver = loadShareWord(registry().getObject()->m_idSaverTask);
    const int nAsked = loadShareWord(document.m_nSaveAsked);
    if (idSaver == 0 || nAsked >= maxSaveAsked)
        return 0;
    storeShareWord(document.m_nSaveAsked, nAsked + 1);
    return idSaver;
}

bool askSaver(int idSaver, const regDocument& document) {
    if (!QOR_MiscHelper::qorIsValidTaskID(idSaver))
        return false;
    chThreadRemote thread(idSaver);
    return thread.getTaskId() != 0 &&
           thread.PostThreadMsg(TM_REGISTRY_CHANGE, static_cast<UINT>(registry().GetHandle(&document)), 0);
}

void forgetSaver(int idSaver) {
    registryLock lock;
    int32_t& idSaverTask = registry().getObject()->m_idSaverTask;
    if (loadShareWord(idSaverTask) == idSaver)
        storeShareWord(idSaverTask, 0);
}

// ---- saving

struct changedKey {
    regKey* pKey;
    int nCount;
    std::string strSection;
    std::string strKey;
    std::string strValue;
};

// The file's document as this process has last saved it. Guarded by the save lock.
struct savedCopy {
    QOR_FileHelper::iniFile file;
    const regDocument* pDocument = NULL;
    uint32_t uSaves = 0;
};

// In the child of a fork it is made anew: a thread of the parent may have been working on it.
savedCopy& ownCopy() {
    static int s_idProcess = 0;
    static savedCopy* s_pCopy = NULL;
    const int idProcess = QOR_MiscHelper::qorGetCurrentProcessId();
    if (s_idProcess != idProcess) {
        s_pCopy = new savedCopy;
        s_idProcess = idProcess;
    }
    return *s_pCopy;
}

// Appends a section's counted keys. A section counts at least what its keys count; a killed process may have left more.
void takeChangedKeys(const regSection& section, std::vector<changedKey>& listKey) {
    int64_t nLeft = loadShareWord(section.m_nChagedCount);
    const bool bFull = nLeft == INT_MAX;
    section.m_lstKey.ForEach([&](regKey& key) {
        const int nCount = loadShareWord(key.m_nChagedCount);
        if (nCount <= 0)
            return;
        listKey.push_back({&key, nCount, static_cast<const char*>(section.m_strName),
                           static_cast<const char*>(key.m_strName), key.GetValue()});
        nLeft -= nCount;
    });
    QOR_ASSERT_TEXT(bFull || nLeft >= 0, "objSection.m_nChagedCount == 0");
}

std::vector<changedKey> takeChangedKeys(const regDocument& document) {
    std::vector<changedKey> listKey;
    int64_t nLeft = loadShareWord(document.m_nChagedCount);
    const bool bFull = nLeft == INT_MAX;
    document.m_lstSection.ForEach([&](regSection& section) {
        const int nCount = loadShareWord(section.m_nChagedCount);
        if (nCount > 0)
            takeChangedKeys(section, listKey);
        nLeft -= nCount;
    });
    QOR_ASSERT_TEXT(bFull || nLeft >= 0, "pDocument->m_nChagedCount == 0");
    return listKey;
}

// Lowers the counts by what the file holds now: first the keys', then what sums them up.
void settleCounts(regDocument& document, const std::vector<changedKey>& listKey) {
    for (const changedKey& changed : listKey) {
        const int nCount = loadShareWord(changed.pKey->m_nChagedCount) - changed.nCount;
        storeShareWord(changed.pKey->m_nChagedCount, nCount > 0 ? nCount : 0);
    }
    int64_t nDocument = 0;
    document.m_lstSection.ForEach([&](regSection& section) {
        if (loadShareWord(section.m_nChagedCount) == 0)
            return;
        int64_t nSection = 0;
        section.m_lstKey.ForEach([&](const regKey& key) { nSection += loadShareWord(key.m_nChagedCount); });
        storeShareWord(section.m_nChagedCount, static_cast<int32_t>(nSection < INT_MAX ? nSection : INT_MAX));
        nDocument += nSection;
    });
    storeShareWord(document.m_nChagedCount, static_cast<int32_t>(nDocument < INT_MAX ? nDocument : INT_MAX));
}

// Reads the file unless the copy is what was last written to it through the registry. False: the file is there and
// cannot be read, so it must not be written either.
bool refreshCopy(savedCopy& copy, const regDocument& document, uint32_t uSaves, const std::string& strFileName) {
    if (copy.pDocument == &document && copy.uSaves == uSaves)
        return true;
    copy.pDocument = NULL;
    copy.file.ClearObjList();
    if (!readDocument(copy.file, strFileName.c_str()))
        return false;
    copy.pDocument = &document;
    copy.uSaves = uSaves;
    return true;
}

// Counts a write before the file changes: also behind a process that dies right after it, no other takes its own copy
// for what the file holds.
void countSave(savedCopy& copy, regDocument& document) {
    registryLock lock;
    storeShareWord(document.m_uSaves, ++copy.uSaves);
}

// Brings the changes to the file, which is not touched when it has them already.
bool writeChanges(savedCopy& copy, regDocument& document, const std::vector<changedKey>& listKey) {
    int nChanged = 0;
    for (const changedKey& changed : listKey)
        nChanged +=
            copy.file.SetTextValue(changed.strSection.c_str(), changed.strKey.c_str(), changed.strValue.c_str());
    if (nChanged == 0)
        return true;
    countSave(copy, document);
    if (copy.file.SaveToFile(NULL))
        return true;
    copy.pDocument = NULL;
    return false;
}

// The saver has come round: what it was asked for the document so far, this save meets.
void meetRequests(regDocument& document) {
    if (loadShareWord(document.m_nSaveAsked) == 0)
        return;
    registryLock lock;
    if (loadShareWord(registry().getObject()->m_idSaverTask) == QOR_MiscHelper::qorGetCurrentTaskId())
        storeShareWord(document.m_nSaveAsked, 0);
}

// 1 when the file is up to date.
BOOL saveDocument(regDocument* pDocument) {
    if (loadShareWord(pDocument->m_nChagedCount) == 0)
        return 1;
    const QOR_BaseHelper::chCancelGuard guard;  // until the file is whole, the counts are right and the lock is free
    scopeShareLock<QOR_BaseHelper::chMutex> lockSave(registry().GetSaveLock());
    std::vector<changedKey> listKey;
    std::string strFileName;
    uint32_t uSaves = 0;
    {
        registryLock lock;
        if (loadShareWord(pDocument->m_nChagedCount) == 0)
            return 1;
        listKey = takeChangedKeys(*pDocument);
        strFileName = pDocument->m_strFileName;
        uSaves = loadShareWord(pDocument->m_uSaves);
    }
    savedCopy& copy = ownCopy();
    if (!refreshCopy(copy, *pDocument, uSaves, strFileName) || !writeChanges(copy, *pDocument, listKey))
        return 0;
    registryLock lock;
    settleCounts(*pDocument, listKey);
    return 1;
}

}  // namespace

BOOL regSaveRegistryDocument(regDocument* pDocument) {
    if (pDocument == NULL)
        return 0;
    meetRequests(*pDocument);
    return saveDocument(pDocument);
}

BOOL registryFlush(regDocument* pDocument) {
    if (!QOR_ASSERT(pDocument != NULL))
        return 0;
    if (loadShareWord(pDocument->m_nChagedCount) < 1 && loadShareWord(pDocument->m_bChanged) == 0)
        return 1;
    std::vector<notification> listTell;
    int idSaver = 0;
    bool bSave = false;
    {
        registryLock lock;
        listTell = takeNotifications(*pDocument);
        bSave = loadShareWord(pDocument->m_nChagedCount) >= 1;
        if (bSave)
            idSaver = askedSaver(*pDocument);
    }
    tell(listTell);
    if (!bSave || (idSaver != 0 && askSaver(idSaver, *pDocument)))
        return 1;
    if (idSaver != 0)
        forgetSaver(idSaver);
    saveDocument(pDocument);  // a saver that flushes has not come round by that
    return 1;
}

// ---- the flat functions

namespace {

// The document that a section's handle leads to, or null.
regDocument* hostDocument(HREGISTRY hRegistry) {
    registryLock lock;
    const regSection* pSection = registry().GetSection(reinterpret_cast<uintptr_t>(hRegistry));
    return pSection != NULL ? pSection->GetHostDocument() : NULL;
}

// The document of a handle of its own, or null.
regDocument* documentOf(HREGISTRY hDocument) {
    registryLock lock;
    return registry().GetDocument(reinterpret_cast<uintptr_t>(hDocument));
}

// Documents of which a save was asked. What is asked from now on is asked of another saver.
std::vector<regDocument*> takeAskedDocuments() {
    std::vector<regDocument*> listDocument;
    registry().getObject()->m_lstDocument.ForEach([&](regDocument& document) {
        if (loadShareWord(document.m_nSaveAsked) == 0)
            return;
        storeShareWord(document.m_nSaveAsked, 0);
        listDocument.push_back(&document);
    });
    return listDocument;
}

}  // namespace

extern "C" {

BOOL registryFlush(HREGISTRY hRegistry) {
    regDocument* pDocument = hostDocument(hRegistry);
    return pDocument != NULL ? registryFlush(pDocument) : 0;
}

BOOL regSaveRegistryDocument(HREGISTRY hRegistry) {
    regDocument* pDocument = hostDocument(hRegistry);
    return pDocument != NULL ? regSaveRegistryDocument(pDocument) : registrySaveDocument(hRegistry);
}

BOOL registrySaveDocument(HREGISTRY hDocument) { return regSaveRegistryDocument(documentOf(hDocument)); }

BOOL registryRegistSaver(void) {
    chThreadLocal* pLocalThread = uCSystemShareHelpergetGlobalObject()->GetProcessLocal().GetCurrentThreadObject();
    if (!QOR_ASSERT(pLocalThread != NULL))
        return 0;
    std::vector<regDocument*> listDocument;
    {
        registryLock lock;
        storeShareWord(registry().getObject()->m_idSaverTask, pLocalThread->getTaskId());
        listDocument = takeAskedDocuments();
    }
    // What a predecessor was asked and has not done.
    for (regDocument* pDocument : listDocument)
        regSaveRegistryDocument(pDocument);
    return 1;
}

BOOL registryUnregistSaver(void) {
    std::vector<regDocument*> listDocument;
    {
        registryLock lock;
        int32_t& idSaverTask = registry().getObject()->m_idSaverTask;
        if (loadShareWord(idSaverTask) != QOR_MiscHelper::qorGetCurrentTaskId())
            return 0;
        storeShareWord(idSaverTask, 0);
        listDocument = takeAskedDocuments();
    }
    for (regDocument* pDocument : listDocument)
        regSaveRegistryDocument(pDocument);
    return 1;
}

}  // extern "C"
