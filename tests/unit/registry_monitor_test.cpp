// Monitors and the saver in one process: who is notified of what, how often, and what happens to those of dead threads.
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "qor/MiscHelper.h"
#include "support/message_thread.h"
#include "support/registry.h"
#include "support/system_call.h"
#include "support/task.h"

using namespace QOR_RegistryHelper;
using namespace qorTest;
using QOR_MiscHelper::qorGetCurrentTaskId;
using QOR_MsgQueueHelper::chMsgProcesser;
using QOR_MsgQueueHelper::msgEntryPair;
using QOR_MsgQueueHelper::msgMethod;
using QOR_MsgQueueHelper::msgObject;

// ---- counts the library's checks whether a task is alive

static std::atomic<int> s_nAsked{0};

extern "C" int sched_getscheduler(pid_t idTask) noexcept {
    static auto* const fn = systemCall<int(pid_t)>("sched_getscheduler");
    ++s_nAsked;
    return fn(idTask);
}

namespace {

struct toldOf {
    UINT uMsg;
    UINT wParam;
    HREGISTRY hSection;
};

// Registers the calling thread and records the notifications that its callback gets.
class Monitors : public testing::Test {
protected:
    Monitors()
        : m_thread("monitor", [this](msgObject& objMessage) {
              if (objMessage.uMsg == TM_REGISTRY_CHANGE)
                  m_listTold.push_back(
                      {objMessage.uMsg, objMessage.wParam, registryHandle(static_cast<uintptr_t>(objMessage.lParam))});
              return 0;
          }) {
        static int s_nFile = 0;
        m_strFile = "/tmp/monitor_" + std::to_string(++s_nFile) + ".ini";
    }

    HREGISTRY open(const char* lpszSection) { return registryOpen(m_strFile.c_str(), lpszSection); }

    // Handles what has been posted. Returns the number of notifications.
    int handle() {
        const size_t nBefore = m_listTold.size();
        while (m_thread.ProcessOneMessageFromQueue() != 0) {
        }
        return static_cast<int>(m_listTold.size() - nBefore);
    }
    int setAndFlush(HREGISTRY h) {
        registrySetInt(h, "k", ++m_nValue);
        registryFlush(h);
        return handle();
    }
    static int monitorsOf(HREGISTRY h) { return sectionOf(h)->m_lstMonitor.size(); }

    currentThread m_thread;
    std::vector<toldOf> m_listTold;
    std::string m_strFile;
    int m_nValue = 0;
};

// ---- the flat functions

TEST_F(Monitors, AFlushOfAChangeTellsTheMonitorOnce) {
    HREGISTRY h = open("s");
    EXPECT_EQ(1, regMonitorSection(h));
    registrySetInt(h, "j", 1);
    registrySetInt(h, "l", 1);
    EXPECT_EQ(0, handle());  // not before the flush
    registryFlush(h);
    EXPECT_EQ(1, handle());
    EXPECT_EQ(0x9001u, m_listTold[0].uMsg);
    EXPECT_EQ(0u, m_listTold[0].wParam);
    EXPECT_EQ(h, m_listTold[0].hSection);
    registryFlush(h);
    EXPECT_EQ(0, handle());  // none until the next change
    EXPECT_EQ(1, setAndFlush(h));
    regUnmonitorSection(h);
}

TEST_F(Monitors, AnUnchangedValueTellsNobody) {
    HREGISTRY h = open("s");
    registrySetInt(h, "k", 1);
    registryFlush(h);
    regMonitorSection(h);
    EXPECT_EQ(0, registrySetInt(h, "k", 1));
    registryFlush(h);
    EXPECT_EQ(0, handle());
    regUnmonitorSection(h);
}

TEST_F(Monitors, TwoMonitorsOfOneThreadAreToldTwice) {
    HREGISTRY h = open("s");
    regMonitorSection(h);
    regMonitorSection(h);
    EXPECT_EQ(2, setAndFlush(h));
    EXPECT_EQ(1, regUnmonitorSection(h));  // both
    EXPECT_EQ(0, monitorsOf(h));
    EXPECT_EQ(0, setAndFlush(h));
    EXPECT_EQ(1, regUnmonitorSection(h));
}

TEST_F(Monitors, OnlyTheChangedSectionsAreTold) {
    HREGISTRY hA = open("a"), hB = open("b"), hC = open("c");
    for (HREGISTRY h : {hA, hB, hC})
        regMonitorSection(h);
    registrySetInt(hC, "k", 1);
    registrySetInt(hA, "k", 1);
    registryFlush(hB);  // any section stands for its document
    EXPECT_EQ(2, handle());
    EXPECT_EQ(hA, m_listTold[0].hSection);
    EXPECT_EQ(hC, m_listTold[1].hSection);
    for (HREGISTRY h : {hA, hB, hC})
        regUnmonitorSection(h);
}

TEST_F(Monitors, AChangeThatWasSavedBeforeTheFlushIsToldAllTheSame) {
    HREGISTRY h = open("s");
    regMonitorSection(h);
    registrySetInt(h, "k", 1);
    regSaveRegistryDocument(h);
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
    registryFlush(h);
    EXPECT_EQ(1, handle());
    regUnmonitorSection(h);
}

TEST_F(Monitors, TheMessageIsAProxyWithARecordOfFourWords) {
    HREGISTRY h = open("s");
    regMonitorSection(h);
    registrySetInt(h, "k", 1);
    registryFlush(h);
    share().Lock(-1);
    msgObject* pMessage = m_thread.getMsgQueue()->FindMessage([](msgObject&) { return true; });
    ASSERT_NE(nullptr, pMessage);
    EXPECT_EQ(1u, pMessage->uMsg);
    EXPECT_EQ(0u, pMessage->wParam);
    EXPECT_EQ(static_cast<int>(reinterpret_cast<uintptr_t>(h)), pMessage->lParam);
    ASSERT_EQ(16, pMessage->GetExtraSize());
    const uint32_t arrWord[4] = {0x9001, 0, 0, 0};
    EXPECT_EQ(0, memcmp(arrWord, pMessage->GetExtraData(), 16));
    share().Unlock();
    EXPECT_EQ(1, handle());
    regUnmonitorSection(h);
}

TEST_F(Monitors, AThreadThatIsNotRegisteredIsSkipped) {
    HREGISTRY h = open("s");
    qorTest::signal signalMonitored, signalFlushed;
    std::thread thread([&] {
        regMonitorSection(h);
        signalMonitored.Set();
        signalFlushed.Wait();
    });
    signalMonitored.Wait();
    regMonitorSection(h);
    EXPECT_EQ(1, setAndFlush(h));
    EXPECT_EQ(2, monitorsOf(h));
    signalFlushed.Set();
    thread.join();
    regUnmonitorSection(h);
}

TEST_F(Monitors, AnEndedThreadIsSkippedAndRemovedWhenTheNextIsAdded) {
    HREGISTRY h = open("s");
    qorTest::endedTask([&] {
        currentThread thread("ghost");
        regMonitorSection(h);
        regMonitorSection(h);
    });
    EXPECT_EQ(2, monitorsOf(h));
    EXPECT_EQ(0, setAndFlush(h));
    EXPECT_EQ(2, monitorsOf(h));
    regMonitorSection(h);
    EXPECT_EQ(1, monitorsOf(h));
    EXPECT_EQ(1, setAndFlush(h));
    regUnmonitorSection(h);
}

TEST_F(Monitors, ManyMonitorsAreAddedAndRemovedInOneWalkEach) {
    HREGISTRY h = open("s");
    constexpr int nMonitors = 300;
    s_nAsked = 0;
    for (int i = 0; i < nMonitors; ++i)
        regMonitorSection(h);
    int nAsked = 0;
    qorTest::endedTask([&] {
        for (int i = 0; i < nMonitors; ++i)
            regMonitorSection(h);
        nAsked = s_nAsked;
    });
    EXPECT_EQ(2 * nMonitors, monitorsOf(h));
    EXPECT_LE(nAsked, 4 * nMonitors);  // one check of each task for each addition
    regSection* pSection = sectionOf(h);
    s_nAsked = 0;
    registryHelper().Lock(-1);
    pSection->ClearGhostTask();
    registryHelper().Unlock();
    EXPECT_EQ(nMonitors, monitorsOf(h));
    EXPECT_LE(s_nAsked, 2);
    const int nFree = freeRegistryBytes();
    regUnmonitorSection(h);
    EXPECT_EQ(0, monitorsOf(h));
    EXPECT_GE(freeRegistryBytes(), nFree + nMonitors * 24);
}

// ---- processors and methods

class watcher : public chMsgProcesser {
public:
    int TryThreadMessage(msgObject& objMessage) override { return note(m_nTried, objMessage); }
    int OnChange(msgObject& objMessage) { return note(m_nChanged, objMessage); }
    int OnOther(msgObject& objMessage) { return note(m_nOther, objMessage); }

    int m_nTried = 0, m_nChanged = 0, m_nOther = 0;
    UINT m_uMsg = 0;
    int m_lParam = 0;

private:
    int note(int& nCount, msgObject& objMessage) {
        ++nCount;
        m_uMsg = objMessage.uMsg;
        m_lParam = objMessage.lParam;
        return 1;
    }
};

const msgMethod s_pOnChange = static_cast<msgMethod>(&watcher::OnChange);
const msgMethod s_pOnOther = static_cast<msgMethod>(&watcher::OnOther);

TEST_F(Monitors, AMethodOfAProcessorIsCalledWithTheSectionsHandle) {
    watcher objWatcher;
    chRegistryMonitor objMonitor;
    const msgEntryPair* pEntry = objMonitor.MonitorSection(m_strFile.c_str(), "s", &objWatcher, s_pOnChange);
    ASSERT_NE(nullptr, pEntry);
    EXPECT_EQ(qorGetCurrentTaskId(), pEntry->m_idTask);
    HREGISTRY h = open("s");
    EXPECT_EQ(0, setAndFlush(h));  // not the thread's own callback
    EXPECT_EQ(1, objWatcher.m_nChanged);
    EXPECT_EQ(0x9001u, objWatcher.m_uMsg);
    EXPECT_EQ(static_cast<int>(reinterpret_cast<uintptr_t>(h)), objWatcher.m_lParam);
    objMonitor.UnmonitorAllSection();
}

TEST_F(Monitors, WithoutAMethodTheProcessorsHandlerIsCalled) {
    watcher objWatcher;
    chRegistryMonitor objMonitor;
    objMonitor.MonitorSection(m_strFile.c_str(), "s", &objWatcher, NULL);
    EXPECT_EQ(0, setAndFlush(open("s")));
    EXPECT_EQ(1, objWatcher.m_nTried);
    EXPECT_EQ(0x9001u, objWatcher.m_uMsg);
    objMonitor.UnmonitorAllSection();
}

TEST_F(Monitors, AProcessorThatWasDestroyedIsSkipped) {
    chRegistryMonitor objMonitor;
    {
        watcher objWatcher;
        objMonitor.MonitorSection(m_strFile.c_str(), "s", &objWatcher, s_pOnChange);
    }
    EXPECT_EQ(0, setAndFlush(open("s")));
    objMonitor.UnmonitorAllSection();
}

TEST_F(Monitors, OneMonitorWatchesSeveralSectionsAndDropsThem) {
    watcher objWatcher;
    chRegistryMonitor objMonitor;
    for (const char* lpszSection : {"a", "b", "c"})
        objMonitor.MonitorSection(m_strFile.c_str(), lpszSection, &objWatcher, s_pOnChange);
    setAndFlush(open("a"));
    setAndFlush(open("b"));
    EXPECT_EQ(2, objWatcher.m_nChanged);
    objMonitor.UnmonitorSection(m_strFile.c_str(), "B");
    EXPECT_EQ(0, monitorsOf(open("b")));
    setAndFlush(open("b"));
    EXPECT_EQ(2, objWatcher.m_nChanged);
    objMonitor.MonitorSection(m_strFile.c_str(), "b", &objWatcher, s_pOnChange);  // allowed again
    setAndFlush(open("b"));
    EXPECT_EQ(3, objWatcher.m_nChanged);
    objMonitor.UnmonitorAllSection();
    for (const char* lpszSection : {"a", "b", "c"})
        EXPECT_EQ(0, monitorsOf(open(lpszSection)));
    setAndFlush(open("c"));
    EXPECT_EQ(3, objWatcher.m_nChanged);
    objMonitor.UnmonitorAllSection();
}

TEST_F(Monitors, WhatIsNotWatchedIsNotUnwatched) {
    watcher objWatcher;
    chRegistryMonitor objMonitor, objOther;
    objMonitor.MonitorSection(m_strFile.c_str(), "s", &objWatcher, s_pOnChange);
    objOther.UnmonitorSection(m_strFile.c_str(), "s");
    objOther.UnmonitorSection(m_strFile.c_str(), "none");
    objOther.UnmonitorSection("/tmp/no_such_file.ini", "s");
    objOther.UnmonitorSection(NULL, NULL);
    objOther.UnmonitorAllSection();
    EXPECT_EQ(1, monitorsOf(open("s")));
    EXPECT_EQ(nullptr, documentOf(open("s"))->FindSectionObject("none"));
    objMonitor.UnmonitorSection(m_strFile.c_str(), "s");
    EXPECT_EQ(0, monitorsOf(open("s")));
}

TEST_F(Monitors, WatchingASectionTwiceIsAFatalAssertion) {
    const char* lpszText =
        "\\[QORRegistry:[0-9]+\\] typeSessionMap::find_key\\(&objSesion\\) == typeSessionMap::end\\(\\) ";
    watcher objWatcher;
    chRegistryMonitor objMonitor;
    objMonitor.MonitorSection(m_strFile.c_str(), "s", &objWatcher, s_pOnChange);
    EXPECT_EXIT(objMonitor.MonitorSection(m_strFile.c_str(), "S", &objWatcher, s_pOnOther),
                testing::KilledBySignal(SIGABRT), lpszText);
    objMonitor.UnmonitorAllSection();
    EXPECT_EXIT(objMonitor.MonitorSection(m_strFile.c_str(), "s", &objWatcher, s_pOnChange),
                testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(objMonitor.MonitorSection("", "s", &objWatcher, s_pOnChange), testing::KilledBySignal(SIGABRT),
                "\\[QORRegistry:[0-9]+\\] !textEMPTY\\(lpszFileName\\) ");
}

TEST_F(Monitors, ARemovedEntryWhosePlaceIsAnothersIsLeftAlone) {
    watcher objWatcher;
    chRegistryMonitor objMonitor;
    HREGISTRY h = open("s");
    regSection* pSection = sectionOf(h);
    msgEntryPair* pEntry = objMonitor.MonitorSection(m_strFile.c_str(), "s", &objWatcher, s_pOnChange);
    registryHelper().Lock(-1);
    pSection->RemoveMonitorTask(pEntry);
    const msgEntryPair* pOther = pSection->AddMonitorTask(qorGetCurrentTaskId(), NULL, NULL);
    registryHelper().Unlock();
    EXPECT_EQ(pEntry, pOther);
    objMonitor.UnmonitorAllSection();
    EXPECT_EQ(1, monitorsOf(h));
    regUnmonitorSection(h);
}

TEST_F(Monitors, EntriesAreRemovedByTaskProcessorAndMethod) {
    watcher objOne, objTwo;
    regSection* pSection = sectionOf(open("s"));
    const int idTask = qorGetCurrentTaskId();
    const auto add = [&] {
        for (watcher* pWatcher : {&objOne, &objTwo})
            for (const msgMethod pMethod : {s_pOnChange, s_pOnOther})
                pSection->AddMonitorTask(idTask, pWatcher, pMethod);
        pSection->AddMonitorTask(idTask, NULL, NULL);
        pSection->AddMonitorTask(getpid() == idTask ? 1 : getpid(), &objOne, s_pOnChange);
    };
    registryHelper().Lock(-1);
    add();
    EXPECT_EQ(6, pSection->m_lstMonitor.size());
    pSection->RemoveMonitorTask(idTask, &objOne, s_pOnOther);
    EXPECT_EQ(5, pSection->m_lstMonitor.size());
    pSection->RemoveMonitorTask(idTask, &objOne, NULL);  // none has no method
    EXPECT_EQ(5, pSection->m_lstMonitor.size());
    pSection->RemoveMonitorTask(idTask, NULL, NULL);
    EXPECT_EQ(4, pSection->m_lstMonitor.size());
    const msgEntryPair* pFirst = &pSection->m_lstMonitor.front();
    EXPECT_TRUE(pSection->RemoveMonitorTask(pFirst));
    EXPECT_FALSE(pSection->RemoveMonitorTask(pFirst));
    EXPECT_FALSE(pSection->RemoveMonitorTask(reinterpret_cast<const msgEntryPair*>(static_cast<uintptr_t>(16))));
    EXPECT_FALSE(pSection->RemoveMonitorTask(static_cast<const msgEntryPair*>(NULL)));
    EXPECT_EQ(3, pSection->m_lstMonitor.size());
    pSection->m_lstMonitor.clear();
    registryHelper().Unlock();
}

TEST_F(Monitors, TheSecondWordOfAMethodCountsUnlessThereIsNoFirst) {
    watcher objWatcher;
    regSection* pSection = sectionOf(open("s"));
    const int idTask = qorGetCurrentTaskId();
    registryHelper().Lock(-1);
    msgEntryPair* pEntry = pSection->AddMonitorTask(idTask, &objWatcher, s_pOnChange);
    pEntry->m_objMethod.m_aWord[1] += 8;
    pSection->RemoveMonitorTask(idTask, &objWatcher, s_pOnChange);
    EXPECT_EQ(1, pSection->m_lstMonitor.size());
    pEntry->m_objMethod.m_aWord[1] -= 8;
    pSection->RemoveMonitorTask(idTask, &objWatcher, s_pOnChange);
    EXPECT_EQ(0, pSection->m_lstMonitor.size());
    pEntry = pSection->AddMonitorTask(idTask, &objWatcher, NULL);
    pEntry->m_objMethod.m_aWord[1] = 8;
    pSection->RemoveMonitorTask(idTask, &objWatcher, NULL);
    EXPECT_EQ(0, pSection->m_lstMonitor.size());
    registryHelper().Unlock();
}

// ---- monitors that do not read

int freeShareBytes() {
    share().Lock(-1);
    const int nFree = share().getObject()->m_objPool.free_size();
    share().Unlock();
    return nFree;
}

TEST_F(Monitors, OneThatDoesNotReadLeavesAQuarterOfThePoolToTheOthers) {
    constexpr int nQuarter = 65504 / 4, nNotification = 4 + 48 + 4 + 16;
    HREGISTRY h = open("s"), hOther = open("t");
    regMonitorSection(h);
    regMonitorSection(hOther);
    const auto flush = [this](HREGISTRY hSection) {
        registrySetInt(hSection, "k", ++m_nValue);
        registryFlush(hSection);
    };
    const int nBefore = freeShareBytes();
    for (int i = 0; i < 1000; ++i)  // 909 would fill the pool
        flush(h);
    const int nFree = freeShareBytes();
    EXPECT_GE(nFree, nQuarter);
    EXPECT_LT(nFree - nNotification, nQuarter);  // not before it is needed
    flush(hOther);                               // nothing of this section is unread
    EXPECT_EQ(nFree - nNotification, freeShareBytes());
    flush(hOther);
    EXPECT_EQ(nFree - nNotification, freeShareBytes());
    EXPECT_EQ((nBefore - nFree) / nNotification + 1, handle());
    EXPECT_EQ(1, std::count_if(m_listTold.begin(), m_listTold.end(),
                               [=](const toldOf& told) { return told.hSection == hOther; }));
    flush(h);
    flush(h);
    EXPECT_EQ(2, handle());  // one for each flush again
    regUnmonitorSection(h);
    regUnmonitorSection(hOther);
}

TEST_F(Monitors, WhereThePoolIsShortAnotherMethodIsStillTold) {
    HREGISTRY h = open("s");
    regMonitorSection(h);
    for (int i = 0; i < 1000; ++i) {
        registrySetInt(h, "k", ++m_nValue);
        registryFlush(h);
    }
    watcher objWatcher;
    regSection* pSection = sectionOf(h);
    registryHelper().Lock(-1);
    for (const msgMethod pMethod : {s_pOnChange, s_pOnOther})
        pSection->AddMonitorTask(qorGetCurrentTaskId(), &objWatcher, pMethod);
    registryHelper().Unlock();
    for (int i = 0; i < 3; ++i) {
        registrySetInt(h, "k", ++m_nValue);
        registryFlush(h);
    }
    handle();
    EXPECT_EQ(1, objWatcher.m_nChanged);
    EXPECT_EQ(1, objWatcher.m_nOther);
    registryHelper().Lock(-1);
    pSection->m_lstMonitor.clear();
    registryHelper().Unlock();
}

// ---- the saver

TEST_F(Monitors, AFlushAsksTheSaverWhichSavesTheDocument) {
    HREGISTRY h = open("s");
    EXPECT_EQ(1, registryRegistSaver());
    EXPECT_EQ(qorGetCurrentTaskId(), registryHelper().getObject()->m_idSaverTask);
    registrySetInt(h, "k", 1);
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("", getFile(m_strFile));
    EXPECT_EQ(1, handle());
    EXPECT_EQ(0x9001u, m_listTold[0].uMsg);
    EXPECT_EQ(regSection2HANDLE(documentOf(h)), registryHandle(m_listTold[0].wParam));
    EXPECT_EQ(nullptr, m_listTold[0].hSection);
    EXPECT_EQ(1, registrySaveDocument(registryHandle(m_listTold[0].wParam)));
    EXPECT_EQ("[ s ]\nk = 1\n", getFile(m_strFile));
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
    EXPECT_EQ(1, registryUnregistSaver());
    EXPECT_EQ(0, registryHelper().getObject()->m_idSaverTask);
    EXPECT_EQ(0, registryUnregistSaver());
    EXPECT_EQ(0, setAndFlush(h));
    EXPECT_EQ("[ s ]\nk = 1\n", getFile(m_strFile));
    registrySetInt(h, "k", 2);
    registryFlush(h);
    EXPECT_EQ("[ s ]\nk = 2\n", getFile(m_strFile));
}

TEST_F(Monitors, EachFlushAsksTheSaverUntilItLeavesSixteenRequestsUnanswered) {
    HREGISTRY h = open("s");
    registryRegistSaver();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(1, setAndFlush(h));
    EXPECT_EQ(1, registrySaveDocument(registryHandle(m_listTold[0].wParam)));
    for (int i = 0; i < 100; ++i) {
        registrySetInt(h, "k", 1000 + i);
        registryFlush(h);
        // Then the flushing thread saves.
        EXPECT_EQ("[ s ]\nk = " + std::to_string(i < 16 ? 5 : 1000 + i) + "\n", getFile(m_strFile));
    }
    EXPECT_EQ(16, handle());
    EXPECT_EQ(1, registrySaveDocument(registryHandle(m_listTold[0].wParam)));
    EXPECT_EQ(1, setAndFlush(h));
    registryUnregistSaver();
    EXPECT_EQ("[ s ]\nk = " + std::to_string(m_nValue) + "\n",
              getFile(m_strFile));  // what the predecessor was asked to save
}

TEST_F(Monitors, ASaverAnswersItsRequestsWhicheverWayItSavesTheDocument) {
    HREGISTRY h = open("s");
    registryRegistSaver();
    const std::function<BOOL(HREGISTRY)> arrSave[] = {
        [](HREGISTRY hDocument) { return registrySaveDocument(hDocument); },
        [](HREGISTRY hDocument) { return regSaveRegistryDocument(hDocument); },
        [h](HREGISTRY) { return regSaveRegistryDocument(h); },
        [h](HREGISTRY) { return regSaveRegistryDocument(documentOf(h)); }};
    for (const auto& fnSave : arrSave)
        for (int i = 0; i < 40; ++i) {
            ASSERT_EQ(1, setAndFlush(h)) << i;  // it is asked each time
            ASSERT_EQ(1, fnSave(registryHandle(m_listTold.back().wParam)));
            ASSERT_EQ("[ s ]\nk = " + std::to_string(m_nValue) + "\n", getFile(m_strFile));
        }
    // Requests that an earlier save has answered already need another save as well.
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(1, setAndFlush(h));
    EXPECT_EQ(0, setAndFlush(h));
    EXPECT_EQ(0, documentOf(h)->m_nChagedCount);
    EXPECT_EQ(1, regSaveRegistryDocument(h));
    EXPECT_EQ(1, setAndFlush(h));
    // A save by another thread answers no request of the saver.
    std::thread([h] { regSaveRegistryDocument(h); }).join();
    EXPECT_EQ(1, documentOf(h)->m_nSaveAsked);
    registryUnregistSaver();
}

TEST_F(Monitors, ASaverThatHasEndedIsForgottenAndTheFlushingThreadSaves) {
    HREGISTRY h = open("s");
    std::thread([] {
        currentThread thread("saver");
        registryRegistSaver();
    }).join();
    EXPECT_NE(0, registryHelper().getObject()->m_idSaverTask);
    registrySetInt(h, "k", 1);
    EXPECT_EQ(1, registryFlush(h));
    EXPECT_EQ("[ s ]\nk = 1\n", getFile(m_strFile));
    EXPECT_EQ(0, registryHelper().getObject()->m_idSaverTask);
}

TEST_F(Monitors, ASaverWithoutAQueueIsForgotten) {
    HREGISTRY h = open("s");
    qorTest::signal signalSaver, signalDone;
    std::thread thread([&] {
        {
            currentThread threadSaver("saver");
            registryRegistSaver();
        }
        signalSaver.Set();
        signalDone.Wait();
    });
    signalSaver.Wait();
    registrySetInt(h, "k", 1);
    registryFlush(h);
    EXPECT_EQ("[ s ]\nk = 1\n", getFile(m_strFile));
    EXPECT_EQ(0, registryHelper().getObject()->m_idSaverTask);
    signalDone.Set();
    thread.join();
}

TEST_F(Monitors, ANewSaverSavesWhatItsPredecessorWasAskedTo) {
    HREGISTRY h = open("s");
    std::thread([h] {
        currentThread thread("saver");
        registryRegistSaver();
        registrySetInt(h, "k", 1);
        registryFlush(h);
    }).join();
    EXPECT_EQ("", getFile(m_strFile));
    registryRegistSaver();
    EXPECT_EQ("[ s ]\nk = 1\n", getFile(m_strFile));
    registryUnregistSaver();
}

TEST_F(Monitors, OnlyARegisteredThreadBecomesTheSaver) {
    EXPECT_EXIT(std::thread([] { registryRegistSaver(); }).join(), testing::KilledBySignal(SIGABRT),
                "\\[sub-interface:[0-9]+\\] pLocalThread != NULL ");
}

TEST_F(Monitors, TheSaverAndMonitorsAreToldByOneFlush) {
    HREGISTRY h = open("s");
    registryRegistSaver();
    regMonitorSection(h);
    registrySetInt(h, "k", 1);
    registryFlush(h);
    EXPECT_EQ(2, handle());
    EXPECT_EQ(h, m_listTold[0].hSection);
    EXPECT_EQ(regSection2HANDLE(documentOf(h)), registryHandle(m_listTold[1].wParam));
    regUnmonitorSection(h);
    registryUnregistSaver();
}

}  // namespace
