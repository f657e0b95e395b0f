// Searching directories.
//
// The directories from the first one to the current one form a stack. A directory that is already on it, by its device
// and inode, is not entered again: that is where a cycle of links closes. Each directory is read to its end before the
// next is opened, so one is open at a time.
//
// Most entries are files, and the directory says which, so those need no stat().
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "qor/BaseHelper/Directory.h"
#include "qor/FileHelper/PathName.h"
#include "qor/SubClass/FileSearch.h"
#include "xInc/platform.h"

namespace QOR_SubClass {

typedef QOR_StringHelper::chReferenceStringT<char> refString;
typedef QOR_ListHelper::chObjList_dynamic<refString, 16> listPath;

namespace {

struct directory {
    refString strPath;
    QOR_Platform::fileState state;
    std::vector<directory> listBelow;  // still to be searched
};

class fileSearch {
public:
    fileSearch(const char* lpszFilter, BOOL bRecursive) : m_filter(lpszFilter), m_bRecursive(bRecursive) {}

    void run(const char* lpszDirectory) {
        QOR_Platform::fileState state;
        if (lpszDirectory != NULL)
            QOR_Platform::lookThrough(lpszDirectory, state);
        enter({refString(lpszDirectory), state, {}});
        while (!m_listStack.empty())
            step();
    }

    void takeResult(listPath& lstResult) {
        // Sorts pointers, with strcmp(), which has the order of the strings.
        std::vector<const refString*> listSorted;
        for (const refString& strPath : m_listFound)
            listSorted.push_back(&strPath);
        std::stable_sort(listSorted.begin(), listSorted.end(),
                         [](const refString* p1, const refString* p2) { return strcmp(*p1, *p2) < 0; });
        for (const refString* pPath : listSorted)
            lstResult.push_back(*pPath);
    }

private:
    void step() {
        std::vector<directory>& listBelow = m_listStack.back().listBelow;
        if (listBelow.empty()) {
            m_listStack.pop_back();
            return;
        }
        directory next = std::move(listBelow.back());
        listBelow.pop_back();
        if (!isOnStack(next))
            enter(std::move(next));
    }

    bool isOnStack(const directory& other) const {
        return std::any_of(m_listStack.begin(), m_listStack.end(),
                           [&other](const directory& r) { return r.state.isSameFile(other.state); });
    }

    void enter(directory next) {
        QOR_BaseHelper::chPathWalker walker(next.strPath);
        BOOL bIsFile = FALSE;
        for (refString strName; walker.ReadFileName(strName, bIsFile);)
            if (!m_filter.IsDenyFileName(strName) && (bIsFile || !takeDirectory(next, strName)))
                takeFile(next, strName);
        m_listStack.push_back(std::move(next));
    }

    static refString pathOf(const directory& parent, const refString& strName) {
        // The path's own buffer is larger than the path.
        return refString(static_cast<const char*>(QOR_FileHelper::chPathNameA(parent.strPath, strName)), -1);
    }

    // Whether the entry is a directory, or may be one whose path is too long for the system.
    bool takeDirectory(directory& parent, const refString& strName) {
        const refString strPath = pathOf(parent, strName);
        QOR_Platform::fileState state;
        if (!QOR_Platform::lookThrough(strPath, state))
            return errno == ENAMETOOLONG;
        if (state.eKind != QOR_Platform::kindDirectory)
            return false;
        if (m_bRecursive)
            parent.listBelow.push_back({strPath, state, {}});
        return true;
    }

    void takeFile(const directory& parent, const refString& strName) {
        if (m_filter.IsAcceptFileName(strName))
            m_listFound.push_back(pathOf(parent, strName));
    }

    chFileFilter m_filter;
    const BOOL m_bRecursive;
    std::vector<directory> m_listStack;
    std::vector<refString> m_listFound;
};

}  // namespace

BOOL qorFindFile(const char* lpszDirectory, const char* lpszFilter, listPath& lstResult, BOOL bRecursive) {
    fileSearch search(lpszFilter, bRecursive);
    search.run(lpszDirectory);
    lstResult.clear();
    search.takeResult(lstResult);
    return TRUE;
}

}  // namespace QOR_SubClass
