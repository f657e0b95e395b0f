// What the library has left on the machine, and how it is removed: the one mechanism of `qorctl clean --all` and of the
// demo's --clean.
//
// The library's objects outlive every process on purpose. It names them by key files: /tmp/qor_<name>, an empty file
// from whose inode the keys of a semaphore and of segments are derived. What is not the library's stays: a file that is
// not empty or not regular, a semaphore set of another size, an object with other permissions, and a known segment
// without its header.
#ifndef QOR_TOOLS_LEFTOVERS_H
#define QOR_TOOLS_LEFTOVERS_H

#include <functional>
#include <string>
#include <vector>

namespace qorLeftovers {

struct leftSegment {
    int nId;
    unsigned long uUsers;  // how often it is attached
    const char* lpszKind;  // "segment", or "journal"
};

// A name with its objects.
struct leftover {
    std::string strName;                // without directory and prefix
    std::string strFile;                // its key file
    int idSemaphore = -1;               // -1: none
    std::vector<leftSegment> segments;  // in the order in which they are to be removed
    bool bKeyFile = false;              // the file is to be removed, too
    bool bOpen = false;                 // the file is that of the counters, and a process has it open
};

// Everything that key files lead to, and those files, in the order of their names; and the lock of the counters.
std::vector<leftover> findLeftovers(const std::string& strStorageFile);

// How often its segments are attached, or 1 for the open file of the counters; how often one segment is.
unsigned long countUsers(const leftover& left);
unsigned long countUsers(int nId);

// The journals of segments to which no key file leads.
std::vector<int> findJournals(const std::vector<int>& segments);

// Removes one object when it is called; whether that went well, with errno.
typedef std::function<bool()> removal;

// Calls fnObject for each object of a leftover, with its kind ("journal", "segment", "semaphore" or "key file") and
// name. The key file is the last: until then it leads to what is left. The lock of the key file is held meanwhile, so
// that no process that starts can begin to use what is being removed; where another one has it, or has attached a
// segment or taken its lock by now, each removal fails (EBUSY).
void forEachObject(
    const leftover& found,
    const std::function<void(const char* lpszKind, const std::string& strName, const removal&)>& fnObject);

// Removes a segment by its id unless somebody has attached it (EBUSY); whether that went well, with errno.
bool removeSegment(int nId);

}  // namespace qorLeftovers

#endif
