#include "kill/world.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>

#include "xInc/keyfile.h"

namespace qorTest {

using namespace QOR_InspectHelper;

namespace {

const char szKeyPrefix[] = "/tmp/qor_";
const char szEvent[] = "/tmp/qor_task_event_";

struct kernelRow {
    int nKey, nId;
    size_t nSize;
};

// The rows of a table of the kernel: key, id, and for segments permissions and size.
std::vector<kernelRow> rowsOf(const char* lpszTable) {
    std::vector<kernelRow> rows;
    std::ifstream in(lpszTable);
    std::string strLine;
    std::getline(in, strLine);
    while (std::getline(in, strLine)) {
        long long nKey = 0, nId = 0, nMode = 0, nSize = 0;
        if (sscanf(strLine.c_str(), "%lld %lld %lld %lld", &nKey, &nId, &nMode, &nSize) == 4)
            rows.push_back({static_cast<int>(nKey), static_cast<int>(nId), static_cast<size_t>(nSize)});
    }
    return rows;
}

std::vector<kernelRow> segmentsNow() { return rowsOf("/proc/sysvipc/shm"); }

std::vector<kernelRow> semaphoresNow() { return rowsOf("/proc/sysvipc/sem"); }

void setValue(int nId, int nValue) {
    union {
        int nValue;
        void* p;
    } arg;
    arg.nValue = nValue;
    semctl(nId, 0, SETVAL, arg);
}

// The files of the device: those in /tmp itself and in the home directory.
std::vector<std::string> filesNow() {
    std::vector<std::string> files;
    for (const char* lpszDirectory : {"/tmp", "/tmp/home"})
        if (DIR* const pDirectory = opendir(lpszDirectory)) {
            while (const dirent* const pEntry = readdir(pDirectory)) {
                const std::string strPath = std::string(lpszDirectory) + "/" + pEntry->d_name;
                struct stat state;
                if (lstat(strPath.c_str(), &state) == 0 && S_ISREG(state.st_mode))
                    files.push_back(strPath);
            }
            closedir(pDirectory);
        }
    return files;
}

std::string contentOf(const std::string& strPath) {
    std::string strContent;
    const int fd = open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat state;
    if (fd == -1 || fstat(fd, &state) != 0)
        return strContent;
    strContent.resize(static_cast<size_t>(state.st_size));
    const ssize_t nSize = read(fd, &strContent[0], strContent.size());
    strContent.resize(nSize > 0 ? static_cast<size_t>(nSize) : 0);
    close(fd);
    return strContent;
}

// Writes a file in place, so that mappings of it and its key stay.
void putContent(const std::string& strPath, const std::string& strContent) {
    const int fd = open(strPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd == -1 || fchmod(fd, 0666) != 0 || ftruncate(fd, static_cast<off_t>(strContent.size())) != 0 ||
        pwrite(fd, strContent.data(), strContent.size(), 0) != static_cast<ssize_t>(strContent.size()))
        abort();
    close(fd);
}

bool beginsWith(const std::string& str, const char* lpszPrefix) { return str.rfind(lpszPrefix, 0) == 0; }

bool isAlive(int id) { return kill(id, 0) == 0 || errno == EPERM; }

const char szStorage[] = "/tmp/home/ipc_system_storage";

bool isKeyFile(const std::string& strPath) { return beginsWith(strPath, szKeyPrefix) || strPath == szStorage; }

// What free cells contain is nobody's.
void clearFree(std::vector<uint8_t>& bytes, const poolView& pool) {
    constexpr uint32_t nKept = 12;  // header and links
    for (const cellView& cell : pool.cells)
        if (cell.bFree && cell.uSize > nKept)
            memset(bytes.data() + cell.uOffset + nKept, 0, cell.uSize - nKept);
}

// Lines begin with the author and the process's id.
void maskLines(std::vector<uint8_t>& bytes, int idTask) {
    char szId[24];
    const int nLength = snprintf(szId, sizeof(szId), "+%.4d:", idTask);
    char* const pBegin = reinterpret_cast<char*>(bytes.data());
    char* const pEnd = pBegin + bytes.size();
    for (char* p = pBegin; p != NULL && p < pEnd;) {
        p = static_cast<char*>(memmem(p, static_cast<size_t>(pEnd - p), szId, static_cast<size_t>(nLength)));
        if (p != NULL)
            memset(p + 1, '#', static_cast<size_t>(nLength - 2));
    }
}

uint32_t wordAt(const std::vector<uint8_t>& bytes, size_t nAt) {
    uint32_t u = 0;
    memcpy(&u, bytes.data() + nAt, sizeof(u));
    return u;
}

// Where a pointer has 32 bits, handles of timers and processors are addresses of the victim's memory, which differ from
// run to run. The victim is a child of this process, so its heap is near this one's.
bool isHeapAddress(uint32_t uWord) {
    constexpr uintptr_t sizeNear = 16u << 20;
    const uintptr_t uEnd = reinterpret_cast<uintptr_t>(sbrk(0));
    return sizeof(void*) == 4 && uWord > uEnd - sizeNear && uWord < uEnd + sizeNear;
}

// A task is told by its id; in the flag of a section whose monitors it notifies, by the id times -256.
bool isSameTask(uint32_t uThen, uint32_t uNow, const taskPairs& pairs) {
    for (const auto& pair : pairs)
        for (const int nFactor : {1, -256})
            if (uThen == static_cast<uint32_t>(nFactor * pair.first) &&
                uNow == static_cast<uint32_t>(nFactor * pair.second))
                return true;
    return false;
}

}  // namespace

bool isSameState(const worldState& then, const worldState& now, const taskPairs& pairs, std::string* pstrWhere) {
    for (size_t i = 0; i < then.segments.size(); ++i) {
        const std::vector<uint8_t>&a = then.segments[i], &b = now.segments[i];
        if (a.empty())
            continue;
        const char* const lpszName = segmentTypeOf(static_cast<segmentKind>(i)).lpszName;
        if (a.size() != b.size()) {
            *pstrWhere = std::string(lpszName) + " has another size";
            return false;
        }
        if (a == b)
            continue;
        for (size_t n = 0; n + 4 <= a.size(); n += 4) {
            const uint32_t uThen = wordAt(a, n), uNow = wordAt(b, n);
            if (uThen == uNow || isSameTask(uThen, uNow, pairs) || (isHeapAddress(uThen) && isHeapAddress(uNow)))
                continue;
            char sz[120];
            snprintf(sz, sizeof(sz), "%s at %zu: %08x, now %08x", lpszName, n, uThen, uNow);
            *pstrWhere = sz;
            return false;
        }
    }
    return true;
}

world::~world() {
    while (!m_mapAttached.empty())
        forget(m_mapAttached.begin()->first);
}

char* world::attach(int nId, size_t nSize) {
    const auto it = m_mapAttached.find(nId);
    if (it != m_mapAttached.end())
        return it->second.first;
    void* const p = shmat(nId, NULL, 0);
    if (p == reinterpret_cast<void*>(-1))
        return NULL;
    m_mapAttached[nId] = {static_cast<char*>(p), nSize};
    return static_cast<char*>(p);
}

void world::forget(int nId) {
    const auto it = m_mapAttached.find(nId);
    if (it == m_mapAttached.end())
        return;
    shmdt(it->second.first);
    m_mapAttached.erase(it);
}

void world::removeObjects() {
    for (const kernelRow& row : segmentsNow()) {
        forget(row.nId);
        shmctl(row.nId, IPC_RMID, NULL);
    }
    for (const kernelRow& row : semaphoresNow())
        semctl(row.nId, 0, IPC_RMID);
}

void world::Clear() {
    removeObjects();
    for (const std::string& strPath : filesNow())
        unlink(strPath.c_str());
}

void world::Reboot(bool bCopy) {
    const std::map<std::string, std::string> files = HomeFiles();
    removeObjects();
    for (const std::string& strPath : filesNow())
        if (bCopy || files.count(strPath) == 0)
            unlink(strPath.c_str());
    PutHomeFiles(files);
}

std::map<std::string, std::string> world::HomeFiles() {
    std::map<std::string, std::string> files;
    for (const std::string& strPath : filesNow())
        if (beginsWith(strPath, "/tmp/home/"))
            files[strPath] = contentOf(strPath);
    return files;
}

void world::PutHomeFiles(const std::map<std::string, std::string>& files) {
    for (const auto& file : HomeFiles())
        if (files.count(file.first) == 0)
            unlink(file.first.c_str());
    for (const auto& file : files)
        putContent(file.first, file.second);
}

void world::StealLock(segmentKind kind, bool bRemove) {
    const std::string strFile =
        kind == segmentStorage ? std::string(szStorage) : std::string(szKeyPrefix) + segmentTypeOf(kind).lpszName;
    const int nId = semget(ftok(strFile.c_str(), QOR_BaseHelper::idProjectSemaphore), 1, 0);
    if (bRemove)
        semctl(nId, 0, IPC_RMID);
    else
        setValue(nId, 1);
}

void world::Save() {
    m_mapSegment.clear();
    m_mapSemaphore.clear();
    m_mapFile.clear();
    for (const kernelRow& row : segmentsNow())
        if (const char* const p = attach(row.nId, row.nSize))
            m_mapSegment[row.nId].assign(p, p + row.nSize);
    for (const kernelRow& row : semaphoresNow())
        m_mapSemaphore[row.nId] = {row.nKey, semctl(row.nId, 0, GETVAL)};
    for (const std::string& strPath : filesNow())
        m_mapFile[strPath] = contentOf(strPath);
}

void world::Restore() {
    restoreSegments();
    restoreFiles();
    restoreSemaphores();
}

void world::restoreSegments() {
    for (const kernelRow& row : segmentsNow()) {
        const auto it = m_mapSegment.find(row.nId);
        if (it == m_mapSegment.end()) {
            forget(row.nId);
            shmctl(row.nId, IPC_RMID, NULL);
        } else if (char* const p = attach(row.nId, row.nSize)) {
            if (memcmp(p, it->second.data(), row.nSize) != 0)
                memcpy(p, it->second.data(), row.nSize);
        }
    }
}

void world::restoreFiles() {
    for (const std::string& strPath : filesNow())
        if (m_mapFile.count(strPath) == 0)
            unlink(strPath.c_str());
    for (const auto& file : m_mapFile) {
        const bool bThere = access(file.first.c_str(), F_OK) == 0;
        if (bThere ? contentOf(file.first) != file.second : !beginsWith(file.first, szEvent))
            putContent(file.first, file.second);
    }
}

// Whatever is opened by its name finds the new semaphore; whoever has the old one open must not be there any more.
void world::remakeSemaphore(const std::string& strPath, int nValue) {
    int nId = -1;
    for (int i = 0; nId == -1; ++i) {
        const std::string strTry = "/tmp/home/." + std::to_string(i);
        putContent(strTry, "");
        if (rename(strTry.c_str(), strPath.c_str()) != 0)
            abort();
        nId = semget(ftok(strPath.c_str(), QOR_BaseHelper::idProjectSemaphore), 1, IPC_CREAT | IPC_EXCL | 0666);
    }
    setValue(nId, nValue);
    const int nKey = ftok(strPath.c_str(), QOR_BaseHelper::idProjectSemaphore);
    m_mapSemaphore[nId] = {nKey, nValue};
}

void world::restoreSemaphores() {
    std::map<int, int> mapOld;  // by key
    for (const auto& item : m_mapSemaphore)
        mapOld[item.second.nKey] = item.first;
    std::set<int> setThere;
    for (const kernelRow& row : semaphoresNow()) {
        const auto it = m_mapSemaphore.find(row.nId);
        if (it == m_mapSemaphore.end()) {
            semctl(row.nId, 0, IPC_RMID);
            continue;
        }
        setThere.insert(row.nId);
        setValue(row.nId, it->second.nValue);
    }
    for (auto it = m_mapSemaphore.begin(); it != m_mapSemaphore.end();)
        it = setThere.count(it->first) == 0 ? m_mapSemaphore.erase(it) : ++it;
    for (const auto& file : m_mapFile)
        if (beginsWith(file.first, szEvent) &&
            semget(ftok(file.first.c_str(), QOR_BaseHelper::idProjectSemaphore), 1, 0) == -1)
            remakeSemaphore(file.first, 0);
}

segmentImage world::image(segmentKind kind, const std::map<int, std::pair<int, size_t>>& mapRow) {
    const segmentType& type = segmentTypeOf(kind);
    segmentImage image;
    if (kind == segmentStorage) {
        const std::string strContent = contentOf(szStorage);
        image.bytes.assign(strContent.begin(), strContent.end());
    } else {
        const key_t key = ftok((std::string(szKeyPrefix) + type.lpszName).c_str(), QOR_BaseHelper::idProjectSegment);
        const auto it = mapRow.find(key);
        const char* const p = it != mapRow.end() ? attach(it->second.first, it->second.second) : NULL;
        if (p != NULL)
            image.bytes.assign(p, p + it->second.second);
    }
    image.bFound = !image.bytes.empty();
    image.bKeyFile = image.bExact = true;
    image.uSize = static_cast<uint32_t>(image.bytes.size());
    return image;
}

worldState world::Read(int idTask) {
    worldState state;
    std::map<int, std::pair<int, size_t>> mapRow;
    for (const kernelRow& row : segmentsNow())
        mapRow[row.nKey] = {row.nId, row.nSize};
    for (int i = 0; i < countSegmentKind; ++i) {
        const segmentKind kind = static_cast<segmentKind>(i);
        segmentImage copy = image(kind, mapRow);
        if (!copy.bFound)
            continue;
        const segmentView view = readSegment(copy, kind);
        if (view.state != viewSound && view.bBuilt)
            state.strDamage += view.strProblem + "; ";
        else if (view.bBuilt && !view.pool.bChained)
            state.strDamage += std::string(segmentTypeOf(kind).lpszName) + ": free cells outside the chain; ";
        clearFree(copy.bytes, view.pool);
        if (kind == segmentTrace)
            maskLines(copy.bytes, idTask);
        state.uLeaked += view.pool.uLeaked;
        for (const cellView& cell : view.pool.cells)
            if (view.state == viewSound && !cell.bFree && !cell.bReached)
                state.strLeak += std::string(segmentTypeOf(kind).lpszName) + " at " + std::to_string(cell.uOffset) +
                                 ": " + std::to_string(cell.uSize) + "; ";
        state.segments[static_cast<size_t>(i)] = std::move(copy.bytes);
    }
    return state;
}

bool world::IsComplete(const worldState& state) {
    bool bAny = false;
    for (const std::vector<uint8_t>& bytes : state.segments) {
        if (!bytes.empty() && (wordAt(bytes, 0) == 0 || wordAt(bytes, 4) == 0))
            return false;
        bAny |= !bytes.empty();
    }
    return bAny;
}

std::string world::Leavings() const {
    std::set<int> setKey;
    std::string strLeft;
    for (const std::string& strPath : filesNow()) {
        if (isKeyFile(strPath))
            setKey.insert(ftok(strPath.c_str(), QOR_BaseHelper::idProjectSemaphore));
        const bool bDeadEvent = beginsWith(strPath, szEvent) && !isAlive(atoi(strPath.c_str() + strlen(szEvent)));
        if (bDeadEvent || strPath.find("/.qor_new.") != std::string::npos)
            strLeft += (bDeadEvent ? "an event of a dead task" : strPath) + "; ";
    }
    for (const kernelRow& row : semaphoresNow())
        if (setKey.count(row.nKey) == 0)
            strLeft += "a semaphore without key file; ";
    return strLeft;
}

void world::WakeAll() const {
    for (const kernelRow& row : semaphoresNow())
        if (semctl(row.nId, 0, GETNCNT) > 0) {
            sembuf step = {0, 1, IPC_NOWAIT};
            semop(row.nId, &step, 1);
        }
}

}  // namespace qorTest
