// How saves and loads handle errors: a mode or owner that cannot be kept, a file whose state cannot be read, a
// directory without write permission, a name that is too long; and the warning of a failed save.
#include <dirent.h>
#include <sys/mount.h>

#include <set>

#include "qor/FileHelper.h"
#include "support/permission.h"
#include "support/safe_save.h"

namespace {

const std::string s_strWarning = "\033[1;33m warning: \033[00m ";

class SaveFault : public SafeSave {
protected:
    mode_t modeNow() const { return stateOf(m_strName).st_mode & 07777; }

    // Saves while one kind of call fails with an error. Returns the result.
    BOOL saveWhileFailing(const char* lpszCall, int nError) const {
        s_plan.eHow = cutFailNamed;
        s_plan.strNamed = lpszCall;
        s_plan.nError = nError;
        s_plan.strCalls.clear();
        s_bCounting = true;
        const BOOL bResult = save(s_strNew);
        s_bCounting = false;
        return bResult;
    }

    // The document as a load finds it; errno's text when it finds none.
    std::string loaded() const {
        fileText text;
        const int nRead = readSavedText(m_strName.c_str(), text);
        return nRead >= 0 ? std::string(text.GetBuffer(), static_cast<size_t>(nRead)) : strerror(errno);
    }

    // The warning of a failed save.
    std::string warningOf(const std::string& strName) const {
        testing::internal::CaptureStderr();
        EXPECT_EQ(0, saveFileSafely(strName.c_str(), [](chFileStdio& file) { return writePieces(file, s_strNew); }));
        return testing::internal::GetCapturedStderr();
    }

    std::set<std::string> names() const {
        std::set<std::string> setName;
        DIR* const pDirectory = opendir(m_strFolder.c_str());
        while (const dirent* pEntry = readdir(pDirectory))
            if (pEntry->d_name[0] != '.')
                setName.insert(pEntry->d_name);
        closedir(pDirectory);
        return setName;
    }
};

// ---- mode and owner

TEST_F(SaveFault, WhateverCallFailsTheModeIsKept) {
    const start begin = {"a document", {{"", s_strOld}}, s_strOld};
    set(begin.mapFile);
    const int nCalls = run(cutNone, 0, [&] { return save(s_strNew); }).nCalls;
    for (int i = 0; i < nCalls; ++i) {
        set(begin.mapFile);
        ASSERT_EQ(0, chmod(m_strName.c_str(), 0640));
        const outcome out = run(cutFail, i, [&] { return save(s_strNew); });
        EXPECT_EQ(0640u, modeNow()) << "failed call " << i;
        EXPECT_EQ(out.nStatus == 1 ? s_strNew : s_strOld, files()[""]) << "failed call " << i;
    }
}

TEST_F(SaveFault, WhateverCallFailsAFirstSaveHasTheModeOfTheUmask) {
    const mode_t nBefore = umask(027);
    const int nCalls = run(cutNone, 0, [&] { return save(s_strNew); }).nCalls;
    for (int i = 0; i < nCalls; ++i) {
        set({});
        if (run(cutFail, i, [&] { return save(s_strNew); }).nStatus == 1) {
            EXPECT_EQ(0640u, modeNow()) << "failed call " << i;
        }
    }
    umask(nBefore);
}

TEST_F(SaveFault, AModeThatMayNotBeSetDoesNotFailTheSave) {
    for (const int nError : {EPERM, EINVAL, ENOSYS, EOPNOTSUPP}) {
        set({{"", s_strOld}});
        ASSERT_EQ(0, chmod(m_strName.c_str(), 0640));
        EXPECT_EQ(1, saveWhileFailing("fchmod", nError)) << nError;
        EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    }
    for (const int nError : {EIO, EROFS, ENOSPC}) {
        set({{"", s_strOld}});
        ASSERT_EQ(0, chmod(m_strName.c_str(), 0640));
        EXPECT_EQ(0, saveWhileFailing("fchmod", nError)) << nError;
        EXPECT_EQ(nError, errno);
        EXPECT_EQ((fileMap{{"", s_strOld}}), files());
        EXPECT_EQ(0640u, modeNow());
    }
}

TEST_F(SaveFault, AnOwnerThatMayNotBeSetDoesNotFailTheSave) {
    s_plan.strOwned = m_strName;
    set({{"", s_strOld}});
    EXPECT_EQ(1, save(s_strNew));  // the test's user namespace has no such user: EINVAL
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    for (const int nError : {EPERM, ENOSYS, EOPNOTSUPP}) {
        set({{"", s_strOld}});
        EXPECT_EQ(1, saveWhileFailing("fchown", nError)) << nError;
        EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    }
    set({{"", s_strOld}});
    EXPECT_EQ(0, saveWhileFailing("fchown", EIO));
    EXPECT_EQ((fileMap{{"", s_strOld}}), files());
}

TEST_F(SaveFault, ALinkWhoseTargetCannotBeLookedAtFailsTheSave) {
    const std::string strTarget = m_strFolder + "/target";
    qorTest::putFile(strTarget, s_strOld);
    ASSERT_EQ(0, symlink(strTarget.c_str(), m_strName.c_str()));
    EXPECT_EQ(0, saveWhileFailing("stat", EIO));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ((fileMap{{"", s_strOld}}), files());
    EXPECT_TRUE(S_ISLNK(stateOf(m_strName).st_mode));
}

TEST_F(SaveFault, WhatIsAsItShouldBeIsNotSet) {
    for (const fileMap& mapFile : {fileMap{{"", s_strOld}}, fileMap{}}) {
        set(mapFile);
        if (!mapFile.empty()) {
            ASSERT_EQ(0, chmod(m_strName.c_str(), 0600));
        }
        EXPECT_EQ(1, saveWhileFailing("none", 0));
        EXPECT_EQ(std::string::npos, s_plan.strCalls.find("fchown")) << s_plan.strCalls;
        // Once: the file is no longer marked as unfinished.
        const size_t nFirst = s_plan.strCalls.find("fchmod");
        ASSERT_NE(std::string::npos, nFirst) << s_plan.strCalls;
        EXPECT_EQ(std::string::npos, s_plan.strCalls.find("fchmod", nFirst + 1)) << s_plan.strCalls;
    }
}

TEST_F(SaveFault, AFileWithTheMarkOfAnUnfinishedSaveIsSavedWithoutIt) {
    set({{"", s_strOld}});
    ASSERT_EQ(0, chmod(m_strName.c_str(), 01640));
    EXPECT_EQ(1, save(s_strNew));
    EXPECT_EQ(0640u, modeNow());
}

// ---- a file whose state cannot be read is not missing

TEST_F(SaveFault, WhateverCallOfALoadFailsNoOlderDocumentTakesThePlaceOfTheDocument) {
    for (const start& begin : starts()) {
        set(begin.mapFile);
        const int nCalls = run(cutNone, 0, [&] { return loaded() == begin.strDocument ? 0 : 1; }).nCalls;
        for (int i = 0; i < nCalls; ++i) {
            const std::string strWhat = begin.lpszName + std::string(", failed call ") + std::to_string(i);
            set(begin.mapFile);
            const std::string strNone = begin.strDocument == "" ? strerror(ENOENT) : begin.strDocument;
            const outcome out = run(cutFail, i, [&] {
                const std::string strLoaded = loaded();
                return strLoaded == strNone || strLoaded == strerror(EIO) ? 0 : 1;
            });
            EXPECT_EQ(0, out.nStatus) << strWhat;
            EXPECT_EQ(strNone, loaded()) << strWhat;
        }
    }
}

TEST_F(SaveFault, ADocumentThatCannotBeLookedAtIsThere) {
    for (const start& begin : starts()) {
        if (begin.strDocument == "")
            continue;
        set(begin.mapFile);
        const auto fnHas = [&] { return hasSavedFile(m_strName.c_str()) ? 0 : 1; };
        const int nCalls = run(cutNone, 0, fnHas).nCalls;
        for (int i = 0; i < nCalls; ++i) {
            set(begin.mapFile);
            EXPECT_EQ(0, run(cutFail, i, fnHas).nStatus) << begin.lpszName << ", failed call " << i;
        }
    }
    EXPECT_FALSE(hasSavedFile((m_strFolder + "/none").c_str()));
    EXPECT_FALSE(hasSavedFile((m_strName + "/none").c_str())) << "the way leads through a file";
}

// ---- a process without write permission in the directory

class SaveReader : public SaveFault {
protected:
    // What a load finds without write permission. It changes nothing.
    void expectLoaded(const std::set<std::string>& setGood, bool bDocument, const std::string& strWhat) const {
        const fileMap mapFile = files();
        ASSERT_EQ(0, chmod(m_strFolder.c_str(), 0555));
        qorTest::childProcess reader("reader", [&] {
            if (!qorTest::dropPrivileges() || access(m_strFolder.c_str(), W_OK) == 0)
                return 3;
            return (setGood.count(loaded()) == 1 ? 0 : 1) + (hasSavedFile(m_strName.c_str()) == bDocument ? 0 : 2);
        });
        EXPECT_EQ(0, reader.wait()) << strWhat;
        ASSERT_EQ(0, chmod(m_strFolder.c_str(), 0777));
        EXPECT_EQ(mapFile, files()) << strWhat;
    }
};

TEST_F(SaveReader, FindsTheDocumentInWhateverStateItIs) {
    for (const start& begin : starts()) {
        set(begin.mapFile);
        const bool bDocument = begin.strDocument != "";
        expectLoaded({bDocument ? begin.strDocument : strerror(ENOENT)}, bDocument, begin.lpszName);
    }
}

TEST_F(SaveReader, FindsTheOldOrTheNewDocumentAfterASaverWasKilledAtAnyCall) {
    for (int i = 0;; ++i) {
        set({{"", s_strOld}});
        if (run(cutKill, i, [&] { return save(s_strNew); }).nStatus != -SIGKILL)
            break;
        expectLoaded({s_strOld, s_strNew}, true, "killed at call " + std::to_string(i));
    }
}

TEST_F(SaveReader, TakesNoUnfinishedNewDocumentForTheOneMovedAside) {
    set({{".old", s_strOld}, {".new", s_strHalf}});
    ASSERT_EQ(0, chmod((m_strName + ".new").c_str(), 01644));
    expectLoaded({s_strOld}, true, "moved aside, .new unfinished");
}

TEST_F(SaveReader, FindsTheDocumentOnAFileSystemThatIsReadOnly) {
    ASSERT_EQ(0, mount("tmpfs", m_strFolder.c_str(), "tmpfs", 0, "size=256k")) << strerror(errno);
    set({{".old", s_strOlder}, {".new", s_strOld}});
    ASSERT_EQ(0, mount("", m_strFolder.c_str(), "", MS_REMOUNT | MS_RDONLY, "")) << strerror(errno);
    EXPECT_EQ(s_strOld, loaded());
    EXPECT_TRUE(hasSavedFile(m_strName.c_str()));
    EXPECT_EQ(0, umount(m_strFolder.c_str()));
}

TEST_F(SaveReader, PassesWhatIsNoDocument) {
    set({{".old", s_strOld}});
    ASSERT_EQ(0, mkdir((m_strName + ".new").c_str(), 0777));
    expectLoaded({s_strOld}, true, "a directory in place of the .new");
    rmdir((m_strName + ".new").c_str());
}

TEST_F(SaveReader, TakesNoOlderDocumentForOneThatItMayNotRead) {
    set({{".old", s_strOlder}, {".new", s_strOld}});
    ASSERT_EQ(0, chmod((m_strName + ".new").c_str(), 0));
    expectLoaded({strerror(EACCES)}, true, "an unreadable .new");
}

TEST_F(SaveReader, TakesNoHalfANewDocumentForOne) {
    set({{".new", s_strHalf}});
    expectLoaded({strerror(ENOENT)}, false, "only a .new");
}

// ---- the warning of a failed save

TEST_F(SaveFault, AFailedSaveSaysWhy) {
    const std::string strSave = s_strWarning + "Save " + m_strName + " fail: ";
    ASSERT_EQ(0, mkdir((m_strName + ".new").c_str(), 0777));
    EXPECT_EQ(strSave + m_strName + ".new is a directory\n", warningOf(m_strName));
    ASSERT_EQ(0, rmdir((m_strName + ".new").c_str()));
    ASSERT_EQ(0, mkdir(m_strName.c_str(), 0777));
    EXPECT_EQ(strSave + m_strName + " is a directory\n", warningOf(m_strName));
    ASSERT_EQ(0, rmdir(m_strName.c_str()));
    ASSERT_EQ(0, mkfifo(m_strName.c_str(), 0777));
    EXPECT_EQ(strSave + m_strName + " is no regular file\n", warningOf(m_strName));
    ASSERT_EQ(0, unlink(m_strName.c_str()));
    const std::string strNowhere = m_strFolder + "/none/doc";
    EXPECT_EQ(s_strWarning + "Save " + strNowhere + " fail: No such file or directory\n", warningOf(strNowhere));
}

// The directory is made while the document is written.
TEST_F(SaveFault, ADirectoryThatComesIsNotReplaced) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) {
                  return mkdir(m_strName.c_str(), 0777) == 0 && writePieces(file, s_strNew);
              }));
    EXPECT_EQ(s_strWarning + "Save " + m_strName + " fail: " + m_strName + " is a directory\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ((std::set<std::string>{"doc"}), names());
}

TEST_F(SaveFault, AFailedWriteSaysWhy) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(0, saveFileSafely(m_strName.c_str(), [](chFileStdio&) { return 0; }));
    EXPECT_EQ(s_strWarning + "Save " + m_strName + " fail: Operation canceled\n",
              testing::internal::GetCapturedStderr());
    ASSERT_EQ(0, mount("tmpfs", m_strFolder.c_str(), "tmpfs", 0, "size=16k")) << strerror(errno);
    EXPECT_EQ(s_strWarning + "Save " + m_strName + " fail: No space left on device\n", warningOf(m_strName));
    EXPECT_EQ(0, umount(m_strFolder.c_str()));
}

TEST_F(SaveFault, ASaveThatSucceedsSaysNothing) {
    testing::internal::CaptureStderr();
    for (const start& begin : starts()) {
        set(begin.mapFile);
        EXPECT_EQ(1, save(s_strNew));
    }
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

// ---- long names

class LongName : public SaveFault {
protected:
    void useName(const std::string& strName) { m_strName = m_strFolder + "/" + strName; }
};

TEST_F(LongName, EveryNameThatAFileCanHaveCanBeSaved) {
    for (size_t nLength = 249; nLength <= 255; ++nLength) {
        const std::string strName(nLength, 'n');
        useName(strName);
        for (const std::string& strText : {s_strOld, s_strNew}) {
            EXPECT_EQ(1, save(strText)) << nLength;
            EXPECT_EQ(std::set<std::string>{strName}, names());
            EXPECT_EQ(strText, loaded());
        }
        unlink(m_strName.c_str());
    }
    useName(std::string(256, 'n'));
    EXPECT_EQ(s_strWarning + "Save " + m_strName + " fail: File name too long\n", warningOf(m_strName));
}

TEST_F(LongName, ASaverOfALongNameThatIsKilledAtAnyCallLeavesAWholeDocument) {
    const std::string strName(255, 'n');
    useName(strName);
    int i = 0;
    for (;; ++i) {
        for (const std::string& strLeft : names())
            unlink((m_strFolder + "/" + strLeft).c_str());
        qorTest::putFile(m_strName, s_strOld);
        if (run(cutKill, i, [&] { return save(s_strNew); }).nStatus != -SIGKILL)
            break;
        const std::string strLoaded = loaded();
        EXPECT_TRUE(strLoaded == s_strOld || strLoaded == s_strNew) << "killed at call " << i;
        EXPECT_EQ(std::set<std::string>{strName}, names()) << "killed at call " << i;
    }
    EXPECT_GT(i, 12);
}

TEST_F(LongName, TwoDocumentsThatBeginAlikeDoNotMeet) {
    const std::string strSame(250, 'n');
    useName(strSame + "-aaa");
    EXPECT_EQ(1, saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) {
                  const std::string strOther = m_strFolder + "/" + strSame + "-bbb";
                  EXPECT_EQ(1, saveFileSafely(strOther.c_str(),
                                              [](chFileStdio& other) { return writePieces(other, s_strOlder); }));
                  return writePieces(file, s_strNew);
              }));
    EXPECT_EQ((std::set<std::string>{strSame + "-aaa", strSame + "-bbb"}), names());
    EXPECT_EQ(s_strNew, loaded());
}

TEST_F(LongName, ANameIsNotCutAmidACharacter) {
    // Three bytes a character: wherever a name is cut, one of these has a character there.
    for (size_t nBefore = 0; nBefore < 3; ++nBefore) {
        std::string strName(nBefore, 'n');
        while (strName.size() + 3 <= 255)
            strName += "\xE2\x82\xAC";
        useName(strName);
        EXPECT_EQ(1, saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) {
                      EXPECT_EQ(1u, names().size());
                      const std::string strNew = *names().begin();
                      const size_t nHash = strNew.find('~');
                      EXPECT_EQ(nBefore, nHash % 3) << strNew;
                      EXPECT_EQ(strName.substr(0, nHash), strNew.substr(0, nHash));
                      EXPECT_LE(strNew.size(), 255u);
                      return writePieces(file, s_strNew);
                  }));
        EXPECT_EQ(std::set<std::string>{strName}, names());
        unlink(m_strName.c_str());
    }
}

}  // namespace
