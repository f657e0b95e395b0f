/// @file
/// Watching sections of the registry.
///
/// A thread that monitors a section is told of its changes: each flush posts one message for each time it was added.
/// The message reaches a method of a processor object of the thread with the id 0x9001 and the section's handle in
/// lParam. Several changes before a flush are told at once; changes that nobody flushes are not told.
///
/// @code
/// m_objMonitor.MonitorSection("/rundata/config/net.ini", "Net", this,
///                             static_cast<QOR_MsgQueueHelper::msgMethod>(&myProcesser::OnNetChanged));
/// // what else this object does
/// m_objMonitor.UnmonitorAllSection();     // before this object goes
/// @endcode
///
/// A monitor of a thread that has ended is passed over, and removed when the section gets its next one.
#ifndef QOR_REGISTRYHELPER_MONITOR_H
#define QOR_REGISTRYHELPER_MONITOR_H

#include "qor/ListHelper.h"
#include "qor/MsgQueueHelper/Processer.h"
#include "qor/RegistryHelper/Store.h"

namespace QOR_RegistryHelper {

/// The sections that one object watches. One thread at a time uses it: that whose messages tell the changes. Destroying
/// it leaves the sections monitored.
class QOR_API chRegistryMonitor {
public:
    chRegistryMonitor() {}
    chRegistryMonitor(const chRegistryMonitor&) = delete;
    chRegistryMonitor& operator=(const chRegistryMonitor&) = delete;

    /// Has the calling thread told of changes of a section, which is made when there is none.
    /// Fatal: watched already ("typeSessionMap::find_key(&objSesion) == typeSessionMap::end()"), an empty file name.
    QOR_MsgQueueHelper::msgEntryPair* MonitorSection(const char* lpszFileName, const char* lpszSectionName,
                                                     QOR_MsgQueueHelper::chMsgProcesser* pProcesser,
                                                     QOR_MsgQueueHelper::msgMethod pMethod);
    /// Ends that; nothing for a section that is not watched.
    void UnmonitorSection(const char* lpszFileName, const char* lpszSectionName);
    /// Ends it for all sections, and for good: this object watches none of them again.
    void UnmonitorAllSection();

private:
    struct monitorEntry {
        QOR_MsgQueueHelper::msgEntryPair* m_pEntry = NULL;  // what stands in the section's list
        QOR_MsgQueueHelper::msgEntryPair m_objEntry = {};   // its words: the place may have become another's
    };
    typedef QOR_ListHelper::chMapList_dynamic<regSection*, monitorEntry, 16> typeSessionMap;

    typeSessionMap m_mapSession;
};

}  // namespace QOR_RegistryHelper

#endif
