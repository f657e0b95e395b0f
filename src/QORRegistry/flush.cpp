// Flushing a document: its monitors are notified of what has changed, then its file is written, by the saver or by the
// thread that flushes.
//
// Notifications are collected under the registry's lock and posted under no lock.
#include <vector>

#include "QORRegistry/saver.h"
#include "internal/message.h"
#include "internal/report.h"
#include "qor/MiscHelper.h"
#include "xInc/platform.h"

using namespace QOR_ChainHelper;
using namespace QOR_MsgQueueHelper;
using namespace QOR_RegistryHelper;
using QOR_MiscHelper::qorGetCurrentTaskId;

namespace {

struct notification {
    uintptr_t uSection;
    msgEntryPair entry;
};

// What the flag of a document or section becomes while this thread notifies its monitors. Only then is it cleared,
// unless the section was changed again, or another thread notifies of a later change: if the one that notified last
// dies first, the next flush notifies them. The low byte counts the flushes that have left the section to this one; a
// task id has 22 bits.
constexpr int flagsOfTask = 256;
int32_t beingNotified() { return -qorGetCurrentTaskId() * flagsOfTask; }
bool isBeingNotified(int32_t nFlag) { return nFlag <= beingNotified() && nFlag > beingNotified() - flagsOfTask; }

// Whether a section is left to another flush that is notifying its monitors of the same change: they are notified once.
// The task id of one that was killed may be another's by now, so a section is not left to it for good.
bool leaveToOther(int32_t& nFlag) {
    const int64_t n = -static_cast<int64_t>(loadShareWord(nFlag));
    if (n <= 0 || n % flagsOfTask == flagsOfTask - 1)
        return false;
    const int idTask = static_cast<int>(n / flagsOfTask);
    uint32_t uBirth = 0;  // unlike its validity, this tells of a killed one that nobody has waited for
    if (idTask == qorGetCurrentTaskId() || !QOR_Platform::birthOfProcess(idTask, uBirth))
        return false;
    storeShareWord(nFlag, static_cast<int32_t>(-n - 1));
    return true;
}

// One notification for each monitor of each changed section.
std::vector<notification> collectNotifications(const registryHold&, regDocument& document) {
    std::vector<notification> listNotification;
    if (loadShareWord(document.m_bChanged) == 0)
        return listNotification;
    const int32_t nNotified = beingNotified();
    bool bLeft = false;
    document.m_lstSection.ForEach([&](regSection& section) {
        if (loadShareWord(section.m_bChanged) == 0)
            return;
        if (leaveToOther(section.m_bChanged)) {
            bLeft = true;
            return;
        }
        const uintptr_t uSection = registry().GetHandle(&section);
        const size_t nBefore = listNotification.size();
        section.m_lstMonitor.ForEach([&](const msgEntryPair& entry) { listNotification.push_back({uSection, entry}); });
        storeShareWord(section.m_bChanged, listNotification.size() != nBefore ? nNotified : 0);
    });
    // With a section left to another flush, the next one looks again whether that has notified it.
    storeShareWord(document.m_bChanged, bLeft ? 1 : listNotification.empty() ? 0 : nNotified);
    return listNotification;
}

void clearNotified(const registryHold&, regDocument& document) {
    const auto clear = [](int32_t& nFlag) {
        if (isBeingNotified(loadShareWord(nFlag)))
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
