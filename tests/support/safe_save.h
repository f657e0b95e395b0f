// The system calls of a save, which a test counts, fails, or ends the process at; and a directory with a document to
// save. It defines these calls, so only one source of a program includes it.
#ifndef QOR_TESTS_SUPPORT_SAFE_SAVE_H
#define QOR_TESTS_SUPPORT_SAFE_SAVE_H

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>

#include "internal/safe_save.h"
#include "support/child.h"
#include "support/filebytes.h"
#include "support/system_call.h"

using namespace QOR_FileHelper;
using qorTest::systemCall;

// ---- the system calls of a save, also those of the library

namespace {

// What happens at the counted calls.
enum cutHow { cutNone, cutKill, cutFail, cutFailFromHere, cutFailNamed };

struct cutPlan {
    cutHow eHow = cutNone;
    int iAt = -1;
    int nError = EIO;
    std::string strNamed;  // the call that fails with cutFailNamed
    std::string strOwned;  // a path whose file seems to belong to idOwner
    uid_t idOwner = 12345;
    int nCalls = 0;
    std::string strCalls;
    std::function<void()> fnBeforeRead;                   // runs once, when a file is about to be opened for reading
    std::function<void()> fnWhenBusy;                     // runs once, when a lock is held by somebody else
    std::function<void(const std::string&)> fnAfterLook;  // runs after each look at a path, and makes none that count
};
cutPlan s_plan;
bool s_bCounting = false;

// Whether a call that changes nothing is to fail. A kill at it is the same as at the call after it.
bool cut(const char* lpszCall);
bool cutLook(const char* lpszCall) { return s_plan.eHow != cutKill && cut(lpszCall); }

// Whether this call is to fail. Does not return in a process that is to be killed.
bool cut(const char* lpszCall) {
    if (!s_bCounting)
        return false;
    const int i = s_plan.nCalls++;
    s_plan.strCalls += lpszCall;
    s_plan.strCalls += ' ';
    if (s_plan.eHow == cutKill && i == s_plan.iAt)
        kill(getpid(), SIGKILL);
    const bool bFail = (s_plan.eHow == cutFail && i == s_plan.iAt) ||
                       (s_plan.eHow == cutFailFromHere && i >= s_plan.iAt) ||
                       (s_plan.eHow == cutFailNamed && s_plan.strNamed == lpszCall);
    if (bFail)
        errno = s_plan.nError;
    return bFail;
}

// What stat() and lstat() report of a file.
int seen(int nResult, const char* lpszPath, struct stat* pState) {
    if (s_plan.fnAfterLook) {
        const int nError = errno;
        std::function<void(const std::string&)> fnAfter;
        fnAfter.swap(s_plan.fnAfterLook);
        fnAfter(lpszPath);
        fnAfter.swap(s_plan.fnAfterLook);
        errno = nError;
    }
    if (nResult == 0 && s_plan.strOwned == lpszPath)
        pState->st_uid = s_plan.idOwner;
    return nResult;
}

}  // namespace

extern "C" {

int rename(const char* lpszFrom, const char* lpszTo) noexcept {
    static auto* const fn = systemCall<int(const char*, const char*)>("rename");
    return cut("rename") ? -1 : fn(lpszFrom, lpszTo);
}

int unlink(const char* lpszPath) noexcept {
    static auto* const fn = systemCall<int(const char*)>("unlink");
    return cut("unlink") ? -1 : fn(lpszPath);
}

int open(const char* lpszPath, int nFlags, ...) {
    static auto* const fn = systemCall<int(const char*, int, ...)>("open64");
    va_list args;
    va_start(args, nFlags);
    const unsigned uMode = (nFlags & O_CREAT) != 0 ? va_arg(args, unsigned) : 0;
    va_end(args);
    if ((nFlags & (O_ACCMODE | O_NOFOLLOW | O_DIRECTORY)) == O_RDONLY) {  // a document, to be read
        std::function<void()> fnBefore;
        fnBefore.swap(s_plan.fnBeforeRead);
        if (fnBefore)
            fnBefore();
    }
    return cut("open") ? -1 : fn(lpszPath, nFlags, uMode);
}

int lstat(const char* lpszPath, struct stat* pState) noexcept {
    static auto* const fn = systemCall<int(const char*, struct stat*)>({"__lstat64_time64", "lstat64", "lstat"});
    return cutLook("lstat") ? -1 : seen(fn(lpszPath, pState), lpszPath, pState);
}

int stat(const char* lpszPath, struct stat* pState) noexcept {
    static auto* const fn = systemCall<int(const char*, struct stat*)>({"__stat64_time64", "stat64", "stat"});
    return cutLook("stat") ? -1 : seen(fn(lpszPath, pState), lpszPath, pState);
}

int fstat(int fd, struct stat* pState) noexcept {
    static auto* const fn = systemCall<int(int, struct stat*)>({"__fstat64_time64", "fstat64", "fstat"});
    return cutLook("fstat") ? -1 : fn(fd, pState);
}

int fcntl(int fd, int nWhat, ...) {
    static auto* const fn = systemCall<int(int, int, ...)>({"__fcntl_time64", "fcntl64", "fcntl"});
    va_list args;
    va_start(args, nWhat);
    const long nArgument = va_arg(args, long);  // a number or a pointer
    va_end(args);
    return cutLook("fcntl") ? -1 : fn(fd, nWhat, nArgument);
}

int fsync(int fd) {
    static auto* const fn = systemCall<int(int)>("fsync");
    return cut("fsync") ? -1 : fn(fd);
}

int fchmod(int fd, mode_t nMode) noexcept {
    static auto* const fn = systemCall<int(int, mode_t)>("fchmod");
    return cut("fchmod") ? -1 : fn(fd, nMode);
}

int fchown(int fd, uid_t idUser, gid_t idGroup) noexcept {
    static auto* const fn = systemCall<int(int, uid_t, gid_t)>("fchown");
    return cut("fchown") ? -1 : fn(fd, idUser, idGroup);
}

int flock(int fd, int nHow) noexcept {
    static auto* const fn = systemCall<int(int, int)>("flock");
    const int nResult = cut("flock") ? -1 : fn(fd, nHow);
    if (nResult == 0 || errno != EWOULDBLOCK || !s_plan.fnWhenBusy)
        return nResult;
    std::function<void()> fnBusy;
    fnBusy.swap(s_plan.fnWhenBusy);
    fnBusy();
    errno = EWOULDBLOCK;
    return nResult;
}

FILE* fdopen(int fd, const char* lpszMode) noexcept {
    static auto* const fn = systemCall<FILE*(int, const char*)>("fdopen");
    return cut("fdopen") ? nullptr : fn(fd, lpszMode);
}

size_t fwrite(const void* p, size_t nSize, size_t nCount, FILE* pFile) {
    static auto* const fn = systemCall<size_t(const void*, size_t, size_t, FILE*)>("fwrite");
    return cut("fwrite") ? 0 : fn(p, nSize, nCount, pFile);
}

int fflush(FILE* pFile) {
    static auto* const fn = systemCall<int(FILE*)>("fflush");
    return cut("fflush") ? EOF : fn(pFile);
}

int fclose(FILE* pFile) {
    static auto* const fn = systemCall<int(FILE*)>("fclose");
    return cut("fclose") ? (fn(pFile), EOF) : fn(pFile);
}

int close(int fd) {
    static auto* const fn = systemCall<int(int)>("close");
    return cut("close") ? (fn(fd), -1) : fn(fd);
}
}

namespace {

// ---- documents

// Longer than a stream's buffer, so that a save has several writes.
std::string documentOf(char ch) {
    std::string strText = "begin\n";
    for (int i = 0; i < 400; ++i)
        strText += std::string(99, ch) + "\n";
    return strText + "end\n";
}
const std::string s_strOld = documentOf('o');
const std::string s_strNew = documentOf('n');
const std::string s_strOlder = documentOf('x');
const std::string s_strHalf = s_strNew.substr(0, 5000);

BOOL writePieces(chFileStdio& file, const std::string& strText) {
    BOOL bGood = 1;
    for (size_t n = 0; n < strText.size(); n += 2500)
        bGood =
            file.Write(strText.data() + n, 1, static_cast<UINT>(std::min<size_t>(2500, strText.size() - n))) && bGood;
    return bGood;
}

// A directory with a document "doc" in some state.
class SafeSave : public testing::Test {
protected:
    typedef std::map<std::string, std::string> fileMap;

    SafeSave() {
        s_plan = cutPlan();
        char sz[] = "/tmp/safe_save_XXXXXX";
        m_strFolder = mkdtemp(sz);
        m_strName = m_strFolder + "/doc";
    }

    // Makes the directory contain these files and no others; the keys are suffixes of the name.
    void set(const fileMap& mapFile) const {
        for (const char* lpszSuffix : {"", ".new", ".old"})
            unlink((m_strName + lpszSuffix).c_str());
        for (const auto& file : mapFile)
            qorTest::putFile(m_strName + file.first, file.second);
    }

    fileMap files() const {
        fileMap mapFile;
        for (const char* lpszSuffix : {"", ".new", ".old"}) {
            const std::string strName = m_strName + lpszSuffix;
            if (access(strName.c_str(), F_OK) == 0)
                mapFile[lpszSuffix] = qorTest::getFile(strName);
        }
        return mapFile;
    }

    BOOL save(const std::string& strText) const {
        return saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) { return writePieces(file, strText); });
    }
    void recover() const { recoverSavedFile(m_strName.c_str()); }

    // A recovery that is counted.
    void countedRecovery(const cutPlan& plan) const {
        s_plan = plan;
        s_bCounting = true;
        recover();
        s_bCounting = false;
    }

    // Of a link itself, not of what it leads to.
    static struct stat stateOf(const std::string& strName) {
        struct stat state = {};
        EXPECT_EQ(0, lstat(strName.c_str(), &state)) << strName;
        return state;
    }

    // Runs a function in a child that is killed at a call, or whose call fails. Returns the number of its calls and its
    // result.
    struct outcome {
        int nStatus;
        int nCalls;
    };
    template <class Fn>
    static outcome run(cutHow eHow, int iAt, Fn fn) {
        int fd[2];
        if (pipe(fd) != 0)
            abort();
        qorTest::childProcess child("cut", [&] {
            s_plan.eHow = eHow;
            s_plan.iAt = iAt;
            s_bCounting = true;
            const int nResult = fn();
            s_bCounting = false;
            return write(fd[1], &s_plan.nCalls, sizeof(int)) == sizeof(int) ? nResult : 97;
        });
        outcome out = {child.wait(), -1};
        close(fd[1]);
        if (read(fd[0], &out.nCalls, sizeof(int)) != sizeof(int))
            out.nCalls = -1;
        close(fd[0]);
        return out;
    }

    // A save that is counted.
    void countedSave(const cutPlan& plan) const {
        s_plan = plan;
        s_bCounting = true;
        EXPECT_EQ(1, save(s_strNew));
        s_bCounting = false;
    }

    // Every state that a save can start from, and the document that a load finds in it ("" for none).
    struct start {
        const char* lpszName;
        fileMap mapFile;
        std::string strDocument;
    };
    static std::vector<start> starts(const std::string& strOld = s_strOld, const std::string& strOlder = s_strOlder) {
        const std::string strHalf = strOld.substr(0, 5000);
        return {{"no file", {}, ""},
                {"a document", {{"", strOld}}, strOld},
                {"no file, a stray .new", {{".new", strHalf}}, ""},
                {"a document, a stray .new", {{"", strOld}, {".new", strHalf}}, strOld},
                {"moved aside, .new waiting", {{".old", strOlder}, {".new", strOld}}, strOld},
                {"exchanged, .old left", {{"", strOld}, {".old", strOlder}}, strOld},
                {"only an .old", {{".old", strOld}}, strOld}};
    }

    void expectWhole(const std::string& strBefore, const std::string& strWhat,
                     const std::string& strNew = s_strNew) const {
        recover();
        const fileMap mapFile = files();
        if (mapFile.empty()) {
            EXPECT_EQ("", strBefore) << strWhat << ": the document is gone";
            return;
        }
        ASSERT_EQ(1u, mapFile.size()) << strWhat << ": files are left";
        ASSERT_EQ(1u, mapFile.count("")) << strWhat << ": the document is not at its name";
        const std::string& strNow = mapFile.at("");
        EXPECT_TRUE(strNow == strNew || (strNow == strBefore && strBefore != ""))
            << strWhat << ": the document is " << strNow.size() << " bytes";
    }

    std::string m_strFolder;
    std::string m_strName;
};

}  // namespace

#endif
