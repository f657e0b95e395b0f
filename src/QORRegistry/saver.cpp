// Saving documents: in the thread that flushes, or in the saver that flushes ask to.
//
// Locks: the save lock, then the registry's. Files are written under the save lock alone, so that others get and set
// values meanwhile.
//
// A key stays counted until the file holds it: a save lowers the counts by what it has read, after it has written that.
// So a saver that dies, or a full disk, costs time and no change.
#include "QORRegistry/saver.h"

#include <errno.h>
#include <limits.h>

#include <string>
#include <vector>

#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "qor/MsgQueueHelper/Thread.h"

using namespace QOR_ChainHelper;

namespace QOR_RegistryHelper {

// ---- asking the saver

namespace {

// A saver that does not answer gets no more than this many requests for one document: then the thread that flushes
// saves. So a thread that has got the task id of a dead saver by chance costs no change either.
constexpr int maxSaveAsked = 16;

// Unless there is a new saver by now.
void forgetSaver(int idSaver) {
    const registryLock hold;
    int32_t& idSaverTask = hold.getObject()->m_idSaverTask;
    if (loadShareWord(idSaverTask) == idSaver)
        storeShareWord(idSaverTask, 0);
}

}  // namespace

int reserveSaver(const registryHold& hold, regDocument& document) {
    const int idSaver = loadShareWord(hold.getObject()->m_idSaverTask);
    const int nAsked = loadShareWord(document.m_nSaveAsked);
    if (idSaver == 0 || nAsked >= maxSaveAsked)
        return 0;
    storeShareWord(document.m_nSaveAsked, nAsked + 1);
    return idSaver;
}

bool askSaver(int idSaver, const regDocument& document) {
    if (idSaver == 0)
        return false;
    if (QOR_MiscHelper::qorIsValidTaskID(idSaver)) {
        QOR_MsgQueueHelper::chThreadRemote thread(idSaver);
        const UINT uDocument = static_cast<UINT>(registry().GetHandle(&document));
        if (thread.getTaskId() != 0 && postFromLibrary(thread, TM_REGISTRY_CHANGE, uDocument, 0))
            return true;
    }
    forgetSaver(idSaver);
    return false;
}

// ---- saving

namespace {

struct changedKey {
    regKey* pKey;
    int nCount;
    std::string strSection;
    std::string strKey;
    std::string strValue;
    bool bDeleted;
};

// The file's document as this process has last saved it. Guarded by the save lock.
struct savedCopy {
    QOR_FileHelper::iniFile file;
    const regDocument* pDocument = NULL;
    uint32_t uGeneration = 0;
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

// Appends a section's counted keys. A section counts at least what its keys count.
void takeChangedKeys(const registryHold&, const regSection& section, std::vector<changedKey>& listKey) {
    int64_t nLeft = loadShareWord(section.m_nChagedCount);
    const bool bFull = nLeft == INT_MAX;
    section.m_lstKey.ForEach([&](regKey& key) {
        const int nCount = loadShareWord(key.m_nChagedCount);
        if (nCount <= 0)
            return;
        listKey.push_back({&key, nCount, static_cast<const char*>(section.m_strName),
                           static_cast<const char*>(key.m_strName), key.GetValue(), key.IsDeleted()});
        nLeft -= nCount;
    });
    QOR_ASSERT_TEXT(bFull || nLeft >= 0, "objSection.m_nChagedCount == 0");
}

std::vector<changedKey> takeChangedKeys(const registryHold& hold, const regDocument& document) {
    std::vector<changedKey> listKey;
    int64_t nLeft = loadShareWord(document.m_nChagedCount);
    const bool bFull = nLeft == INT_MAX;
    document.m_lstSection.ForEach([&](regSection& section) {
        const int nCount = loadShareWord(section.m_nChagedCount);
        if (nCount > 0)
            takeChangedKeys(hold, section, listKey);
        nLeft -= nCount;
    });
    QOR_ASSERT_TEXT(bFull || nLeft >= 0, "pDocument->m_nChagedCount == 0");
    return listKey;
}

// Lowers the counts by what the file holds now: first the keys', then what sums them up.
void settleCounts(const registryHold&, regDocument& document, const std::vector<changedKey>& listKey) {
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

// Frees the keys that were deleted and are not in the file any more, a few in one hold.
void freeDeletedKeys(regDocument& document) {
    constexpr int keysAtOnce = 16;
    int nLeft = 0;
    while (nLeft == 0) {
        const registryLock hold;
        nLeft = keysAtOnce;
        document.m_lstSection.ForEach([&](regSection& section) { nLeft -= section.FreeDeletedKeys(nLeft); });
    }
}

// Reads the file unless the copy is what was last written to it through the registry. False, with a warning: the file
// is there and cannot be read, so it must not be written either.
bool refreshCopy(savedCopy& copy, const regDocument& document, uint32_t uGeneration, const std::string& strFileName) {
    if (copy.pDocument == &document && copy.uGeneration == uGeneration)
        return true;
    copy.pDocument = NULL;
    copy.file.ClearObjList();
    if (!readDocument(copy.file, strFileName.c_str())) {
        warnUnreadable(strFileName.c_str(), errno);
        return false;
    }
    copy.pDocument = &document;
    copy.uGeneration = uGeneration;
    return true;
}

// Starts a new generation before the file changes: then no process takes its own copy for what the file holds, even
// when this one dies right after it.
void startGeneration(savedCopy& copy, regDocument& document) {
    const registryLock hold;
    storeShareWord(document.m_uSaveGeneration, ++copy.uGeneration);
}

// Removes a key, and its section when nothing but blank lines is left in it. False: there is no such key.
bool removeKey(QOR_FileHelper::iniFile& file, const std::string& strSection, const std::string& strKey) {
    QOR_FileHelper::iniSection* const pSection = file.FindSection(strSection.c_str());
    if (pSection == NULL || !pSection->list_erase_object(pSection->FindKey(strKey.c_str())))
        return false;
    for (auto it = pSection->begin(); it != pSection->end(); ++it)
        if ((*it)->type() != QOR_FileHelper::iniLineEmpty)
            return true;
    file.list_erase_object(pSection);
    return true;
}

// Brings the changes to the file, which is not touched when it has them already.
bool writeChanges(savedCopy& copy, regDocument& document, const std::vector<changedKey>& listKey) {
    int nChanged = 0;
    for (const changedKey& changed : listKey)
        nChanged += changed.bDeleted ? removeKey(copy.file, changed.strSection, changed.strKey)
                                     : copy.file.SetTextValue(changed.strSection.c_str(), changed.strKey.c_str(),
                                                              changed.strValue.c_str());
    if (nChanged == 0)
        return true;
    startGeneration(copy, document);
    if (copy.file.SaveToFile(NULL))
        return true;
    copy.pDocument = NULL;
    return false;
}

}  // namespace

BOOL saveDocument(regDocument& document) {
    if (loadShareWord(document.m_nChagedCount) == 0)
        return 1;
    const QOR_BaseHelper::chCancelGuard guard;  // until the file is whole, the counts are right and the lock is free
    const QOR_BaseHelper::scopeShareLock<QOR_BaseHelper::chMutex> holdSave(registry().GetSaveLock());
    std::vector<changedKey> listKey;
    std::string strFileName;
    uint32_t uGeneration = 0;
    {
        const registryLock hold;
        if (loadShareWord(document.m_nChagedCount) == 0)
            return 1;
        listKey = takeChangedKeys(hold, document);
        strFileName = document.m_strFileName;
        uGeneration = loadShareWord(document.m_uSaveGeneration);
    }
    savedCopy& copy = ownCopy();
    if (!refreshCopy(copy, document, uGeneration, strFileName) || !writeChanges(copy, document, listKey))
        return 0;
    {
        const registryLock hold;
        settleCounts(hold, document, listKey);
    }
    for (const changedKey& changed : listKey)
        if (changed.bDeleted)
            return freeDeletedKeys(document), 1;
    return 1;
}

// ---- the saver's side

namespace {

// Clears the requests for a document if this thread is the saver: the save that follows answers them.
void acknowledgeRequests(regDocument& document) {
    if (loadShareWord(document.m_nSaveAsked) == 0)
        return;
    const registryLock hold;
    if (loadShareWord(hold.getObject()->m_idSaverTask) == QOR_MiscHelper::qorGetCurrentTaskId())
        storeShareWord(document.m_nSaveAsked, 0);
}

// The documents with requests, which now have none. What is asked from now on is asked of another saver.
std::vector<regDocument*> takeAskedDocuments(const registryHold& hold) {
    std::vector<regDocument*> listDocument;
    hold.getObject()->m_lstDocument.ForEach([&](regDocument& document) {
        if (loadShareWord(document.m_nSaveAsked) == 0)
            return;
        storeShareWord(document.m_nSaveAsked, 0);
        listDocument.push_back(&document);
    });
    return listDocument;
}

void saveAll(const std::vector<regDocument*>& listDocument) {
    for (regDocument* pDocument : listDocument)
        regSaveRegistryDocument(pDocument);
}

}  // namespace

void appointSaver(int idTask) {
    std::vector<regDocument*> listDocument;
    {
        const registryLock hold;
        storeShareWord(hold.getObject()->m_idSaverTask, idTask);
        listDocument = takeAskedDocuments(hold);
    }
    saveAll(listDocument);
}

bool dismissSaver(int idTask) {
    std::vector<regDocument*> listDocument;
    {
        const registryLock hold;
        int32_t& idSaverTask = hold.getObject()->m_idSaverTask;
        if (loadShareWord(idSaverTask) != idTask)
            return false;
        storeShareWord(idSaverTask, 0);
        listDocument = takeAskedDocuments(hold);
    }
    saveAll(listDocument);
    return true;
}

}  // namespace QOR_RegistryHelper

BOOL regSaveRegistryDocument(QOR_RegistryHelper::regDocument* pDocument) {
    if (pDocument == NULL)
        return 0;
    QOR_RegistryHelper::acknowledgeRequests(*pDocument);
    return QOR_RegistryHelper::saveDocument(*pDocument);
}
