// Saving documents: after a kill at any system call, a failed call, a full disk, or with savers and loaders at the same
// time, the next load finds the old document or the new one, whole.
#include <sys/mount.h>

#include <sstream>

#include "qor/FileHelper.h"
#include "qor/MiscHelper.h"
#include "support/safe_save.h"

namespace {

// ---- saves without a failure

TEST_F(SafeSave, AFirstSaveMakesTheFileAlone) {
    EXPECT_EQ(1, save(s_strNew));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
}

TEST_F(SafeSave, ASaveReplacesTheFileAndLeavesNoOther) {
    set({{"", s_strOld}});
    EXPECT_EQ(1, save(s_strNew));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
}

TEST_F(SafeSave, TheOldFileIsUntouchedWhileTheNewOneIsWritten) {
    set({{"", s_strOld}});
    EXPECT_EQ(1, saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) {
                  writePieces(file, s_strHalf);
                  EXPECT_EQ(0, file.Flush());
                  EXPECT_EQ((fileMap{{"", s_strOld}, {".new", s_strHalf}}), files());
                  return 1;
              }));
    EXPECT_EQ((fileMap{{"", s_strHalf}}), files());
}

TEST_F(SafeSave, AnEmptyNameIsAFatalAssertion) {
    const auto fnNothing = [](chFileStdio&) { return 1; };
    EXPECT_EXIT(saveFileSafely("", fnNothing), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
    EXPECT_EXIT(saveFileSafely(nullptr, fnNothing), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
}

TEST_F(SafeSave, ANameInTheWorkingDirectoryIsSavedThere) {
    ASSERT_EQ(0, chdir(m_strFolder.c_str()));
    EXPECT_EQ(1, saveFileSafely("doc", [](chFileStdio& file) { return writePieces(file, s_strNew); }));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
}

TEST_F(SafeSave, ModeAndOwnerOfTheReplacedFileAreKept) {
    for (const mode_t nMode : {0600, 0644, 0640, 0777, 0400}) {
        set({{"", s_strOld}});
        ASSERT_EQ(0, chmod(m_strName.c_str(), nMode));
        EXPECT_EQ(1, save(s_strNew));
        EXPECT_EQ(nMode, stateOf(m_strName).st_mode & 07777);
        EXPECT_EQ(getuid(), stateOf(m_strName).st_uid);
    }
}

TEST_F(SafeSave, ANewFileHasTheModeOfTheUmask) {
    const mode_t nBefore = umask(027);
    EXPECT_EQ(1, save(s_strNew));
    umask(nBefore);
    EXPECT_EQ(0640u, stateOf(m_strName).st_mode & 07777);
}

TEST_F(SafeSave, TheDocumentReachesTheDeviceBeforeItsName) {
    set({{"", s_strOld}});
    countedSave(cutPlan());
    // The order of what the device sees: contents, both names, their directory, and only then the end of the old file.
    std::string strOrder;
    std::istringstream in(s_plan.strCalls);
    for (std::string strCall; in >> strCall;)
        if (strCall == "rename" || strCall == "unlink" || strCall == "fsync")
            strOrder += strCall + " ";
    EXPECT_EQ("fsync rename rename fsync unlink fsync ", strOrder);
}

// ---- what a load finds

TEST_F(SafeSave, ALoadCompletesOrDiscardsWhatWasLeft) {
    for (const start& begin : starts()) {
        set(begin.mapFile);
        recover();
        EXPECT_EQ(begin.strDocument == "" ? fileMap() : fileMap({{"", begin.strDocument}}), files()) << begin.lpszName;
    }
}

TEST_F(SafeSave, AWaitingNewFileTakesTheNameWheneverThereIsAnOldOne) {
    set({{"", s_strOld}, {".new", s_strNew}, {".old", s_strOlder}});
    recover();
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
}

TEST_F(SafeSave, DirectoriesNamedLikeTheFilesAreLeftAlone) {
    set({{"", s_strOld}});
    ASSERT_EQ(0, mkdir((m_strName + ".old").c_str(), 0777));
    recover();
    EXPECT_EQ(1, save(s_strNew));  // directly, with one rename
    EXPECT_EQ(s_strNew, files()[""]);
    EXPECT_EQ(0, rmdir((m_strName + ".old").c_str()));
    ASSERT_EQ(0, mkdir((m_strName + ".new").c_str(), 0777));
    recover();
    EXPECT_EQ(0, save(s_strOld));
    EXPECT_EQ(0, rmdir((m_strName + ".new").c_str()));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
}

TEST_F(SafeSave, ALinkAtTheNewNameIsNeverWrittenThrough) {
    const std::string strVictim = m_strFolder + "/victim";
    qorTest::putFile(strVictim, "precious");
    ASSERT_EQ(0, symlink(strVictim.c_str(), (m_strName + ".new").c_str()));
    EXPECT_EQ(1, save(s_strNew));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    EXPECT_EQ("precious", qorTest::getFile(strVictim));
}

TEST_F(SafeSave, ALinkAtTheNameIsReplacedAndNotWhatItLeadsTo) {
    const std::string strTarget = m_strFolder + "/target";
    qorTest::putFile(strTarget, s_strOlder);
    ASSERT_EQ(0, chmod(strTarget.c_str(), 0640));
    ASSERT_EQ(0, symlink("target", m_strName.c_str()));
    EXPECT_EQ(1, save(s_strNew));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    EXPECT_EQ(0640u, stateOf(m_strName).st_mode & 07777) << "that of the document that was seen at the name";
    EXPECT_TRUE(S_ISREG(stateOf(m_strName).st_mode));
    EXPECT_EQ(s_strOlder, qorTest::getFile(strTarget));
}

TEST_F(SafeSave, ALinkThatLeadsNowhereIsReplacedByAFileWithTheModeOfTheUmask) {
    ASSERT_EQ(0, symlink("nowhere", m_strName.c_str()));
    const mode_t nBefore = umask(027);
    EXPECT_EQ(1, save(s_strNew));
    umask(nBefore);
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    EXPECT_EQ(0640u, stateOf(m_strName).st_mode & 07777);
    EXPECT_NE(0, access((m_strFolder + "/nowhere").c_str(), F_OK));
}

TEST_F(SafeSave, AnotherNameOfTheFileKeepsTheOldDocument) {
    set({{"", s_strOld}});
    ASSERT_EQ(0, link(m_strName.c_str(), (m_strFolder + "/other").c_str()));
    EXPECT_EQ(1, save(s_strNew));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    EXPECT_EQ(s_strOld, qorTest::getFile(m_strFolder + "/other"));
}

TEST_F(SafeSave, WhatIsNoFileIsNotReplaced) {
    ASSERT_EQ(0, mkdir(m_strName.c_str(), 0777));
    EXPECT_EQ(0, save(s_strNew));
    ASSERT_EQ(0, rmdir(m_strName.c_str()));
    ASSERT_EQ(0, mkfifo(m_strName.c_str(), 0666));
    recover();
    EXPECT_EQ(0, save(s_strNew));
    EXPECT_TRUE(S_ISFIFO(stateOf(m_strName).st_mode));
    EXPECT_NE(0, access((m_strName + ".new").c_str(), F_OK));
    EXPECT_NE(0, access((m_strName + ".old").c_str(), F_OK));
}

// ---- kills and failed calls

TEST_F(SafeSave, AProcessKilledAtAnyCallLeavesAWholeDocument) {
    for (const start& begin : starts()) {
        int i = 0;
        for (;; ++i) {
            set(begin.mapFile);
            if (run(cutKill, i, [&] { return save(s_strNew); }).nStatus != -SIGKILL)
                break;
            expectWhole(begin.strDocument, begin.lpszName + std::string(", killed at call ") + std::to_string(i));
        }
        EXPECT_GT(i, 12) << begin.lpszName;
        EXPECT_EQ((fileMap{{"", s_strNew}}), files()) << begin.lpszName;
    }
}

// A saver that begins while another one is between its renames and the end of its .old.
TEST_F(SafeSave, ASaverKilledAmidAnExchangeOfAnotherOneNeverLosesTheDocument) {
    int i = 0;
    for (;; ++i) {
        set({{"", s_strOld}});
        const outcome out = run(cutKill, i, [&] { return save(s_strNew); });
        if (out.nStatus != -SIGKILL)
            break;
        if (files().count(".old") == 0)
            qorTest::putFile(m_strName + ".old", s_strOlder);
        expectWhole(s_strOld, "killed at call " + std::to_string(i));
    }
    EXPECT_GT(i, 12);
}

// Who holds the document may be about to delete the .old that it has seen.
TEST_F(SafeSave, ADocumentThatARecoveryHoldsIsNotMovedAside) {
    set({{"", s_strOld}});
    const int fd = open(m_strName.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(0, flock(fd, LOCK_EX));
    cutPlan plan;
    fileMap mapBusy;
    plan.fnWhenBusy = [&] {
        mapBusy = files();
        EXPECT_EQ(0, flock(fd, LOCK_UN));
    };
    countedSave(plan);
    EXPECT_EQ((fileMap{{"", s_strOld}, {".new", s_strNew}}), mapBusy);
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    close(fd);
}

TEST_F(SafeSave, ARecoveryKilledAtAnyCallCanBeDoneAgain) {
    for (const start& begin : starts())
        for (int i = 0;; ++i) {
            set(begin.mapFile);
            if (run(cutKill, i, [&] { return recover(), 0; }).nStatus != -SIGKILL)
                break;
            expectWhole(begin.strDocument, begin.lpszName + std::string(", killed at call ") + std::to_string(i));
        }
}

TEST_F(SafeSave, ASaveAfterAKilledOneWithoutALoadKeepsEverythingWhole) {
    set({{"", s_strOld}});
    const int nCalls = run(cutKill, -1, [&] { return save(s_strNew); }).nCalls;
    ASSERT_GT(nCalls, 12);
    for (int i = 0; i < nCalls; i += 3)
        for (int j = 0;; j += 4) {
            set({{"", s_strOld}});
            ASSERT_EQ(-SIGKILL, run(cutKill, i, [&] { return save(s_strNew); }).nStatus);
            const bool bLast = run(cutKill, j, [&] { return save(s_strNew); }).nStatus != -SIGKILL;
            expectWhole(s_strOld, "killed at call " + std::to_string(i) + ", then at " + std::to_string(j));
            if (bLast)
                break;
        }
}

TEST_F(SafeSave, AFailedCallLeavesAWholeDocumentAndTheResultSaysWhich) {
    for (const start& begin : starts()) {
        set(begin.mapFile);
        const int nCalls = run(cutNone, 0, [&] { return save(s_strNew); }).nCalls;
        ASSERT_GT(nCalls, 12);
        for (int i = 0; i < nCalls; ++i) {
            const std::string strWhat = begin.lpszName + std::string(", failed call ") + std::to_string(i);
            set(begin.mapFile);
            const outcome out = run(cutFail, i, [&] { return save(s_strNew); });
            const int nResult = out.nStatus;
            ASSERT_TRUE(nResult == 0 || nResult == 1) << strWhat;
            EXPECT_LT(out.nCalls, 3 * nCalls) << strWhat << ": waits for itself";
            // A failed save over a whole document leaves it in place, even before the next load.
            if (nResult == 0 && begin.lpszName == std::string("a document")) {
                EXPECT_EQ(begin.mapFile, files()) << strWhat;
            }
            expectWhole(begin.strDocument, strWhat);
            const std::string strNow = files().empty() ? "" : files()[""];
            EXPECT_EQ(nResult == 1 ? s_strNew : begin.strDocument, strNow) << strWhat;
        }
    }
}

TEST_F(SafeSave, ADiskThatDiesAtAnyCallLeavesAWholeDocument) {
    for (const start& begin : starts())
        for (int i = 0;; ++i) {
            set(begin.mapFile);
            const outcome out = run(cutFailFromHere, i, [&] { return save(s_strNew); });
            expectWhole(begin.strDocument, begin.lpszName + std::string(", no call from ") + std::to_string(i));
            if (out.nCalls <= i)
                break;
        }
}

TEST_F(SafeSave, AnExportThatGivesUpOrClosesTheFileChangesNothing) {
    set({{"", s_strOld}});
    EXPECT_EQ(0, saveFileSafely(m_strName.c_str(), [](chFileStdio& file) {
                  writePieces(file, s_strNew);
                  return 0;
              }));
    EXPECT_EQ((fileMap{{"", s_strOld}}), files());
    EXPECT_EQ(0, saveFileSafely(m_strName.c_str(), [](chFileStdio& file) {
                  file.Close();
                  return 1;
              }));
    EXPECT_EQ((fileMap{{"", s_strOld}}), files());
}

TEST_F(SafeSave, AFullDiskLeavesTheOldFileAndNoOther) {
    ASSERT_EQ(0, mount("tmpfs", m_strFolder.c_str(), "tmpfs", 0, "size=128k")) << strerror(errno);
    const std::string strFits = s_strOld;
    const std::string strBig(100 * 1024, 'b');
    set({{"", strFits}});
    errno = 0;
    EXPECT_EQ(0, save(strBig));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ((fileMap{{"", strFits}}), files());
    // The error shows only when the last buffer is written.
    qorTest::putFile(m_strFolder + "/filler", std::string(76 * 1024, 'f'));
    EXPECT_EQ(0, saveFileSafely(m_strName.c_str(), [](chFileStdio& file) {
                  for (int i = 0; i < 3; ++i)
                      file.Write(s_strNew.data(), 1, 5000);
                  return 1;
              }));
    EXPECT_EQ((fileMap{{"", strFits}}), files());
    // A first save that fails leaves nothing.
    set({});
    EXPECT_EQ(0, save(strBig));
    EXPECT_EQ(fileMap(), files());
    unlink((m_strFolder + "/filler").c_str());
    EXPECT_EQ(1, save(s_strNew));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
    EXPECT_EQ(0, umount(m_strFolder.c_str()));
}

TEST_F(SafeSave, AFailedWriteIsNotForgottenWhenThereIsRoomAgain) {
    ASSERT_EQ(0, mount("tmpfs", m_strFolder.c_str(), "tmpfs", 0, "size=128k")) << strerror(errno);
    const std::string strFiller = m_strFolder + "/filler";
    set({{"", s_strOld}});
    qorTest::putFile(strFiller, std::string(64 * 1024, 'f'));
    EXPECT_EQ(0, saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) {
                  EXPECT_EQ(0, writePieces(file, s_strNew));
                  unlink(strFiller.c_str());
                  file.Flush();
                  return 1;
              }));
    EXPECT_EQ((fileMap{{"", s_strOld}}), files());
    EXPECT_EQ(0, umount(m_strFolder.c_str()));
}

TEST_F(SafeSave, AFolderThatCannotBeWrittenFailsTheSave) {
    ASSERT_EQ(0, mount("tmpfs", m_strFolder.c_str(), "tmpfs", 0, "size=128k")) << strerror(errno);
    set({{"", s_strOld}, {".old", s_strOlder}});
    ASSERT_EQ(0, mount("", m_strFolder.c_str(), "", MS_REMOUNT | MS_RDONLY, "")) << strerror(errno);
    recover();
    EXPECT_EQ(0, save(s_strNew));
    EXPECT_EQ((fileMap{{"", s_strOld}, {".old", s_strOlder}}), files());
    EXPECT_EQ(0, umount(m_strFolder.c_str()));
    EXPECT_EQ(0, saveFileSafely((m_strFolder + "/none/doc").c_str(), [](chFileStdio&) { return 1; }));
}

// ---- documents of both kinds, saved by their own functions

// A document whose lines repeat one letter, and the text that it is written as.
class SafeSaveDocument : public SafeSave {
protected:
    static void fill(iniFile& file, char ch) {
        for (const char* lpszKey : {"key", "other"})
            file.SetTextValue("section", lpszKey, std::string(3000, ch).c_str());
    }
    static void fill(xmlFile& file, char ch) {
        xmlElement* pRoot = file.AddChildElement("root");
        for (const char* lpszName : {"line", "other"})
            pRoot->AddChildElement(lpszName)->SetAttribute("text", std::string(3000, ch).c_str());
    }
    template <class File>
    std::string written(char ch) const {
        set({});
        EXPECT_EQ(1, saveAs<File>(ch));
        return files()[""];
    }
    template <class File>
    BOOL saveAs(char ch) const {
        File file;
        fill(file, ch);
        return file.SaveToFile(m_strName.c_str());
    }

    // Kills or fails a save at each of its calls. The next load finds one of the two documents whole, or none where
    // there was none.
    template <class File>
    void cutEverywhere(cutHow eHow) {
        const std::string strOld = written<File>('o'), strOlder = written<File>('x'), strNew = written<File>('n');
        ASSERT_GT(strOld.size(), 5000u);
        const std::vector<start> listStart = starts(strOld, strOlder);
        for (const size_t nStart : {0, 1, 4}) {  // nothing, a document, one that was being exchanged
            const start& begin = listStart[nStart];
            int i = 0;
            for (;; ++i) {
                set(begin.mapFile);
                const outcome out = run(eHow, i, [&] { return saveAs<File>('n'); });
                if (eHow == cutKill ? out.nStatus != -SIGKILL : out.nCalls <= i)
                    break;
                const std::string strWhat = begin.lpszName + std::string(", cut at call ") + std::to_string(i);
                File file;
                EXPECT_EQ(isThere() ? 1 : 0, file.LoadFromFile(m_strName.c_str())) << strWhat;
                expectWhole(begin.strDocument, strWhat, strNew);
                if (out.nStatus == 1) {
                    EXPECT_EQ(strNew, files()[""]) << strWhat;
                }
            }
            EXPECT_GT(i, 9) << begin.lpszName;
            EXPECT_EQ((fileMap{{"", strNew}}), files()) << begin.lpszName;
        }
    }

private:
    // Whether there is a document for a load to find.
    bool isThere() const {
        const fileMap mapFile = files();
        return mapFile.count("") + mapFile.count(".old") > 0;
    }
};

TEST_F(SafeSaveDocument, AnIniFileWhoseSaverIsKilledAtAnyCallIsWhole) { cutEverywhere<iniFile>(cutKill); }

TEST_F(SafeSaveDocument, AnXmlFileWhoseSaverIsKilledAtAnyCallIsWhole) { cutEverywhere<xmlFile>(cutKill); }

TEST_F(SafeSaveDocument, AnIniFileIsWholeWhateverCallFails) {
    cutEverywhere<iniFile>(cutFail);
    cutEverywhere<iniFile>(cutFailFromHere);
}

TEST_F(SafeSaveDocument, AnXmlFileIsWholeWhateverCallFails) {
    cutEverywhere<xmlFile>(cutFail);
    cutEverywhere<xmlFile>(cutFailFromHere);
}

// ---- savers and loaders at the same time

TEST_F(SafeSave, ALoadLeavesTheFileOfALivingSaverAlone) {
    set({{"", s_strOld}});
    qorTest::meeting writing, loaded;
    qorTest::childProcess saver("saver", [&] {
        return saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) {
            writePieces(file, s_strHalf);
            file.Flush();
            writing.say();
            loaded.hear();
            return writePieces(file, s_strNew.substr(s_strHalf.size()));
        });
    });
    writing.hear();
    countedRecovery(cutPlan());
    EXPECT_EQ((fileMap{{"", s_strOld}, {".new", s_strHalf}}), files());
    // Also when it cannot be found out whether the saver lives.
    cutPlan plan;
    plan.eHow = cutFail;
    std::istringstream in(s_plan.strCalls);
    for (std::string strCall; strCall != "open" && in >> strCall;)
        ++plan.iAt;
    countedRecovery(plan);
    EXPECT_EQ((fileMap{{"", s_strOld}, {".new", s_strHalf}}), files());
    loaded.say();
    EXPECT_EQ(1, saver.wait());
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
}

TEST_F(SafeSave, ASaverThatDiedWhileWritingIsNotWaitedFor) {
    set({{"", s_strOld}});
    qorTest::meeting writing;
    qorTest::childProcess saver("saver", [&] {
        return saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) {
            writePieces(file, s_strHalf);
            file.Flush();
            writing.say();
            for (;;)
                pause();
            return 1;
        });
    });
    writing.hear();
    saver.kill();
    EXPECT_EQ(-SIGKILL, saver.wait());
    recover();
    EXPECT_EQ((fileMap{{"", s_strOld}}), files());
}

TEST_F(SafeSave, ASaverThatHangsIsOvertakenAndGivesUp) {
    set({{"", s_strOld}});
    qorTest::meeting writing, overtaken;
    qorTest::childProcess saver("saver", [&] {
        return saveFileSafely(m_strName.c_str(), [&](chFileStdio& file) {
            writing.say();
            overtaken.hear();
            return writePieces(file, s_strHalf);
        });
    });
    writing.hear();
    EXPECT_EQ(1, save(s_strNew));  // after it has waited
    overtaken.say();
    EXPECT_EQ(0, saver.wait());
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
}

// A loader, which always finds a whole document.
int loadMany(const std::string& strName, int nLoads) {
    for (int i = 0; i < nLoads; ++i) {
        if (!hasSavedFile(strName.c_str()))
            return 2;
        fileText text;
        const int nRead = readSavedText(strName.c_str(), text);
        const std::string strText(text.GetBuffer(), static_cast<size_t>(nRead > 0 ? nRead : 0));
        if (strText != s_strOld && strText != s_strNew)
            return 1;
    }
    return 0;
}

TEST_F(SafeSave, ALoadThatMeetsASaverBetweenItsRenamesFindsTheDocument) {
    set({{"", s_strOld}});
    s_plan.fnBeforeRead = [&] { set({{".old", s_strOld}, {".new", s_strNew}}); };
    EXPECT_EQ(0, loadMany(m_strName, 1));
    EXPECT_EQ((fileMap{{"", s_strNew}}), files());
}

// One of them ends after the look at the name, and the other one begins after that at the .old.
TEST_F(SafeSave, ALoadThatMeetsTwoSaversOneAfterTheOtherFindsTheDocument) {
    const fileMap betweenRenames = {{".old", s_strOld}, {".new", s_strNew}};
    set(betweenRenames);
    int nLooksAtName = 0, nLooksAtOld = 0;
    s_plan.fnAfterLook = [&](const std::string& strPath) {
        if (strPath == m_strName && ++nLooksAtName == 1)
            set({{"", s_strOld}});
        if (strPath == m_strName + ".old" && ++nLooksAtOld == 2)
            set(betweenRenames);
    };
    EXPECT_TRUE(hasSavedFile(m_strName.c_str()));
    EXPECT_LT(2, nLooksAtOld);
}

TEST_F(SafeSave, SaversAndLoadersOfOneDocumentMeetWithoutLoss) {
    set({{"", s_strOld}});
    const auto fnSaver = [&](const std::string& strText) {
        for (int i = 0; i < 60; ++i)
            if (!save(strText))
                return 1;
        return 0;
    };
    qorTest::childProcess saver1("saver 1", [&] { return fnSaver(s_strOld); });
    qorTest::childProcess saver2("saver 2", [&] { return fnSaver(s_strNew); });
    qorTest::childProcess loader("loader", [&] { return loadMany(m_strName, 300); });
    EXPECT_EQ(0, saver1.wait());
    EXPECT_EQ(0, saver2.wait());
    EXPECT_EQ(0, loader.wait());
    recover();
    EXPECT_EQ(1u, files().size());
    EXPECT_TRUE(files()[""] == s_strOld || files()[""] == s_strNew);
}

TEST_F(SafeSave, SaversThatAreKilledAmongOthersLoseNothing) {
    set({{"", s_strOld}});
    for (int i = 0; i < 60; ++i) {
        qorTest::childProcess killed("killed saver", [&] {
            s_plan.eHow = cutKill;
            s_plan.iAt = i * 7 % 80;
            s_bCounting = true;
            for (;;)
                save(s_strNew);
            return 0;
        });
        qorTest::childProcess saver("saver", [&] { return save(s_strOld) && save(s_strOld) ? 0 : 1; });
        EXPECT_EQ(0, loadMany(m_strName, 5));
        EXPECT_EQ(-SIGKILL, killed.wait());
        EXPECT_EQ(0, saver.wait());
        recover();
        ASSERT_EQ(1u, files().size());
        ASSERT_TRUE(files()[""] == s_strOld || files()[""] == s_strNew);
    }
}

}  // namespace
