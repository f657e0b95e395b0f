/// @file
/// Watching sections of the registry.
///
/// A thread that monitors a section gets a message from each flush of a change: one for each time it was added. The
/// message calls a method of a processor object of the thread, with the id 0x9001 and the section's handle in lParam.
/// One message tells of all changes since the last flush; changes that are not flushed are not told. While less than a
/// quarter of the pool of the messages is free, a thread that has an unread message of the same section, processor and
/// method gets no other.
///
/// @code
/// m_objMonitor.MonitorSection("/rundata/config/net.ini", "Net", this,
///                             static_cast<QOR_MsgQueueHelper::msgMethod>(&myProcesser::OnNetChanged));
/// // what else this object does
/// m_objMonitor.UnmonitorAllSection();     // before this object is destroyed
/// @endcode
///
/// A monitor of a thread that has ended is skipped, and removed when the section gets its next one.
#ifndef QOR_REGISTRYHELPER_MONITOR_H
#define QOR_REGISTRYHELPER_MONITOR_H

#include "qor/ListHelper.h"
#include "qor/MsgQueueHelper/Processer.h"
#include "qor/RegistryHelper/Store.h"

namespace QOR_RegistryHelper {

/// The sections that one object watches. It is used by the thread that gets the messages. Destroying it leaves the
/// sections monitored. Each operation takes the registry's lock: fatal when the calling thread holds it.
class QOR_API chRegistryMonitor {
public:
    chRegistryMonitor() {}
    chRegistryMonitor(const chRegistryMonitor&) = delete;
    chRegistryMonitor& operator=(const chRegistryMonitor&) = delete;

    /// Subscribes the calling thread to changes of a section, which is made when there is none. pProcesser is an object
    /// of this process, or null. Returns the entry, which stays valid until it is removed; null, with a warning: the
    /// file is there and cannot be read. Fatal: the section is watched already ("typeSessionMap::find_key(&objSesion)
    /// == typeSessionMap::end()"), an empty file name.
    QOR_MsgQueueHelper::msgEntryPair* MonitorSection(const char* lpszFileName, const char* lpszSectionName,
                                                     QOR_MsgQueueHelper::chMsgProcesser* pProcesser,
                                                     QOR_MsgQueueHelper::msgMethod pMethod);
    /// Unsubscribes from a section; does nothing when it is not watched.
    void UnmonitorSection(const char* lpszFileName, const char* lpszSectionName);
    /// Unsubscribes from all sections, for good: to watch one of them again with this object is fatal.
    void UnmonitorAllSection();

private:
    struct monitorEntry {
        QOR_MsgQueueHelper::msgEntryPair* m_pEntry = NULL;  // in the section's list
        QOR_MsgQueueHelper::msgEntryPair m_objEntry = {};   // a copy: the address may be reused by another entry
    };
    typedef QOR_ListHelper::chMapList_dynamic<regSection*, monitorEntry, 16> typeSessionMap;

    typeSessionMap m_mapSession;
};

}  // namespace QOR_RegistryHelper

#endif
