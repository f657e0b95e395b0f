#include "support/leavings.h"

#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <vector>

namespace qorTest {

namespace {

constexpr char projectSemaphore = 'm';
constexpr char projectSegment = 'S';
constexpr char projectJournal = 'J';
const std::string s_strEvent = "task_event_";

std::vector<std::string>& listLeft() {
    static std::vector<std::string> list;
    return list;
}

bool beginsWith(const std::string& str, const std::string& strPrefix) { return str.rfind(strPrefix, 0) == 0; }

bool isLeftOnPurpose(const std::string& strObject) {
    for (const std::string& strPrefix : listLeft())
        if (beginsWith(strObject, strPrefix))
            return true;
    return false;
}

// The segments that stay as long as the device runs, and their locks.
bool isPermanent(const std::string& strName) {
    return beginsWith(strName, "ipc_system_") || beginsWith(strName, "ipc_registry");
}

bool isAlive(int id) { return kill(id, 0) == 0 || errno == EPERM; }

bool isEventOfDeadTask(const std::string& strName) {
    return beginsWith(strName, s_strEvent) && !isAlive(atoi(strName.c_str() + s_strEvent.size()));
}

bool isEventOfLiveTask(const std::string& strName) {
    return beginsWith(strName, s_strEvent) && !isEventOfDeadTask(strName);
}

// Grows whenever a child is waited for: none ends without a page fault.
long workOfChildren() {
    rusage usage = {};
    getrusage(RUSAGE_CHILDREN, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

std::set<std::string> keyFileNames() {
    std::set<std::string> setName;
    if (DIR* const pDirectory = opendir("/tmp")) {
        while (const dirent* const pEntry = readdir(pDirectory))
            if (beginsWith(pEntry->d_name, "qor_"))
                setName.insert(pEntry->d_name + 4);
        closedir(pDirectory);
    }
    return setName;
}

// The keys of a table of the kernel, which stand in its first column. A key of 0 is private to its processes.
std::set<key_t> keysOf(const char* lpszTable) {
    std::set<key_t> setKey;
    std::ifstream in(lpszTable);
    std::string strLine;
    std::getline(in, strLine);
    while (std::getline(in, strLine))
        if (const key_t key = static_cast<key_t>(strtoll(strLine.c_str(), NULL, 10)))
            setKey.insert(key);
    return setKey;
}

// Adds the objects of a table that hang on none of the key files.
void addUnnamed(std::set<std::string>& setObject, const char* lpszTable, const char* lpszKind,
                const std::set<key_t>& setNamed) {
    for (const key_t key : keysOf(lpszTable)) {
        char sz[80];
        snprintf(sz, sizeof(sz), "a %s with the key 0x%x", lpszKind, static_cast<unsigned>(key));
        if (setNamed.count(key) == 0 && !isLeftOnPurpose(sz))
            setObject.insert(sz);
    }
}

// The objects that may have been leaked.
std::set<std::string> objectsNow() {
    const std::string strStorage = std::string(getenv("HOME")) + "/ipc_system_storage";
    std::set<key_t> setSemaphore = {ftok(strStorage.c_str(), projectSemaphore)}, setSegment;
    std::set<std::string> setObject;
    for (const std::string& strName : keyFileNames()) {
        const std::string strPath = "/tmp/qor_" + strName;
        setSemaphore.insert(ftok(strPath.c_str(), projectSemaphore));
        setSegment.insert(ftok(strPath.c_str(), projectSegment));
        setSegment.insert(ftok(strPath.c_str(), projectJournal));
        if (!isPermanent(strName) && !isEventOfLiveTask(strName) && !isLeftOnPurpose(strName))
            setObject.insert(strName);
    }
    addUnnamed(setObject, "/proc/sysvipc/sem", "semaphore", setSemaphore);
    addUnnamed(setObject, "/proc/sysvipc/shm", "segment", setSegment);
    return setObject;
}

}  // namespace

bool leaveObjects(const std::string& strPrefix) {
    listLeft().push_back(strPrefix);
    return true;
}

void leakWatch::Begin() {
    m_setBefore = objectsNow();
    m_nChildren = workOfChildren();
}

// Where a child has ended, it may have been killed, and what it left is no leak.
std::set<std::string> leakWatch::End() const {
    const bool bChildren = workOfChildren() != m_nChildren;
    std::set<std::string> setLeaked;
    for (const std::string& strObject : objectsNow())
        if (m_setBefore.count(strObject) == 0 && !(bChildren && isEventOfDeadTask(strObject)))
            setLeaked.insert(strObject);
    return setLeaked;
}

}  // namespace qorTest
