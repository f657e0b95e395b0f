// Records in files that rotate: what a power cut, a kill, a full disk or another writer leaves of them.
#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qor/FileHelper/Record.h"
#include "qor/flat.h"
#include "support/child.h"
#include "support/fatal.h"
#include "support/filebytes.h"
#include "support/filelimit.h"
#include "support/system_call.h"

using namespace QOR_FileHelper;
using namespace qorTest;

namespace {

int s_nChangesLeft = -1;  // renames and removals before the process is killed; -1 for ever
bool s_bSyncFails = false;
int s_nSyncs = 0;

void changeOrDie() {
    if (s_nChangesLeft == 0)
        _exit(0);
    --s_nChangesLeft;
}

}  // namespace

// The library's calls end here.
extern "C" int rename(const char* lpszFrom, const char* lpszTo) noexcept {
    changeOrDie();
    return systemCall<int(const char*, const char*)>("rename")(lpszFrom, lpszTo);
}

extern "C" int fsync(int fd) {
    ++s_nSyncs;
    if (!s_bSyncFails)
        return systemCall<int(int)>("fsync")(fd);
    errno = EIO;
    return -1;
}

namespace {

class RecordFile : public testing::Test {
protected:
    void SetUp() override { watch("record_file_test"); }
    void TearDown() override {
        alarm(0);
        for (int n = 0; n < 9; ++n)
            unlink(name(n).c_str());
    }
    std::string name(int nAge) const { return nAge == 0 ? m_strFile : m_strFile + "." + std::to_string(nAge); }
    // All files from the oldest to the newest.
    std::string all() const {
        std::string str;
        for (int n = 9; n >= 0; --n)
            str += getFile(name(n));
        return str;
    }

    const std::string m_strFile = "/tmp/history.csv";
    chRecordFile m_file;
};

TEST_F(RecordFile, ARecordIsALine) {
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
    EXPECT_EQ(1, m_file.IsOpen());
    EXPECT_EQ(1, m_file.Write("one,1"));
    EXPECT_EQ(1, m_file.Write("", FALSE));
    EXPECT_EQ(1, m_file.Sync());
    EXPECT_EQ("one,1\n\n", getFile(m_strFile));
    EXPECT_STREQ("/tmp/history.csv", m_file.GetFileName(0));
    EXPECT_STREQ("/tmp/history.csv.2", m_file.GetFileName(2));
    m_file.Close();
    EXPECT_EQ(0, m_file.IsOpen());
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
    EXPECT_EQ(1, m_file.Write("two"));
    EXPECT_EQ("one,1\n\ntwo\n", getFile(m_strFile));
}

TEST_F(RecordFile, ARecordIsBroughtToTheDeviceWhenAskedFor) {
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
    s_nSyncs = 0;
    EXPECT_EQ(1, m_file.Write("a", FALSE));
    EXPECT_EQ(0, s_nSyncs);
    EXPECT_EQ(1, m_file.Write("b"));
    EXPECT_EQ(1, s_nSyncs);
    EXPECT_EQ(1, m_file.Sync());
    EXPECT_EQ(2, s_nSyncs);
}

TEST_F(RecordFile, AFullFileIsFollowedByANewOneAndTheOldestGoes) {
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 8, 3));
    for (const char* lpsz : {"aaa", "bbb", "ccc", "longer than a file", "d", "e"})
        EXPECT_EQ(1, m_file.Write(lpsz));
    EXPECT_EQ("d\ne\n", getFile(name(0)));
    EXPECT_EQ("longer than a file\n", getFile(name(1)));
    EXPECT_EQ("ccc\n", getFile(name(2)));
    EXPECT_FALSE(isThere(name(3)));
}

TEST_F(RecordFile, OneFileIsBegunAnew) {
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 8, 1));
    for (const char* lpsz : {"aaa", "bbb", "ccc"})
        EXPECT_EQ(1, m_file.Write(lpsz));
    EXPECT_EQ("ccc\n", getFile(name(0)));
    EXPECT_FALSE(isThere(name(1)));
}

TEST_F(RecordFile, FilesOfALargerCountGoWhenTheNextFileBegins) {
    for (const int nFree : {9, 4, 1}) {  // 9: a power cut has left no number free
        TearDown();
        SetUp();
        for (int n = 0; n < 8; ++n)
            if (n != nFree)
                putFile(name(n), std::to_string(n) + "\n");
        ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 4, 3));
        EXPECT_EQ(1, m_file.Write(""));
        EXPECT_TRUE(isThere(name(7)));
        EXPECT_EQ(1, m_file.Write("new"));
        EXPECT_EQ(nFree == 1 ? "2\n0\n\nnew\n" : "1\n0\n\nnew\n", all()) << nFree;
        m_file.Close();
    }
}

TEST_F(RecordFile, OneFileIsLeftOfSeveral) {
    for (int n = 0; n < 4; ++n)
        putFile(name(n), std::to_string(n) + "\n");
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1, 1));
    EXPECT_EQ(1, m_file.Write("new"));
    EXPECT_EQ("new\n", all());
}

TEST_F(RecordFile, APowerCutAtAnyByteLeavesWholeRecords) {
    const std::string strRecords = "first,1\n\nthird,3\nlast";
    for (size_t nCut = 0; nCut <= strRecords.size(); ++nCut) {
        for (const size_t nZeros : {0u, 3u}) {
            const std::string strLeft = strRecords.substr(0, nCut);
            const size_t nWhole = strLeft.rfind('\n') + 1;  // 0 without one
            putFile(m_strFile, strLeft + std::string(nZeros, '\0'));
            ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
            EXPECT_EQ(strRecords.substr(0, nWhole), getFile(m_strFile)) << nCut;
            EXPECT_EQ(1, m_file.Write("next"));
            EXPECT_EQ(strRecords.substr(0, nWhole) + "next\n", getFile(m_strFile)) << nCut;
            m_file.Close();
        }
    }
}

TEST_F(RecordFile, BytesThatNeverReachedTheDeviceEndTheRecords) {
    putFile(m_strFile, std::string("one\ntwo\n\0\0\0\0five\nsix\n", 21));
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
    EXPECT_EQ("one\ntwo\n", getFile(m_strFile));
}

TEST_F(RecordFile, AKillInTheMiddleOfARotationCostsNoRecord) {
    // Six records fill three files; the seventh moves them. The fourth file has room.
    for (int nKill = 0; nKill < 4; ++nKill) {
        TearDown();
        SetUp();
        childProcess writer("writer", [&] {
            chRecordFile file;
            if (!file.Open(m_strFile.c_str(), 4, 4))
                return 1;
            for (const char* lpsz : {"1", "2", "3", "4", "5", "6"})
                if (!file.Write(lpsz))
                    return 2;
            s_nChangesLeft = nKill;
            return file.Write("7") ? 0 : 3;
        });
        ASSERT_EQ(0, writer.wait());
        EXPECT_EQ(nKill < 3 ? "1\n2\n3\n4\n5\n6\n" : "1\n2\n3\n4\n5\n6\n7\n", all()) << nKill;
        ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 4, 4));
        EXPECT_EQ(1, m_file.Write("8"));
        EXPECT_EQ(nKill < 3 ? "1\n2\n3\n4\n5\n6\n8\n" : "1\n2\n3\n4\n5\n6\n7\n8\n", all()) << nKill;
        m_file.Close();
    }
}

TEST_F(RecordFile, AFullDiskCostsTheRecordAndNoOther) {
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
    EXPECT_EQ(1, m_file.Write("one"));
    {
        const fileLimit limit(8);
        ASSERT_TRUE(limit.isSet());
        EXPECT_EQ(0, m_file.Write("does not fit"));
        EXPECT_EQ(EFBIG, errno);
        EXPECT_EQ("one\n", getFile(m_strFile));
        EXPECT_EQ(1, m_file.Write("two"));
    }
    EXPECT_EQ(1, m_file.Write("does fit now"));
    EXPECT_EQ("one\ntwo\ndoes fit now\n", getFile(m_strFile));
}

TEST_F(RecordFile, ADeviceThatFailsIsAResultAndTheNextRecordTriesAgain) {
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
    s_bSyncFails = true;
    EXPECT_EQ(0, m_file.Write("one"));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(0, m_file.Write("two"));
    s_bSyncFails = false;
    EXPECT_EQ(1, m_file.Sync());
    EXPECT_EQ(1, m_file.Write("three"));
    const std::string strFile = getFile(m_strFile);
    EXPECT_EQ("three\n", strFile.substr(strFile.size() - 6));
}

TEST_F(RecordFile, AFileThatCannotBeMovedAsideGrows) {
    ASSERT_EQ(0, mkdir(name(1).c_str(), 0700));
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 4, 2));
    for (const char* lpsz : {"one", "two", "three"})
        EXPECT_EQ(1, m_file.Write(lpsz));
    EXPECT_EQ("one\ntwo\nthree\n", getFile(m_strFile));
    ASSERT_EQ(0, rmdir(name(1).c_str()));
    EXPECT_EQ(1, m_file.Write("four"));
    EXPECT_EQ("four\n", getFile(m_strFile));
}

TEST_F(RecordFile, OneWriterAtATimeHasAFile) {
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
    chRecordFile other;
    EXPECT_EQ(0, other.Open(m_strFile.c_str(), 1000, 3));
    EXPECT_EQ(EWOULDBLOCK, errno);
    EXPECT_EQ(0, other.IsOpen());
    m_file.Close();
    EXPECT_EQ(1, other.Open(m_strFile.c_str(), 1000, 3));
}

TEST_F(RecordFile, WhatIsNoRegularFileIsNotOpened) {
    ASSERT_EQ(0, mkfifo(m_strFile.c_str(), 0600));
    EXPECT_EQ(0, m_file.Open(m_strFile.c_str(), 1000, 3));
    ASSERT_EQ(0, unlink(m_strFile.c_str()));
    ASSERT_EQ(0, symlink("/tmp/elsewhere", m_strFile.c_str()));
    EXPECT_EQ(0, m_file.Open(m_strFile.c_str(), 1000, 3));
    EXPECT_FALSE(isThere("/tmp/elsewhere"));
    EXPECT_EQ(0, m_file.Open("/tmp/none/history", 1000, 3));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(RecordFile, ARecordIsOneLine) {
    ASSERT_EQ(1, m_file.Open(m_strFile.c_str(), 1000, 3));
    EXPECT_EQ(0, m_file.Write("two\nlines"));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("", getFile(m_strFile));
    EXPECT_FATAL("QORFile", m_file.Write(nullptr), "lpszRecord != NULL");
    EXPECT_FATAL("QORFile", m_file.Open("x", 1, 1), "m_pFile == NULL && !textEMPTY(lpszFileName)");
    m_file.Close();
    EXPECT_FATAL("QORFile", m_file.Open("", 1, 1), "m_pFile == NULL && !textEMPTY(lpszFileName)");
    EXPECT_FATAL("QORFile", m_file.Open("x", 0, 1), "nMaxSize > 0 && nMaxCount > 0");
    EXPECT_FATAL("QORFile", m_file.Open("x", 1, 0), "nMaxSize > 0 && nMaxCount > 0");
    EXPECT_FATAL("QORFile", m_file.Write("x"), "m_pFile != NULL");
    EXPECT_FATAL("QORFile", m_file.Sync(), "m_pFile != NULL");
}

TEST_F(RecordFile, TheFlatFunctionsDoTheSame) {
    const HRECORD hRecord = recordOpen(m_strFile.c_str(), 8, 2);
    ASSERT_TRUE(hRecord != nullptr);
    EXPECT_EQ(nullptr, recordOpen(m_strFile.c_str(), 8, 2));
    EXPECT_EQ(1, recordWrite(hRecord, "aaa", 0));
    EXPECT_EQ(1, recordSync(hRecord));
    EXPECT_EQ(1, recordWrite(hRecord, "bbb", 1));
    EXPECT_EQ(1, recordWrite(hRecord, "ccc", 1));
    recordClose(hRecord);
    recordClose(NULL);
    EXPECT_EQ("aaa\nbbb\nccc\n", all());
    EXPECT_FATAL("sub-interface", recordWrite(NULL, "x", 0), "hRecord != NULL");
    EXPECT_FATAL("sub-interface", recordSync(NULL), "hRecord != NULL");
}

}  // namespace
