// Segments and frames between processes: exactly one construction, whichever process dies at whatever point.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/child.h"
#include "support/share_object.h"
#include "qor/BaseHelper/Share.h"

using namespace QOR_BaseHelper;
using namespace qorTest;
using QOR_ChainHelper::storeShareWord;

namespace {

class ShareProcess : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { alarm(0); }
};

enum deathPoint { dieNever, dieAtStart, dieInTheMiddle, dieBetweenHeaderWords };
deathPoint s_dieAt = dieNever;
int s_nConstructed = 0;

void ShareProcess::SetUp() {
    watch("parent");
    s_nConstructed = 0;
}

struct sampleObject : ipcObjectHeader {
    sampleObject() {
        ++s_nConstructed;
        dieIf(dieAtStart);
        storeShareWord(m_nFirst, m_nFirst + 1);
        dieIf(dieInTheMiddle);
        storeShareWord(m_nLast, m_nLast + 1);
        if (s_dieAt == dieBetweenHeaderWords) {
            storeShareWord(m_nObjectSize, 8192);
            raise(SIGKILL);
        }
        InitHeader(8192, 2002);
    }
    static void dieIf(deathPoint point) {
        if (s_dieAt == point)
            raise(SIGKILL);
    }
    int32_t m_nFirst;
    int32_t m_nLast;
    int32_t m_nOpened;
};

using sampleFrame = ipcObjectFrame<sampleObject>;
using sampleRawFrame = ipcObjectFrame<sampleObject, chRawMapFile>;

template <class Frame>
void expectFinished(const char* lpszName) {
    Frame frame;
    ASSERT_EQ(1, frame.OpenShareObject(lpszName, 8192));
    EXPECT_EQ(1, frame.getObject()->AssertHeader(lpszName, 8192, 2002));
    EXPECT_EQ(1, frame.getObject()->m_nFirst);
    EXPECT_EQ(1, frame.getObject()->m_nLast);
    EXPECT_EQ(1, frame.Lock(1000));
    frame.Unlock();
}

TEST_F(ShareProcess, OfManyOpenersAtOnceExactlyOneConstructs) {
    constexpr int nProcess = 4;
    for (int nRound = 0; nRound < 40; ++nRound) {
        meeting start;
        std::vector<childProcess> arrChild;
        for (int i = 0; i < nProcess; ++i)
            arrChild.emplace_back("opener", [&] {
                sampleFrame frame;
                start.hear();
                if (!frame.OpenShareObject("sharep_once", 8192))
                    return 50;
                sampleObject* pObject = frame.getObject();
                if (!pObject->AssertHeader("sharep_once", 8192, 2002) || !frame.Lock(-1))
                    return 60;
                storeShareWord(pObject->m_nOpened, pObject->m_nOpened + 1);
                frame.Unlock();
                return s_nConstructed;
            });
        for (int i = 0; i < nProcess; ++i)
            start.say();
        int nConstructed = 0;
        for (childProcess& child : arrChild)
            nConstructed += child.wait();
        EXPECT_EQ(1, nConstructed);
        expectFinished<sampleFrame>("sharep_once");
        sampleFrame frame;
        frame.OpenShareObject("sharep_once", 8192);
        EXPECT_EQ(nProcess, frame.getObject()->m_nOpened);
        frame.CloseShareObject();
        qorTest::removeShareObject("sharep_once");
    }
}

TEST_F(ShareProcess, ACreatorKilledBeforeTheConstructionLeavesItToTheNextOpener) {
    xFileKey key;
    const key_t nKey = key.OpenFileKey("sharep_raw", 'S');
    key.CloseFileKey();
    childProcess creator("creator", [&] {
        if (shmget(nKey, 8192, IPC_CREAT | IPC_EXCL | 0666) == -1)
            return 1;
        return raise(SIGKILL);
    });
    EXPECT_EQ(-SIGKILL, creator.wait());
    s_nConstructed = 0;
    expectFinished<sampleFrame>("sharep_raw");
    EXPECT_EQ(1, s_nConstructed);
    qorTest::removeShareObject("sharep_raw");
}

class KilledAt : public ShareProcess, public testing::WithParamInterface<deathPoint> {};

TEST_P(KilledAt, AnyPointOfTheConstructionLeavesItToTheNextOpener) {
    s_nConstructed = 0;
    childProcess creator("creator", [&] {
        s_dieAt = GetParam();
        sampleFrame frame;
        return frame.OpenShareObject("sharep_killed", 8192);
    });
    EXPECT_EQ(-SIGKILL, creator.wait());
    expectFinished<sampleFrame>("sharep_killed");
    expectFinished<sampleFrame>("sharep_killed");
    EXPECT_EQ(1, s_nConstructed);
    qorTest::removeShareObject("sharep_killed");
}

TEST_P(KilledAt, AnyPointOfTheConstructionInAFileLeavesItToTheNextOpener) {
    s_nConstructed = 0;
    childProcess creator("creator", [&] {
        s_dieAt = GetParam();
        sampleRawFrame frame;
        return frame.OpenShareObject("/tmp/sharep_file", 8192);
    });
    EXPECT_EQ(-SIGKILL, creator.wait());
    expectFinished<sampleRawFrame>("/tmp/sharep_file");
    EXPECT_EQ(1, s_nConstructed);
    chMutex mutex;
    mutex.OpenMutex("/tmp/sharep_file");
    mutex.DestroyMutex();
    unlink("/tmp/sharep_file");
}

INSTANTIATE_TEST_SUITE_P(DeathPoints, KilledAt, testing::Values(dieAtStart, dieInTheMiddle, dieBetweenHeaderWords));

TEST_F(ShareProcess, AnObjectStaysWhenEveryProcessHasGone) {
    childProcess creator("creator", [] {
        sampleFrame frame;
        if (!frame.OpenShareObject("sharep_stays", 8192))
            return 1;
        storeShareWord(frame.getObject()->m_nOpened, 77);
        return 0;
    });
    EXPECT_EQ(0, creator.wait());
    s_nConstructed = 0;
    sampleFrame frame;
    ASSERT_EQ(1, frame.OpenShareObject("sharep_stays", 8192));
    EXPECT_EQ(0, s_nConstructed);
    EXPECT_EQ(77, frame.getObject()->m_nOpened);
    frame.CloseShareObject();
    qorTest::removeShareObject("sharep_stays");
}

TEST_F(ShareProcess, AFrameLockedByAProcessThatIsKilledIsFree) {
    meeting locked;
    childProcess holder("holder", [&] {
        sampleFrame frame;
        frame.OpenShareObject("sharep_holder", 8192);
        frame.Lock(-1);
        locked.say();
        pause();
        return 0;
    });
    locked.hear();
    holder.kill();
    EXPECT_EQ(-SIGKILL, holder.wait());
    expectFinished<sampleFrame>("sharep_holder");
    qorTest::removeShareObject("sharep_holder");
}

TEST_F(ShareProcess, ARawFileOfAnotherProcessIsNotItsOwnersAgain) {
    chRawMapFile file;
    int* pData = static_cast<int*>(file.OpenMapFile("/tmp/sharep_rawfile", 4096));
    ASSERT_NE(nullptr, pData);
    childProcess child("child", [] {
        chRawMapFile other;
        int* pOther = static_cast<int*>(other.OpenMapFile("/tmp/sharep_rawfile", 4096));
        if (pOther == nullptr || other.IsCreateByMe())
            return 1;
        pOther[10] = 42;
        return 0;
    });
    EXPECT_EQ(0, child.wait());
    EXPECT_EQ(42, pData[10]);
    EXPECT_EQ(1, file.IsCreateByMe());
    file.DestroyMapFile();
}

}  // namespace
