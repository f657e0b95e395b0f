// clean: remove what dead processes left, or everything when nobody is there.
#include <CLI/CLI.hpp>

#include <errno.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <filesystem>

#include "device.h"
#include "qor/BaseHelper/Sync.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "table.h"

namespace qorctl {

namespace {

constexpr const char* szKeyPrefix = "/tmp/qor_";

// Does, or only tells, what is to be done.
class cleaner {
public:
    cleaner(program& prog, bool bDryRun) : m_prog(prog), m_bDryRun(bDryRun) {}

    // One object; fnRemove answers whether it is gone.
    template <class Fn>
    void remove(const char* lpszKind, const std::string& strName, Fn fnRemove) {
        const bool bDone = m_bDryRun || fnRemove();
        m_rows.push_back({{"kind", lpszKind}, {"name", strName}, {"removed", bDone && !m_bDryRun}});
        if (!bDone)
            m_prog.fail(exitNotFound, std::string(lpszKind) + " " + strName + ": " + strerror(errno));
        else if (!m_prog.bJson)
            put((m_bDryRun ? "would remove " : "removed ") + std::string(lpszKind) + " " + printable(strName) + "\n");
    }
    void finish() const {
        if (m_prog.bJson)
            printJson(m_rows);
        else if (m_rows.empty())
            put("nothing to remove\n");
    }

private:
    program& m_prog;
    const bool m_bDryRun;
    json m_rows = json::array();
};

// The sweep that every registration makes.
bool sweepGhosts() {
    auto* pShare = QOR_MsgQueueHelper::uCSystemShareHelpergetGlobalObject();
    if (!pShare->Lock(-1))
        return false;
    pShare->getObject()->m_objManager.ClearGhostMessageQueue();
    pShare->Unlock();
    return true;
}

// Sweeping a ghost has removed its event; the name may be missing by now.
bool removeEvent(const std::string& strName) {
    QOR_BaseHelper::chEvent event;
    if (event.OpenExistEvent(strName.c_str()))
        event.DestroyEvent();
    return true;
}

void cleanDead(const device& dev, cleaner& work) {
    bool bSwept = false;
    for (const queueView& queue : dev.share().queues)
        if (!dev.image().isAlive(queue.idTask))
            work.remove("queue", queue.strName, [&bSwept] { return bSwept || (bSwept = sweepGhosts()); });
    for (const int32_t idTask : dev.image().events) {
        const std::string strName = "task_event_" + std::to_string(idTask);
        if (!dev.image().isAlive(idTask))
            work.remove("event", strName, [&strName] { return removeEvent(strName); });
    }
}

// ---- everything

bool isUsed(program& prog, const device& dev) {
    for (const segmentImage& image : dev.image().segments)
        if (image.bFound && image.nAttached > 0) {
            prog.fail(exitUnhealthy, "segment " + std::to_string(image.nId) + " is attached " +
                                         std::to_string(image.nAttached) + " times: nothing is removed");
            return true;
        }
    return false;
}

bool removeSegment(int32_t nId) { return shmctl(nId, IPC_RMID, nullptr) == 0; }

// The semaphore and the segment of a key file, and then the file: as long as there is something, it leads there.
void cleanKeyFile(const std::string& strFile, cleaner& work) {
    const int idSemaphore = semget(ftok(strFile.c_str(), 'm'), 0, 0);
    if (idSemaphore != -1)
        work.remove("semaphore", strFile, [idSemaphore] { return semctl(idSemaphore, 0, IPC_RMID) == 0; });
    const int idSegment = shmget(ftok(strFile.c_str(), 'S'), 0, 0);
    if (idSegment != -1)
        work.remove("segment", strFile, [idSegment] { return removeSegment(idSegment); });
    work.remove("key file", strFile, [&strFile] { return unlink(strFile.c_str()) == 0; });
}

bool isKeyFile(const std::filesystem::directory_entry& entry) {
    std::error_code error;
    return entry.path().string().compare(0, strlen(szKeyPrefix), szKeyPrefix) == 0 && !entry.is_symlink(error) &&
           entry.is_regular_file(error) && entry.file_size(error) == 0;
}

void cleanAll(const device& dev, cleaner& work) {
    std::vector<std::string> files;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp", error))
        if (isKeyFile(entry))
            files.push_back(entry.path().string());
    std::sort(files.begin(), files.end());
    for (const std::string& strFile : files)
        cleanKeyFile(strFile, work);
    for (int i = 0; i < countSegmentKind; ++i) {
        const segmentImage& image = dev.image().segments[static_cast<size_t>(i)];
        std::vector<int32_t> ids = image.others;
        if (image.bFound && !image.bKeyFile && image.nId != -1)
            ids.push_back(image.nId);
        for (const int32_t nId : ids)
            work.remove("segment", std::to_string(nId) + " without key file", [nId] { return removeSegment(nId); });
    }
}

void runClean(program& prog, bool bAll, bool bDryRun) {
    device dev;
    if (!prog.strFrom.empty()) {
        prog.fail(exitUsage, "a snapshot cannot be cleaned");
        return;
    }
    if (!dev.open(prog) || (bAll && isUsed(prog, dev)))
        return;
    cleaner work(prog, bDryRun);
    if (bAll)
        cleanAll(dev, work);
    else
        cleanDead(dev, work);
    work.finish();
}

}  // namespace

void addCleanCommand(CLI::App& app, program& prog) {
    CLI::App* pClean = addCommand(app, "clean", "Remove what dead processes left",
                                  "  qorctl clean --dry-run\n  qorctl clean --all\n"
                                  "The file of the counters stays in any case.");
    static bool s_bAll = false, s_bDryRun = false;
    pClean->add_flag("--all", s_bAll, "Remove every segment, lock and key file, when no process uses them");
    pClean->add_flag("--dry-run", s_bDryRun, "Only say what would be removed");
    pClean->callback([&prog] { runClean(prog, s_bAll, s_bDryRun); });
}

}  // namespace qorctl
