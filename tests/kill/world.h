// The device of a test: its System V objects and files, saved, put back, and compared.
//
// Nothing here uses the library, so that whoever looks at the device changes nothing and repairs nothing. The tests run
// in an IPC namespace of their own, whose objects are all theirs.
#ifndef TESTS_KILL_WORLD_H
#define TESTS_KILL_WORLD_H

#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "qor/InspectHelper.h"

namespace qorTest {

// The segments as they were at one moment. What a free cell contains beyond its links is zero, and so is the task's id
// in trace lines.
struct worldState {
    std::array<std::vector<uint8_t>, QOR_InspectHelper::countSegmentKind> segments;  // empty: there is none
    uint32_t uLeaked = 0;   // bytes of cells that nothing leads to
    std::string strDamage;  // what cannot be read
    std::string strLeak;    // where the leaked cells are
};

// The ids of a task in two runs, which are the same task for a comparison.
typedef std::vector<std::pair<int, int>> taskPairs;

// Whether two states are the same in the segments that there were then; the first difference is described.
bool isSameState(const worldState& then, const worldState& now, const taskPairs& pairs, std::string* pstrWhere);

class world {
public:
    world() = default;
    world(const world&) = delete;
    world& operator=(const world&) = delete;
    // Detaches everything.
    ~world();

    // Removes every System V object of the namespace and every file of the device.
    void Clear();
    // Remembers the objects and files as they are.
    void Save();
    // Removes every System V object, and the files in /tmp itself: what a reboot leaves is in the home directory. Or,
    // as on another device, copies of the files.
    void Reboot(bool bCopy);
    // The files in the home directory, with their contents.
    static std::map<std::string, std::string> HomeFiles();
    // What a saved file contained.
    const std::string& SavedFile(const std::string& strPath) { return m_mapFile[strPath]; }
    // Makes these files the only ones there.
    static void PutHomeFiles(const std::map<std::string, std::string>& files);
    // Sets the lock of a segment free, or removes it, whoever holds it.
    static void StealLock(QOR_InspectHelper::segmentKind kind, bool bRemove);
    // Puts back what Save() has remembered: the same objects with the same content and no others. A removed key file
    // gets a new semaphore.
    void Restore();
    // The state of the segments, read from memory; idTask is the task whose lines in the trace are masked.
    worldState Read(int idTask);
    // Whether there are segments, each with its header, which is stored last.
    static bool IsComplete(const worldState& state);
    // Semaphores without a key file, key files of dead tasks, and unpublished files, in words; empty when there are
    // none.
    std::string Leavings() const;
    // Wakes everybody who waits for an event.
    void WakeAll() const;

private:
    struct segment {
        void* pMemory;
        std::vector<uint8_t> bytes;
    };
    struct semaphore {
        int nKey;
        int nValue;
    };

    void removeObjects();
    char* attach(int nId, size_t nSize);
    void forget(int nId);
    // The rows of the kernel's table: id and size, by key.
    QOR_InspectHelper::segmentImage image(QOR_InspectHelper::segmentKind kind,
                                          const std::map<int, std::pair<int, size_t>>& mapRow);
    void restoreSegments();
    void restoreFiles();
    void restoreSemaphores();
    void remakeSemaphore(const std::string& strPath, int nValue);

    std::map<int, std::pair<char*, size_t>> m_mapAttached;
    std::map<int, std::vector<uint8_t>> m_mapSegment;
    std::map<int, semaphore> m_mapSemaphore;
    std::map<std::string, std::string> m_mapFile;
};

}  // namespace qorTest

#endif
