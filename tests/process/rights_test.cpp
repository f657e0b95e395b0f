// A device whose objects belong to a group: users with and without rights, in every order of starting.
//
// The processes belong to three users. Where the program does not run as root of the machine, there is only one, and
// the tests are skipped.
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <memory>

#include "qor/BaseHelper/Share.h"
#include "qor/TraceHelper.h"
#include "qor/flat.h"
#include "support/child.h"
#include "support/isolation.h"
#include "support/system_call.h"

using namespace qorTest;
using QOR_BaseHelper::chEvent;
using QOR_BaseHelper::chMapFile;

namespace {
const bool s_bUsers = needUsers();
constexpr gid_t idGroup = 62000;
}  // namespace

// The machine need not have the group.
extern "C" int getgrnam_r(const char* lpszName, group* pEntry, char*, size_t, group** ppEntry) {
    *ppEntry = strcmp(lpszName, "device") == 0 ? pEntry : NULL;
    pEntry->gr_gid = idGroup;
    return 0;
}

namespace {

struct user {
    const char* lpszName;
    uid_t id;
    bool bMember;
    bool bAsks;  // has qor_group in its environment
};

const user asking = {"asking", 61001, true, true}, member = {"member", 61002, true, false},
           stranger = {"stranger", 61003, false, false};

// Lets the process be that user from now on.
bool become(const user& who) {
    const std::string strHome = std::string("/tmp/home_") + who.lpszName;
    setenv("HOME", strHome.c_str(), 1);
    setenv("trace", "0", 1);
    if (who.bAsks)
        setenv("qor_group", "device", 1);
    else
        unsetenv("qor_group");
    const gid_t listGroup[] = {idGroup};
    return setgroups(who.bMember ? 1 : 0, listGroup) == 0 && setresgid(who.id, who.id, who.id) == 0 &&
           setresuid(who.id, who.id, who.id) == 0;
}

// Uses one of everything.
bool useDevice(const user& who) {
    const HTHREAD hThread = msgRegistMainThread(who.lpszName, [](simpMSG* pMsg) { return (int)pMsg->wParam; });
    registrySetInt(registryOpen("/tmp/rights.ini", "section"), who.lpszName, 1);
    nameHelperLock();
    nameGetSystemObject(who.lpszName, 16, NULL);
    nameHelperUnlock();
    accCreateAccumulater("count", 0, 0, 10);
    chEvent event;
    event.OpenEvent((std::string("rights_") + who.lpszName).c_str());
    event.CloseEvent();
    return hThread != NULL && msgPostMsgToThread(hThread, 0x100, 0, 0);
}

std::vector<std::string> keyFiles() {
    std::vector<std::string> listFile;
    for (const char* lpszName : {"ipc_system_share", "ipc_system_named", "ipc_registry"})
        listFile.push_back(std::string("/tmp/qor_") + lpszName);
    return listFile;
}

// The ids of a table of the kernel, which stand in its second column.
std::vector<int> idsOf(const char* lpszTable) {
    std::vector<int> listId;
    std::ifstream in(lpszTable);
    std::string strLine;
    std::getline(in, strLine);
    for (long long nKey, nId; in >> nKey >> nId && std::getline(in, strLine);)
        listId.push_back(static_cast<int>(nId));
    return listId;
}

// What happens to a user's process.
struct ending {
    int nStatus;
    std::string strSaid;
};

// A process that stays until the test ends, so that its objects are in use.
class userProcess {
public:
    explicit userProcess(const user& who)
        : m_child(who.lpszName, [this, &who] {
              dup2(m_fdSaid[1], STDERR_FILENO);
              close(m_fdSaid[1]);
              close(m_fdSaid[0]);
              const bool bUsed = become(who) && useDevice(who);
              m_used.say(bUsed ? 'y' : 'n');
              m_end.hear();
              return bUsed ? 0 : 1;
          }) {
        close(m_fdSaid[1]);
    }
    userProcess(const userProcess&) = delete;
    ~userProcess() { close(m_fdSaid[0]); }

    // Waits until it has used the device, or failed.
    ending outcome() {
        std::string strSaid;
        pollfd look[] = {{m_used.readEnd(), POLLIN, 0}, {m_fdSaid[0], POLLIN, 0}};
        // The pipe of a process that has ended is at its end; one that goes on says that first.
        while (poll(look, 2, -1) > 0) {
            if (look[0].revents != 0)
                return {m_used.hear() == 'y' ? 0 : 1, strSaid};
            char sz[512];
            const ssize_t nRead = read(m_fdSaid[0], sz, sizeof(sz));
            if (nRead <= 0)
                break;
            strSaid.append(sz, static_cast<size_t>(nRead));
        }
        return {m_child.wait(), strSaid};
    }
    void end() {
        m_end.say();
        if (m_child.id() > 0)
            m_child.wait();
    }

private:
    struct saidPipe {
        int arrFd[2];
        saidPipe() { EXPECT_EQ(0, pipe2(arrFd, O_CLOEXEC)); }
        int operator[](int i) const { return arrFd[i]; }
    };
    saidPipe m_fdSaid;
    meeting m_used, m_end;
    childProcess m_child;
};

class Rights : public testing::Test {
protected:
    void SetUp() override {
        watch("parent");
        childProcess probe("probe", [] { return become(asking) ? 0 : 1; });
        if (probe.wait() != 0)
            GTEST_SKIP() << "needs several users: run it as root, without a user namespace around it";
        for (const user& who : {asking, member, stranger}) {
            const std::string strHome = std::string("/tmp/home_") + who.lpszName;
            mkdir(strHome.c_str(), 0700);
            ASSERT_EQ(0, chown(strHome.c_str(), who.id, who.id));
        }
        clean();
    }
    void TearDown() override {
        clean();
        alarm(0);
    }
    // As after a restart.
    static void clean() {
        for (const int id : idsOf("/proc/sysvipc/sem"))
            semctl(id, 0, IPC_RMID);
        for (const int id : idsOf("/proc/sysvipc/shm"))
            shmctl(id, IPC_RMID, NULL);
        EXPECT_EQ(0, system("rm -f /tmp/qor_* /tmp/.qor_new.* /tmp/home_*/* /tmp/rights.ini"));
    }
};

void expectOfGroup(const std::string& strFile) {
    struct stat state = {};
    ASSERT_EQ(0, stat(strFile.c_str(), &state)) << strFile;
    EXPECT_EQ(idGroup, state.st_gid) << strFile;
    EXPECT_EQ(0660u, state.st_mode & 07777) << strFile;
}

// Every semaphore and segment there is.
void expectObjectsOfGroup() {
    union {
        semid_ds* pState;
        int nValue;
    } arg;
    const std::vector<int> listSemaphore = idsOf("/proc/sysvipc/sem"), listSegment = idsOf("/proc/sysvipc/shm");
    EXPECT_GE(listSemaphore.size(), 4u);
    EXPECT_GE(listSegment.size(), 3u);
    for (const int id : listSemaphore) {
        semid_ds state = {};
        arg.pState = &state;
        EXPECT_EQ(0, semctl(id, 0, IPC_STAT, arg));
        EXPECT_EQ(idGroup, state.sem_perm.gid) << id;
        EXPECT_EQ(0660, state.sem_perm.mode & 0777) << id;
    }
    for (const int id : listSegment) {
        shmid_ds state = {};
        EXPECT_EQ(0, shmctl(id, IPC_STAT, &state));
        EXPECT_EQ(idGroup, state.shm_perm.gid) << id;
        EXPECT_EQ(0660, state.shm_perm.mode & 0777) << id;
    }
}

const std::string strNoRight =
    "no right to [/tmp/qor_ipc_system_share] of this device's group: owner 61001, group 62000, "
    "mode 0660";
const std::string strRefused = "[/tmp/qor_ipc_system_share] is no key file of this device's group: owner ";

// How a user fares who starts on a device that is there already, or as the first one.
void expectOutcome(const user& who, const user& first, const ending& end) {
    const bool bOfGroup = first.bAsks;
    const std::string strWanted = bOfGroup && !who.bMember ? strNoRight : !bOfGroup && who.bAsks ? strRefused : "";
    EXPECT_EQ(strWanted == "" ? 0 : -SIGABRT, end.nStatus)
        << who.lpszName << " after " << first.lpszName << end.strSaid;
    EXPECT_NE(std::string::npos, end.strSaid.find(strWanted)) << who.lpszName << " said " << end.strSaid;
}

TEST_F(Rights, AreThoseOfTheFirstProcessInEveryOrderOfStarting) {
    std::vector<const user*> listUser = {&asking, &member, &stranger};
    std::sort(listUser.begin(), listUser.end());
    do {
        std::vector<std::unique_ptr<userProcess>> listProcess;
        for (const user* pUser : listUser) {
            listProcess.push_back(std::make_unique<userProcess>(*pUser));
            expectOutcome(*pUser, *listUser[0], listProcess.back()->outcome());
        }
        if (listUser[0]->bAsks)
            expectObjectsOfGroup();
        for (const std::string& strFile : keyFiles())
            if (listUser[0]->bAsks)
                expectOfGroup(strFile);
        for (const auto& pProcess : listProcess)
            pProcess->end();
        clean();
    } while (std::next_permutation(listUser.begin(), listUser.end()));
}

TEST_F(Rights, OfEventsAndOfThePersistentCountersAreThoseOfTheDevice) {
    userProcess first(asking);
    ASSERT_EQ(0, first.outcome().nStatus);
    expectOfGroup("/tmp/qor_rights_asking");
    expectOfGroup("/tmp/home_asking/ipc_system_storage");
    first.end();
}

// With the bare calls of the kernel, past the library.
bool canDoNothing() {
    int nAllowed = 0;
    for (const std::string& strFile : keyFiles())
        nAllowed += open(strFile.c_str(), O_RDONLY) != -1 || unlink(strFile.c_str()) == 0;
    sembuf step = {0, 1, IPC_NOWAIT};
    for (const int id : idsOf("/proc/sysvipc/sem"))
        nAllowed += semop(id, &step, 1) == 0 || semctl(id, 0, GETVAL) != -1 || semctl(id, 0, SETVAL, 1) == 0 ||
                    semctl(id, 0, IPC_RMID) == 0;
    for (const int id : idsOf("/proc/sysvipc/shm"))
        nAllowed += shmat(id, NULL, SHM_RDONLY) != reinterpret_cast<void*>(-1) || shmctl(id, IPC_RMID, NULL) == 0;
    return nAllowed == 0;
}

TEST_F(Rights, AStrangerCanNeitherReadNorChangeAnything) {
    userProcess first(asking);
    ASSERT_EQ(0, first.outcome().nStatus);
    childProcess other("stranger", [] { return become(stranger) && canDoNothing() ? 0 : 1; });
    EXPECT_EQ(0, other.wait());
    // The same look finds everything open to a member.
    childProcess friendly("member", [] { return become(member) && canDoNothing() ? 1 : 0; });
    EXPECT_EQ(0, friendly.wait());
    first.end();
}

TEST_F(Rights, AMemberTalksToTheThreadsOfAnother) {
    userProcess first(asking);
    ASSERT_EQ(0, first.outcome().nStatus);
    childProcess other("member", [] {
        return become(member) && msgPostMsgToThread(msgGetThreadByName("asking"), 0x100, 0, 0) ? 0 : 1;
    });
    EXPECT_EQ(0, other.wait());
    first.end();
}

TEST_F(Rights, AStrangersKeyFileForALaterObjectIsRefused) {
    childProcess trap("stranger", [] {
        umask(0);
        return become(stranger) && open("/tmp/qor_ipc_registry", O_RDWR | O_CREAT, 0666) != -1 ? 0 : 1;
    });
    EXPECT_EQ(0, trap.wait());
    userProcess first(asking);
    const ending end = first.outcome();
    EXPECT_EQ(-SIGABRT, end.nStatus);
    EXPECT_NE(std::string::npos,
              end.strSaid.find("[/tmp/qor_ipc_registry] is no key file of this device's group: owner 61003"))
        << end.strSaid;
}

TEST_F(Rights, AUsersOwnKeyFileOfEarlierDaysIsGivenToTheGroup) {
    childProcess earlier("earlier", [] {
        umask(0);
        return become(asking) && open("/tmp/qor_ipc_system_share", O_RDWR | O_CREAT, 0666) != -1 ? 0 : 1;
    });
    EXPECT_EQ(0, earlier.wait());
    userProcess first(asking);
    EXPECT_EQ(0, first.outcome().nStatus);
    expectOfGroup("/tmp/qor_ipc_system_share");
    first.end();
}

TEST_F(Rights, AGroupThatThereIsNotOrThatTheUserIsNotInIsFatal) {
    userProcess outsider({"outsider", 61003, false, true});
    const ending end = outsider.outcome();
    EXPECT_EQ(-SIGABRT, end.nStatus);
    EXPECT_NE(std::string::npos, end.strSaid.find("qor_group: no right to give files to the group [device]"))
        << end.strSaid;
    EXPECT_EXIT((become(member), setenv("qor_group", "nobodies", 1), chEvent().OpenEvent("rights_none")),
                testing::KilledBySignal(SIGABRT), "qor_group: there is no group \\[nobodies\\]");
    EXPECT_EQ(0, system("test -z \"$(ls -A /tmp | grep qor_)\""));
}

// Task ids come back, also to another user.
TEST_F(Rights, TheEventThatADeadTaskOfAnotherUserHasLeftIsTakenOver) {
    for (const user& first : {asking, member}) {
        userProcess device(first);
        ASSERT_EQ(0, device.outcome().nStatus);
        meeting left, registered;
        childProcess successor("successor", [&] {
            left.hear();
            become(member);
            const HTHREAD hThread = msgRegistMainThread("successor", [](simpMSG*) { return -1; });
            registered.say();
            return msgDefaultThreadRun() == 7 && hThread != NULL ? 0 : 1;
        });
        const std::string strEvent = "task_event_" + std::to_string(successor.id());
        childProcess predecessor("predecessor", [&strEvent] {
            become(asking);
            unsetenv("qor_group");
            chEvent event;
            const bool bOpen = event.OpenEvent(strEvent.c_str()) && event.SetEvent();
            event.CloseEvent();
            return bOpen ? 0 : 1;
        });
        EXPECT_EQ(0, predecessor.wait());
        left.say();
        registered.hear();
        childProcess poster("poster", [] {
            become(member);
            return msgPostMsgToThread(msgGetThreadByName("successor"), TM_THREAD_QUIT, 7, 0) ? 0 : 1;
        });
        EXPECT_EQ(0, poster.wait());
        EXPECT_EQ(0, successor.wait());
        device.end();
        clean();
    }
}

// ---- a maker that is killed between the two steps

bool s_bDieBeforeOpening = false;

TEST_F(Rights, AnObjectWhoseMakerWasKilledBeforeItWasOpenIsCompletedByItsUser) {
    childProcess maker("maker", [] {
        become(asking);
        chMapFile file;
        s_bDieBeforeOpening = true;
        file.OpenMapFile("rights_killed", 100);
        return 0;
    });
    EXPECT_EQ(-SIGKILL, maker.wait());
    childProcess completer("completer", [] {
        become(asking);
        chMapFile file;
        const bool bOpen = file.OpenMapFile("rights_killed", 100) != NULL;
        file.CloseMapFile();
        return bOpen ? 0 : 1;
    });
    EXPECT_EQ(0, completer.wait());
    childProcess other("other", [] {
        become(member);
        chMapFile file;
        const bool bOpen = file.OpenMapFile("rights_killed", 100) != NULL;
        file.CloseMapFile();
        return bOpen ? 0 : 1;
    });
    EXPECT_EQ(0, other.wait());
}

}  // namespace

// The step that opens a segment to the group.
extern "C" int shmctl(int id, int nCommand, shmid_ds* pState) noexcept {
    static auto* const next = systemCall<int(int, int, shmid_ds*)>({"__shmctl64", "shmctl"});
    if (s_bDieBeforeOpening && nCommand == IPC_SET)
        raise(SIGKILL);
    return next(id, nCommand, pState);
}
