// clean: remove what dead processes left, or everything when nobody is there.
#include <CLI/CLI.hpp>

#include <errno.h>
#include <string.h>

#include "device.h"
#include "leftovers.h"
#include "qor/MiscHelper/Process.h"
#include "qor/MsgQueueHelper/ShareHelper.h"
#include "table.h"

namespace qorctl {

namespace {

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
            m_prog.fail(exitNotFound, std::string(lpszKind) + " " + printable(strName) + ": " + strerror(errno));
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
    qorLeftovers::leftover event;
    event.strName = strName;
    event.strFile = "/tmp/qor_" + strName;
    event.bKeyFile = true;
    bool bGone = true;
    qorLeftovers::forEachObject(event,
                                [&bGone](const char*, const std::string&, const qorLeftovers::removal& fnRemove) {
                                    bGone = bGone && (fnRemove() || errno == ENOENT);
                                });
    return bGone;
}

void cleanDead(const device& dev, cleaner& work) {
    bool bSwept = false;
    for (const queueView& queue : dev.share().queues)
        if (!dev.image().isAlive(queue.idTask))
            work.remove("queue", queue.strName, [&bSwept] { return bSwept || (bSwept = sweepGhosts()); });
    for (const int32_t idTask : dev.image().events) {
        const std::string strName = "task_event_" + std::to_string(idTask);
        // The id may be a new task's since the image was taken.
        if (!dev.image().isAlive(idTask) && !QOR_MiscHelper::qorIsValidTaskID(idTask))
            work.remove("event", strName, [&strName] { return removeEvent(strName); });
    }
    work.finish();
}

// ---- everything

bool isUsed(program& prog, const std::string& strName, unsigned long uUsers) {
    if (uUsers > 0)
        prog.fail(exitUnhealthy, "segment " + printable(strName) + " is attached " + std::to_string(uUsers) +
                                     " times: nothing is removed");
    return uUsers > 0;
}

// Segments of the library to which no key file leads any more.
std::vector<int32_t> lostSegments(const device& dev) {
    std::vector<int32_t> ids;
    for (const segmentImage& image : dev.image().segments) {
        ids.insert(ids.end(), image.others.begin(), image.others.end());
        if (image.bFound && !image.bKeyFile && image.nId != -1)
            ids.push_back(image.nId);
    }
    return ids;
}

void cleanAll(program& prog, const device& dev, cleaner& work) {
    const std::vector<qorLeftovers::leftover> all = qorLeftovers::findLeftovers(defaultStorageFile());
    const std::vector<int32_t> lost = lostSegments(dev);
    const std::vector<int32_t> journals = qorLeftovers::findJournals(lost);
    for (const qorLeftovers::leftover& left : all)
        if (isUsed(prog, left.strName, qorLeftovers::countUsers(left)))
            return;
    for (const int32_t nId : lost)
        if (isUsed(prog, std::to_string(nId), qorLeftovers::countUsers(nId)))
            return;
    for (const qorLeftovers::leftover& left : all)
        qorLeftovers::forEachObject(left, [&work](const char* lpszKind, const std::string& strName,
                                                  const auto& fnRemove) { work.remove(lpszKind, strName, fnRemove); });
    for (const int32_t nId : journals)
        work.remove("journal", std::to_string(nId) + " without key file",
                    [nId] { return qorLeftovers::removeSegment(nId); });
    for (const int32_t nId : lost)
        work.remove("segment", std::to_string(nId) + " without key file",
                    [nId] { return qorLeftovers::removeSegment(nId); });
    work.finish();
}

void runClean(program& prog, bool bAll, bool bDryRun) {
    device dev;
    if (!prog.isLive() || !dev.open(prog))
        return;
    cleaner work(prog, bDryRun);
    if (bAll)
        cleanAll(prog, dev, work);
    else
        cleanDead(dev, work);
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
