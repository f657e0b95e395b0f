// Taking the image of the running device.
//
// A segment is copied twice, and the words that differ are noted: what was read of them is changing. A copy whose pool
// cannot be walked, or that has a queue in motion, is taken again, and the best of the tries is kept. What a killed
// process has left unfinished, and the next one to take the lock would undo, is undone in the copy.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "internal/journal.h"
#include "internal/notes.h"
#include "qor/ChainHelper/ShareWord.h"
#include "qor/InspectHelper/View.h"
#include "qor/MiscHelper/Process.h"
#include "xInc/xInspect.h"

namespace QOR_InspectHelper {

using QOR_ChainHelper::journalEntry;
using QOR_ChainHelper::journalHeader;
using QOR_ChainHelper::loadShareWord;
using QOR_ChainHelper::shareJournal;

namespace {

constexpr const char* szKeyPrefix = "/tmp/qor_";
constexpr const char* szEventPrefix = "qor_task_event_";
constexpr int maxTries = 3;
constexpr int maxShareTries = 20;  // queues of busy threads rest for microseconds only

std::string keyFileOf(segmentKind kind) { return std::string(szKeyPrefix) + segmentTypeOf(kind).lpszName; }

// ---- copies

std::vector<uint8_t> copyWords(const uint32_t* pWords, size_t nSize) {
    std::vector<uint32_t> words(nSize / 4);
    for (size_t i = 0; i < words.size(); ++i)
        words[i] = loadShareWord(pWords[i]);
    std::vector<uint8_t> bytes(words.size() * 4);
    if (!bytes.empty())
        memcpy(bytes.data(), words.data(), bytes.size());
    return bytes;
}

std::vector<changedRange> compareWords(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    std::vector<changedRange> changed;
    const uint32_t uSize = static_cast<uint32_t>(std::min(a.size(), b.size()));
    for (uint32_t u = 0; u + 4 <= uSize; u += 4) {
        if (memcmp(&a[u], &b[u], 4) == 0)
            continue;
        if (!changed.empty() && changed.back().uEnd == u)
            changed.back().uEnd = u + 4;
        else
            changed.push_back({u, u + 4});
    }
    return changed;
}

// How much of a copy cannot be relied on.
size_t countTroubles(const segmentImage& image, segmentKind kind) {
    if (image.changed.empty())
        return 0;
    if (kind != segmentShare)
        return readSegment(image, kind).state == viewSound ? 0 : 1;
    const shareView view = readShare(image);
    const size_t nQueues = static_cast<size_t>(std::count_if(
        view.queues.begin(), view.queues.end(), [](const queueView& queue) { return queue.state != viewSound; }));
    return (view.pool.state != viewSound ? 10000u : 0) + (view.state != viewSound ? 1u : 0) + nQueues;
}

// fnRead gives the content, or nothing on an error.
template <class Fn>
void copyTwice(segmentImage& image, segmentKind kind, Fn fnRead) {
    size_t nBest = SIZE_MAX;
    for (int nLeft = kind == segmentShare ? maxShareTries : maxTries; nLeft > 0 && nBest > 0; --nLeft) {
        segmentImage copy = image;
        copy.bytes = fnRead();
        copy.changed = compareWords(copy.bytes, fnRead());
        const size_t nTroubles = countTroubles(copy, kind);
        if (nTroubles < nBest)
            image = copy;
        nBest = std::min(nBest, nTroubles);
    }
}

template <class Fn>
void copySegment(segmentImage& image, segmentKind kind, const std::string& strLockFile, int nExactMs, Fn fnRead) {
    if (nExactMs >= 0) {
        const semaphoreHold hold(strLockFile, nExactMs);
        image.bExact = hold.isHeld();
        if (image.bExact)
            image.bytes = fnRead();
    }
    if (!image.bExact)
        copyTwice(image, kind, fnRead);
}

// ---- segments of the kernel

// A segment whose size is right may still be another program's.
bool hasHeader(int32_t nId, const segmentType& type) {
    const attachedSegment attached(nId);
    if (attached.words() == nullptr)
        return false;
    const uint32_t uSize = loadShareWord(attached.words()[0]);
    const uint32_t uType = loadShareWord(attached.words()[1]);
    return uSize == type.uSize && uType == static_cast<uint32_t>(type.nType);
}

void describe(segmentImage& image, const kernelSegment& segment) {
    image.bFound = true;
    image.uKey = segment.uKey;
    image.nId = segment.nId;
    image.uSize = static_cast<uint32_t>(segment.uSize);
    image.nAttached = segment.nAttached;
    image.idOwner = segment.idOwner;
    image.uMode = segment.uMode;
}

// The segment of the key file; without one, that which most processes have attached, the youngest of them first.
// Other segments with the same header are those that some processes kept when the key file was replaced.
void findSegment(segmentImage& image, segmentKind kind, const std::vector<kernelSegment>& all) {
    const segmentType& type = segmentTypeOf(kind);
    uint32_t uKey = 0;
    image.bKeyFile = findKey(keyFileOf(kind), 'S', uKey);
    const kernelSegment* pBest = nullptr;
    std::vector<const kernelSegment*> candidates;
    for (const kernelSegment& segment : all) {
        const bool bNamed = image.bKeyFile && segment.uKey == uKey;
        if (!bNamed && (segment.uSize != type.uSize || !hasHeader(segment.nId, type)))
            continue;
        candidates.push_back(&segment);
        const bool bBestNamed = pBest != nullptr && image.bKeyFile && pBest->uKey == uKey;
        if (pBest == nullptr || bNamed || (!bBestNamed && segment.nAttached >= pBest->nAttached))
            pBest = &segment;
    }
    if (pBest == nullptr)
        return;
    describe(image, *pBest);
    for (const kernelSegment* pSegment : candidates)
        if (pSegment != pBest)
            image.others.push_back(pSegment->nId);
}

// ---- journals

const journalHeader& headerOf(const attachedSegment& journal) {
    return *reinterpret_cast<const journalHeader*>(journal.words());
}

// The journal beside a segment, which names it in its header; null when there is none.
std::unique_ptr<attachedSegment> findJournal(const segmentImage& image, const std::vector<kernelSegment>& all) {
    for (const kernelSegment& segment : all) {
        if (segment.uSize != shareJournal::sizeFor(image.uSize) + shareJournal::sizeNotes)
            continue;
        auto pJournal = std::make_unique<attachedSegment>(segment.nId);
        if (pJournal->words() != nullptr && loadShareWord(headerOf(*pJournal).uMagic) == journalHeader::magic &&
            loadShareWord(headerOf(*pJournal).idSegment) == static_cast<uint32_t>(image.nId))
            return pJournal;
    }
    return nullptr;
}

// The words of the entries that a killed process has left, which the next one to take the lock undoes. None while
// somebody holds the lock.
std::vector<uint8_t> unfinished(const segmentImage& image, segmentKind kind, const attachedSegment& journal) {
    const journalHeader& header = headerOf(journal);
    const size_t nEntries = loadShareWord(header.nEntry);
    const bool bComplete = (loadShareWord(header.uFlags) & journalHeader::flagComplete) != 0;
    const size_t nMost = (shareJournal::sizeFor(image.uSize) - sizeof(header)) / sizeof(journalEntry);
    if (nEntries == 0 || nEntries > nMost || bComplete || findSemaphore(keyFileOf(kind)).nValue != 1)
        return {};
    return copyWords(journal.words() + sizeof(header) / 4, nEntries * sizeof(journalEntry));
}

// Undoes entries in the copy of their segment, the latest first.
void undo(segmentImage& image, const std::vector<uint8_t>& entries) {
    for (size_t n = entries.size(); n >= sizeof(journalEntry); n -= sizeof(journalEntry)) {
        journalEntry entry;
        memcpy(&entry, entries.data() + n - sizeof(entry), sizeof(entry));
        const size_t nOffset = entry.uOffset & ~3u;
        if ((entry.uOffset & 3u) != QOR_ChainHelper::kindBlock && nOffset + 4 <= image.bytes.size())
            memcpy(image.bytes.data() + nOffset, &entry.uOld, 4);
    }
}

// The notes are written without a lock, word by word.
void takeNotes(segmentImage& image, const attachedSegment& journal) {
    const size_t nOffset = shareJournal::sizeFor(image.uSize);
    image.notes = copyWords(journal.words() + nOffset / 4, sizeof(QOR_MsgQueueHelper::shareNotes));
    image.uNotesTime = monotonicMilliseconds();
}

void takeSegment(segmentImage& image, segmentKind kind, const std::vector<kernelSegment>& all, int nExactMs) {
    findSegment(image, kind, all);
    image.lock = findSemaphore(keyFileOf(kind));
    if (!image.bFound)
        return;
    const attachedSegment attached(image.nId);
    if (attached.words() == nullptr) {
        image.strError = std::string("cannot be attached: ") + strerror(errno);
        return;
    }
    const auto pJournal = findJournal(image, all);
    const std::vector<uint8_t> left = pJournal ? unfinished(image, kind, *pJournal) : std::vector<uint8_t>();
    const uint32_t uSize = std::min(image.uSize, segmentTypeOf(kind).uSize);
    copySegment(image, kind, keyFileOf(kind), nExactMs, [&] { return copyWords(attached.words(), uSize); });
    if (pJournal && !left.empty() && left == unfinished(image, kind, *pJournal))
        undo(image, left);
    if (pJournal && kind == segmentShare)
        takeNotes(image, *pJournal);
}

// ---- the file of the counters

void takeStorage(segmentImage& image, const std::string& strFile, int nExactMs) {
    const inspectedFile file(strFile);
    image.lock = findSemaphore(strFile);
    image.bFound = file.isOpen() || file.error() != 0;
    if (!file.isOpen()) {
        if (image.bFound)
            image.strError = strFile + ": " + strerror(file.error());
        return;
    }
    image.bKeyFile = true;
    image.uSize = file.size();
    image.idOwner = file.owner();
    image.uMode = file.mode();
    const size_t nSize = std::min(image.uSize, segmentTypeOf(segmentStorage).uSize);
    copySegment(image, segmentStorage, strFile, nExactMs, [&] { return file.read(nSize); });
}

// ---- tasks

// What stands in a line of /proc/<id>/status after its title.
std::string statusValue(std::ifstream& in, const std::string& strTitle) {
    for (std::string strLine; std::getline(in, strLine);)
        if (strLine.compare(0, strTitle.size(), strTitle) == 0) {
            const size_t nBegin = strLine.find_first_not_of(" \t", strTitle.size());
            return nBegin == std::string::npos ? std::string() : strLine.substr(nBegin);
        }
    return std::string();
}

std::string programOf(int32_t idProcess) {
    std::ifstream in("/proc/" + std::to_string(idProcess) + "/comm");
    std::string strName;
    std::getline(in, strName);
    return strName;
}

void takeTask(deviceImage& device, int32_t idTask, std::map<int32_t, std::string>& mapProgram) {
    if (idTask <= 0 || device.tasks.count(idTask) != 0)
        return;
    taskImage& task = device.tasks[idTask];
    task.bAlive = QOR_MiscHelper::qorIsValidTaskID(idTask);
    const lockImage event = findSemaphore(std::string("/tmp/") + szEventPrefix + std::to_string(idTask));
    if (event.bFound) {
        task.nEventWaiters = event.nWaiters;
        task.nEventValue = event.nValue;
    }
    if (!task.bAlive)
        return;
    std::ifstream in("/proc/" + std::to_string(idTask) + "/status");
    task.idProcess = atoi(statusValue(in, "Tgid:").c_str());
    const auto it = mapProgram.find(task.idProcess);
    task.strProgram = it != mapProgram.end() ? it->second : mapProgram[task.idProcess] = programOf(task.idProcess);
}

// Everybody whom some record names.
void takeTasks(deviceImage& device) {
    std::map<int32_t, std::string> mapProgram;
    for (const queueView& queue : readShare(device.segment(segmentShare)).queues) {
        takeTask(device, queue.idTask, mapProgram);
        for (const messageView& message : queue.messages)
            takeTask(device, message.idSender, mapProgram);
    }
    const registryView registry = readRegistry(device.segment(segmentRegistry));
    takeTask(device, registry.idSaver, mapProgram);
    for (const documentView& document : registry.documents)
        for (const sectionView& section : document.sections)
            for (const monitorView& monitor : section.monitors)
                takeTask(device, monitor.idTask, mapProgram);
    for (const segmentImage& image : device.segments)
        if (image.lock.bFound)
            takeTask(device, image.lock.idLast, mapProgram);
    for (const int32_t idTask : device.events)
        takeTask(device, idTask, mapProgram);
}

// The task of a key file's name; 0 when it is not that of an event.
int32_t taskOfEvent(const std::string& strName) {
    const size_t nPrefix = strlen(szEventPrefix);
    if (strName.compare(0, nPrefix, szEventPrefix) != 0)
        return 0;
    const std::string strNumber = strName.substr(nPrefix);
    const bool bNumber = strNumber.size() < 10 && strNumber.find_first_not_of("0123456789") == std::string::npos;
    return bNumber ? atoi(strNumber.c_str()) : 0;
}

void takeEvents(deviceImage& device) {
    std::error_code error;
    std::filesystem::directory_iterator it("/tmp", error);
    for (; !error && it != std::filesystem::directory_iterator(); it.increment(error))
        if (const int32_t idTask = taskOfEvent(it->path().filename().string()))
            device.events.push_back(idTask);
    std::sort(device.events.begin(), device.events.end());
}

// ---- limits

// The number at a place of a file of the kernel; -1 when it is not there. The kernel's "no limit" does not fit.
int64_t kernelNumber(const char* lpszFile, int iPlace) {
    std::ifstream in(lpszFile);
    uint64_t uNumber = 0;
    for (int i = 0; i <= iPlace; ++i)
        in >> uNumber;
    return in.fail() || uNumber > static_cast<uint64_t>(INT64_MAX) ? -1 : static_cast<int64_t>(uNumber);
}

void takeLimits(deviceImage& device, size_t nSegments) {
    device.limits.nSegmentMax = kernelNumber("/proc/sys/kernel/shmmni", 0);
    device.limits.nSegmentUsed = static_cast<int64_t>(nSegments);
    device.limits.nSegmentSizeMax = kernelNumber("/proc/sys/kernel/shmmax", 0);
    device.limits.nSemaphoreMax = kernelNumber("/proc/sys/kernel/sem", 3);
    device.limits.nSemaphoreUsed = countSemaphores();
}

}  // namespace

std::string defaultStorageFile() {
    const std::string strHome(static_cast<const char*>(QOR_MiscHelper::qorGetHomeDirectory()));
    const char* lpszName = segmentTypeOf(segmentStorage).lpszName;
    return strHome + (!strHome.empty() && strHome.back() == '/' ? "" : "/") + lpszName;
}

void takeImage(deviceImage& device, const takeOptions& options) {
    device = deviceImage();
    device.tTaken = time(nullptr);
    device.strMachine = machineName();
    const std::vector<kernelSegment> all = listSegments();
    for (const segmentKind kind : {segmentShare, segmentNamed, segmentTrace, segmentRegistry})
        takeSegment(device.segment(kind), kind, all, options.nExactMs);
    takeStorage(device.segment(segmentStorage),
                options.strStorageFile.empty() ? defaultStorageFile() : options.strStorageFile, options.nExactMs);
    takeEvents(device);
    takeTasks(device);
    takeLimits(device, all.size());
}

}  // namespace QOR_InspectHelper
