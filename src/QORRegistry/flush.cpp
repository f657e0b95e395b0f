// Flushing a document: its monitors are notified of what has changed, then its file is written, by the saver or by the
// thread that flushes.
//
// Notifications are collected under the registry's lock and posted under no lock.
#include <vector>

#include "QORRegistry/saver.h"
#include "internal/message.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"

using namespace QOR_ChainHelper;
using namespace QOR_MsgQueueHelper;
using namespace QOR_RegistryHelper;

namespace {

struct notification {
    uintptr_t uSection;
    msgEntryPair entry;
};

// What the flag of a document or section becomes while this thread notifies its monitors. Only then is it cleared,
// unless the section was changed again, or another thread notifies of a later change: if the one that notified last
// dies first, the next flush notifies them.
int32_t beingNotified() { return -QOR_MiscHelper::qorGetCurrentTaskId(); }

// One notification for each monitor of each changed section.
std::vector<notification> collectNotifications(const registryHold&, regDocument& document) {
    std::vector<notification> listNotification;
    if (loadShareWord(document.m_bChanged) == 0)
        return listNotification;
    const int32_t nNotified = beingNotified();
    document.m_lstSection.ForEach([&](regSection& section) {
        if (loadShareWord(section.m_bChanged) == 0)
            return;
        const uintptr_t uSection = registry().GetHandle(&section);
        const size_t nBefore = listNotification.size();
        section.m_lstMonitor.ForEach([&](const msgEntryPair& entry) { listNotification.push_back({uSection, entry}); });
        storeShareWord(section.m_bChanged, listNotification.size() != nBefore ? nNotified : 0);
    });
    storeShareWord(document.m_bChanged, listNotification.empty() ? 0 : nNotified);
    return listNotification;
}

void clearNotified(const registryHold&, regDocument& document) {
    const int32_t nNotified = beingNotified();
    const auto clear = [nNotified](int32_t& nFlag) {
        if (loadShareWord(nFlag) == nNotified)
            storeShareWord(nFlag, 0);
    };
    document.m_lstSection.ForEach([&clear](regSection& section) { clear(section.m_bChanged); });
    clear(document.m_bChanged);
}

void postNotifications(const std::vector<notification>& listNotification) {
    std::vector<msgProxy> listProxy;
    for (const notification& sent : listNotification)
        listProxy.push_back({TM_REGISTRY_CHANGE, sent.entry.m_uProcesser, sent.entry.m_objMethod});
    std::vector<batchPost> listPost;
    for (size_t i = 0; i < listNotification.size(); ++i) {
        const msgDraft draft = makeDraft(TM_MESSAGE_PROXY, 0, static_cast<int>(listNotification[i].uSection),
                                         sizeof(msgProxy), &listProxy[i], false);
        listPost.push_back({listNotification[i].entry.m_idTask, NULL, draft, true});
    }
    postBatch(listPost);
}

}  // namespace

BOOL registryFlush(regDocument* pDocument) {
    if (!QOR_ASSERT(pDocument != NULL))
        return 0;
    if (loadShareWord(pDocument->m_nChagedCount) < 1 && loadShareWord(pDocument->m_bChanged) == 0)
        return 1;
    std::vector<notification> listNotification;
    int idSaver = 0;
    bool bSave = false;
    {
        const registryLock hold;
        listNotification = collectNotifications(hold, *pDocument);
        bSave = loadShareWord(pDocument->m_nChagedCount) >= 1;
        if (bSave)
            idSaver = reserveSaver(hold, *pDocument);
    }
    if (!listNotification.empty()) {
        postNotifications(listNotification);
        const registryLock hold;
        clearNotified(hold, *pDocument);
    }
    // Not regSaveRegistryDocument(): a saver that flushes has not answered its requests by that.
    if (bSave && !askSaver(idSaver, *pDocument))
        saveDocument(*pDocument);
    return 1;
}
