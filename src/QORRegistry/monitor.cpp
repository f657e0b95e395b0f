// The monitors of a section, and the object that monitors several sections.
#include <string.h>

#include "internal/registry.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"

using namespace QOR_ChainHelper;
using namespace QOR_MsgQueueHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MiscHelper::qorIsValidTaskID;

namespace QOR_RegistryHelper {

// ---- sections

msgEntryPair* regSection::AddMonitorTask(int idTask, const chMsgProcesser* pProcesser, msgMethod pMethod) {
    ClearGhostTask();
    const msgEntryPair entry = {idTask, encodeMessageProcesser(pProcesser), encodeMessageMethod(pMethod)};
    return m_lstMonitor.AppendObject([&](msgEntryPair& added) {
        fillShareBytes(&added, &entry, sizeof(entry));
        return true;
    });
}

bool regSection::RemoveMonitorTask(const msgEntryPair* pEntry) {
    msgEntryPair* pFound = m_lstMonitor.FindObject([pEntry](const msgEntryPair& entry) { return &entry == pEntry; });
    if (pFound != NULL)
        m_lstMonitor.EraseObject(pFound);
    return pFound != NULL;
}

// One walk: an entry is erased after the walk has passed it.
template <class Fn>
void regSection::RemoveMonitorsIf(Fn fnRemove) {
    msgEntryPair* pPassed = NULL;
    const auto erasePassed = [&] {
        if (pPassed != NULL)
            m_lstMonitor.EraseObject(pPassed);
        pPassed = NULL;
    };
    m_lstMonitor.ForEach([&](msgEntryPair& entry) {
        erasePassed();
        if (fnRemove(entry))
            pPassed = &entry;
    });
    erasePassed();
}

void regSection::RemoveMonitorTask(int idTask, const chMsgProcesser* pProcesser, msgMethod pMethod) {
    const uint32_t uProcesser = encodeMessageProcesser(pProcesser);
    const msgMethodWords method = encodeMessageMethod(pMethod);
    RemoveMonitorsIf([&](const msgEntryPair& entry) {
        return entry.m_idTask == idTask && entry.m_uProcesser == uProcesser &&
               entry.m_objMethod.m_aWord[0] == method.m_aWord[0] &&
               (method.m_aWord[0] == 0 || entry.m_objMethod.m_aWord[1] == method.m_aWord[1]);
    });
}

// The kernel is asked once for a run of entries of the same task.
void regSection::ClearGhostTask() {
    int idAsked = 0;
    bool bAlive = false;
    RemoveMonitorsIf([&](const msgEntryPair& entry) {
        if (idAsked == 0 || idAsked != entry.m_idTask) {
            idAsked = entry.m_idTask;
            bAlive = qorIsValidTaskID(idAsked);
        }
        return !bAlive;
    });
}

// ---- chRegistryMonitor

namespace {

// Removes an entry while its place still holds what was added: a dead thread's entry may have been removed, and its
// place may have become another's.
void removeAdded(const registryHold&, regSection& section, const msgEntryPair* pEntry, const msgEntryPair& added) {
    section.RemoveMonitorTask(
        section.m_lstMonitor.FindObject([&](const msgEntryPair& entry) { return &entry == pEntry && entry == added; }));
}

}  // namespace

msgEntryPair* chRegistryMonitor::MonitorSection(const char* lpszFileName, const char* lpszSectionName,
                                                chMsgProcesser* pProcesser, msgMethod pMethod) {
    const int idTask = qorGetCurrentTaskId();
    const phraseConstTextA name(lpszSectionName);
    const documentLock hold(lpszFileName);
    regSection* pSection = hold.m_pDocument != NULL ? hold.m_pDocument->GetSectionObject(name) : NULL;
    if (pSection == NULL)
        return NULL;
    if (!QOR_ASSERT_TEXT(m_mapSession.find_key(pSection) == m_mapSession.end(),
                         "typeSessionMap::find_key(&objSesion) == typeSessionMap::end()"))
        return NULL;
    monitorEntry entry;
    entry.m_pEntry = pSection->AddMonitorTask(idTask, pProcesser, pMethod);
    if (entry.m_pEntry != NULL)
        entry.m_objEntry = *entry.m_pEntry;
    m_mapSession[pSection] = entry;
    return entry.m_pEntry;
}

void chRegistryMonitor::UnmonitorSection(const char* lpszFileName, const char* lpszSectionName) {
    const phraseConstTextA name(lpszSectionName);
    const registryLock hold;
    const regDocument* pDocument = hold.getObject()->FindDocumentObject(lpszFileName);
    regSection* pSection = pDocument != NULL ? pDocument->FindSectionObject(name) : NULL;
    const typeSessionMap::iterator it = m_mapSession.find_key(pSection);
    if (it == m_mapSession.end())
        return;
    removeAdded(hold, *pSection, it->value.m_pEntry, it->value.m_objEntry);
    m_mapSession.erase(it);
}

void chRegistryMonitor::UnmonitorAllSection() {
    const registryLock hold;
    for (auto it = m_mapSession.begin(); it != m_mapSession.end(); ++it)
        removeAdded(hold, *it->key, it->value.m_pEntry, it->value.m_objEntry);
}

}  // namespace QOR_RegistryHelper
