#include "support/stop.h"

#include <dirent.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <deque>
#include <fstream>
#include <string>

#include "qor/BaseHelper/Sync.h"
#include "qor/MiscHelper/Process.h"

namespace qorTest {

namespace {

// The locks of the device's segments, in their order; those that nobody has made yet are not made here.
class deviceLocks {
public:
    deviceLocks() {
        const std::string strHome = static_cast<const char*>(QOR_MiscHelper::qorGetHomeDirectory());
        for (const std::string& strName : std::initializer_list<std::string>{
                 "ipc_registry_save", "ipc_registry", "ipc_system_share", "ipc_system_named",
                 strHome + "/ipc_system_storage", "ipc_system_trace"})
            lock(strName);
    }
    deviceLocks(const deviceLocks&) = delete;
    deviceLocks& operator=(const deviceLocks&) = delete;
    ~deviceLocks() {
        for (auto it = m_listMutex.rbegin(); it != m_listMutex.rend(); ++it) {
            it->Unlock();
            it->CloseMutex();
        }
    }

private:
    void lock(const std::string& strName) {
        m_listMutex.emplace_back();
        if (m_listMutex.back().OpenExistSemaphore(strName.c_str()))
            m_listMutex.back().Lock(-1);
        else
            m_listMutex.pop_back();
    }

    std::deque<QOR_BaseHelper::chMutex> m_listMutex;
};

// Whether a task may still run: it has not ended, and has not stopped yet.
bool isRunning(const std::string& strTask) {
    std::ifstream file(strTask + "/stat");
    std::string strStat;
    if (!std::getline(file, strStat))
        return false;
    const size_t nState = strStat.rfind(") ") + 2;
    return nState < strStat.size() && strchr("RSD", strStat[nState]) != nullptr;
}

bool isAnyTaskRunning(pid_t idProcess) {
    const std::string strTasks = "/proc/" + std::to_string(idProcess) + "/task";
    DIR* const pDirectory = opendir(strTasks.c_str());
    if (pDirectory == nullptr)
        return false;
    bool bRunning = false;
    while (const dirent* const pEntry = readdir(pDirectory))
        bRunning = bRunning || (pEntry->d_name[0] != '.' && isRunning(strTasks + "/" + pEntry->d_name));
    closedir(pDirectory);
    return bRunning;
}

}  // namespace

bool stopUnlocked(pid_t idProcess) {
    const deviceLocks locks;
    if (kill(idProcess, SIGSTOP) != 0)
        return false;
    while (isAnyTaskRunning(idProcess))
        usleep(200);
    return true;
}

}  // namespace qorTest
