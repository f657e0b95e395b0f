// The search for files in a tree, beside find and beside a plain walk.
//
// usage: qor_bench_search [--quick]
//
// Run it through scripts/bench, which gives it a /tmp in memory: what is compared is the work of the processor.
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "qor/SubClass.h"
#include "support.h"

using namespace bench;

namespace {

constexpr int filesPerDirectory = 100;
int s_nDirectories = 1000;
int s_nRounds = 15;
std::string s_strTree;

void expect(bool bDone, const char* lpszWhat) {
    if (bDone)
        return;
    perror(lpszWhat);
    exit(1);
}

// ---- the tree: ten directories in each, so it is as deep as it has digits; its files have names of ten kinds

std::string directoryName(int i) {
    std::string strPath = s_strTree;
    for (const char ch : std::to_string(i))
        (strPath += "/directory.") += ch;
    return strPath;
}

void fillDirectory(const std::string& strPath) {
    static const char* const s_arrKind[] = {"ini", "txt", "log", "xml", "csv", "bin", "dat", "old", "new", "bak"};
    for (int i = 0; i < filesPerDirectory; ++i) {
        const std::string strFile = strPath + "/some.file." + std::to_string(i) + "." + s_arrKind[i % 10];
        const int fd = open(strFile.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        expect(fd >= 0, strFile.c_str());
        close(fd);
    }
}

void makeTree() {
    char szTree[] = "/tmp/bench.search.XXXXXX";
    expect(mkdtemp(szTree) != NULL, szTree);
    s_strTree = szTree;
    for (int i = 1; i <= s_nDirectories; ++i) {
        const std::string strPath = directoryName(i);
        expect(mkdir(strPath.c_str(), 0700) == 0, strPath.c_str());
        fillDirectory(strPath);
    }
}

void removeTree() { expect(system(("rm -rf " + s_strTree).c_str()) == 0, "rm"); }

// ---- who searches; each returns how many it found, or -1

int searchLibrary(const std::string& strTree, const char* lpszPattern) {
    QOR_ListHelper::chObjList_dynamic<QOR_StringHelper::chReferenceStringT<char>, 16> lstFile;
    QOR_SubClass::qorFindFile(strTree.c_str(), lpszPattern, lstFile, TRUE);
    return lstFile.size();
}

bool isDirectory(const std::string& strPath, const dirent& entry, bool bStat) {
    if (!bStat && entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK)
        return entry.d_type == DT_DIR;
    struct stat state;
    return stat(strPath.c_str(), &state) == 0 && S_ISDIR(state.st_mode);
}

void walk(const std::string& strDirectory, const char* lpszPattern, bool bStat, std::vector<std::string>& listFound) {
    DIR* pDir = opendir(strDirectory.c_str());
    if (pDir == NULL)
        return;
    std::vector<std::string> listBelow;
    while (const dirent* pEntry = readdir(pDir)) {
        const char* lpszName = pEntry->d_name;
        if (strcmp(lpszName, ".") == 0 || strcmp(lpszName, "..") == 0)
            continue;
        const std::string strPath = strDirectory + "/" + lpszName;
        if (isDirectory(strPath, *pEntry, bStat))
            listBelow.push_back(strPath);
        else if (fnmatch(lpszPattern, lpszName, 0) == 0)
            listFound.push_back(strPath);
    }
    closedir(pDir);
    for (const std::string& strPath : listBelow)
        walk(strPath, lpszPattern, bStat, listFound);
}

// Ascending, as the library's.
int searchPlainly(const std::string& strTree, const char* lpszPattern, bool bStat) {
    std::vector<std::string> listFound;
    walk(strTree, lpszPattern, bStat, listFound);
    std::sort(listFound.begin(), listFound.end());
    return static_cast<int>(listFound.size());
}

// The lines that find prints.
int searchFind(const std::string& strTree, const char* lpszPattern, const char* lpszLinks) {
    int arrFd[2];
    expect(pipe2(arrFd, O_CLOEXEC) == 0, "pipe");
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(arrFd[1], STDOUT_FILENO);
        execlp("find", "find", lpszLinks, strTree.c_str(), "!", "-type", "d", "-name", lpszPattern, NULL);
        _exit(127);
    }
    close(arrFd[1]);
    static char s_aData[65536];
    long nLines = 0;
    for (ssize_t n = 1; n > 0;) {
        n = read(arrFd[0], s_aData, sizeof(s_aData));
        if (n > 0)
            nLines += std::count(s_aData, s_aData + n, '\n');
    }
    close(arrFd[0]);
    int nStatus = 0;
    waitpid(pid, &nStatus, 0);
    return nStatus == 0 ? static_cast<int>(nLines) : -1;
}

struct contender {
    const char* lpszName;
    std::function<int(const std::string& strTree, const char* lpszPattern)> fnSearch;
    std::vector<long long> listTime;
};

std::vector<contender> allContenders() {
    return {
        {"walk, kinds of the entries",
         [](const std::string& str, const char* lpsz) { return searchPlainly(str, lpsz, false); },
         {}},
        {"walk, stat of each",
         [](const std::string& str, const char* lpsz) { return searchPlainly(str, lpsz, true); },
         {}},
        {"qor", searchLibrary, {}},
        {"find -name", [](const std::string& str, const char* lpsz) { return searchFind(str, lpsz, "-P"); }, {}},
        {"find -L -name", [](const std::string& str, const char* lpsz) { return searchFind(str, lpsz, "-L"); }, {}},
    };
}

// ---- measurements

void printTable(const char* lpszPattern, int nExpected) {
    printf("search for \"%s\": %d of %d files in %d directories (us; against the walk)\n", lpszPattern, nExpected,
           s_nDirectories * filesPerDirectory, s_nDirectories);
    printf("  %-28s %10s %10s %10s %10s\n", "", "median", "99 %", "maximum", "x walk");
    std::vector<contender> list = allContenders();
    for (int i = 0; i <= s_nRounds; ++i)
        for (contender& r : list) {
            const long long nStart = now();
            const int nFound = r.fnSearch(s_strTree, lpszPattern);
            const long long nTime = now() - nStart;
            if (nFound != nExpected) {
                fprintf(stderr, "%s found %d files instead of %d\n", r.lpszName, nFound, nExpected);
                exit(1);
            }
            if (i > 0)  // the first time is another
                r.listTime.push_back(nTime);
        }
    const double nWalk = figuresOf(list[0].listTime).nMedian;
    for (const contender& r : list) {
        const figures f = figuresOf(r.listTime);
        printf("  %-28s %10.0f %10.0f %10.0f %10.2f\n", r.lpszName, f.nMedian / 1000, f.nHigh / 1000, f.nMax / 1000,
               f.nMedian / nWalk);
    }
    printf("\n");
    fflush(stdout);
}

void printStart() {
    const std::string strDirectory = s_strTree + "/empty";
    expect(mkdir(strDirectory.c_str(), 0700) == 0, strDirectory.c_str());
    std::vector<long long> listTime;
    for (int i = 0; i < s_nRounds; ++i) {
        const long long nStart = now();
        searchFind(strDirectory, "*", "-P");
        listTime.push_back(now() - nStart);
    }
    rmdir(strDirectory.c_str());
    printf("of which starting and ending the process of find takes %.0f us\n\n", figuresOf(listTime).nMedian / 1000);
}

void printCalls() {
    printf("kernel calls per file\n");
    for (const contender& r : allContenders())
        if (strncmp(r.lpszName, "find", 4) != 0)
            printf("  %-28s %10.2f\n", r.lpszName,
                   callsPerOperation(
                       s_nDirectories * filesPerDirectory, []() {}, [&](int) { r.fnSearch(s_strTree, "*.ini"); }));
    printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--quick") == 0) {
        s_nDirectories = 20;
        s_nRounds = 3;
    } else if (argc > 1) {
        fprintf(stderr, "usage: qor_bench_search [--quick]\n");
        return 2;
    }
    pin(0);
    makeTree();
    printTable("*.ini", s_nDirectories * filesPerDirectory / 10);
    printTable("*", s_nDirectories * filesPerDirectory);
    printStart();
    printCalls();
    removeTree();
    return 0;
}
