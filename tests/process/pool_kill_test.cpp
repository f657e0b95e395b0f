// A process is killed while it changes a pool, a list, a string, a chain or the named blocks in shared memory; another
// one continues with what has been stored.
//
// On x86 a child is single-stepped. Whenever an instruction has changed the shared image, a survivor takes over a copy
// of it, so every state that a kill can leave is tested. On all platforms, children are also killed at random times.
// For the survivor, every walk must end; every block and element in use must be intact and not allocated again; a
// change of a list must be either complete or absent; and a string must be intact or empty. Memory that nobody owns,
// and backward links and flags that are one store late, may remain; both are counted.
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>

#include <random>

#include "qor/ChainHelper/CheckedChain.h"
#include "qor/ListHelper.h"
#include "qor/MsgQueueHelper/Named.h"
#include "qor/StringHelper/ShareString.h"
#include "support/child.h"
#include "support/damage.h"
#include "support/pool_reading.h"
#include "support/scale.h"

using namespace QOR_ListHelper;
using QOR_AllocHelper::baseStaticPoolAlloc;
using qorTest::poolReading;
using qorTest::scaled;

namespace {

typedef std::vector<int> values;

constexpr size_t sizeImage = 1024;

struct operation {
    unsigned uKind, uA, uB;
};

struct tally {
    int nStates = 0;      // states that a survivor has met
    int nHalfMade = 0;    // stale backward links and flags
    int nLeaked = 0;      // states with memory that nobody owns
    int nLeakedMost = 0;  // the largest number of its bytes
};

class scenario {
public:
    virtual ~scenario() = default;
    // Builds the initial state in zeroed memory.
    virtual void Build(char* pImage) = 0;
    // Makes one change, in the process that is killed.
    virtual void Act(char* pImage, const operation& op) = 0;
    // The state that must be the one before the change or the one after it.
    virtual values Describe(char* pImage) = 0;
    // Checks everything, and uses all of it.
    virtual void Survive(char* pImage, tally& result) = 0;
};

// ---- a pool and a ledger of its blocks

struct ledgerRow {
    int32_t nUsed;
    int32_t iOffset;  // from the beginning of the image
    int32_t nSize;
    int32_t nFill;
};

struct poolImage {
    baseStaticPoolAlloc pool;
    ledgerRow aRow[12];
    char aArea[600];
};
static_assert(sizeof(poolImage) <= sizeImage, "room");

// The pool after everything has been freed.
void countLeaks(baseStaticPoolAlloc& pool, tally& result) {
    EXPECT_EQ(nullptr, pool.find_big_enough_cell(100000));
    const poolReading reading(&pool);
    ASSERT_EQ("", reading.broken());
    int nBytes = 0;
    for (const qorTest::poolCell& cell : reading.cells())
        nBytes += reading.isChained(cell.nAt) ? 0 : cell.nLength;
    result.nLeaked += nBytes != 0;
    result.nLeakedMost = std::max(result.nLeakedMost, nBytes);
}

// Allocates all of the pool, block by block, and overwrites it.
std::vector<void*> takeAll(baseStaticPoolAlloc& pool) {
    std::vector<void*> listTaken;
    for (int nSize : {40, 8})
        while (pool.find_big_enough_cell(nSize) != NULL) {
            listTaken.push_back(pool.alloc(nSize));
            memset(listTaken.back(), 0xDD, static_cast<size_t>(nSize));
        }
    return listTaken;
}

// Every block in use is a used cell.
void expectOwned(const poolReading& reading, char* pImage, const void* pBlock) {
    const qorTest::poolCell* pCell = reading.find(static_cast<int>(static_cast<const char*>(pBlock) - pImage));
    ASSERT_NE(nullptr, pCell) << "what is in use is no cell";
    EXPECT_FALSE(pCell->bFree);
    EXPECT_FALSE(reading.isChained(pCell->nAt)) << "what is in use is in the free chain";
}

// Allocates all of the pool, overwrites it and frees it.
void useUp(baseStaticPoolAlloc& pool) {
    for (void* pBlock : takeAll(pool))
        pool.free(pBlock);
}

class poolScenario : public scenario {
public:
    void Build(char* pImage) override {
        poolImage* p = new (pImage) poolImage;
        memset(static_cast<void*>(p->aRow), 0, sizeof(p->aRow));
        p->pool.init_pool(p->aArea, sizeof(p->aArea));
    }
    void Act(char* pImage, const operation& op) override {
        poolImage* p = imageOf(pImage);
        ledgerRow& row = p->aRow[op.uA % 12];
        if (row.nUsed) {
            row.nUsed = 0;
            p->pool.free(pImage + row.iOffset);
            return;
        }
        const int nSize = static_cast<int>(op.uB % (op.uKind % 4 ? 30 : 120)) + 1;
        if (p->pool.find_big_enough_cell(nSize) == NULL)
            return;
        char* pBlock = static_cast<char*>(p->pool.alloc(nSize));
        memset(pBlock, static_cast<int>(op.uB), static_cast<size_t>(nSize));
        row.iOffset = static_cast<int32_t>(pBlock - pImage);
        row.nSize = nSize;
        row.nFill = static_cast<int32_t>(op.uB & 0xFF);
        QOR_ChainHelper::storeShareWord(row.nUsed, 1);
    }
    values Describe(char*) override { return values(); }
    void Survive(char* pImage, tally& result) override {
        poolImage* p = imageOf(pImage);
        const poolReading reading(&p->pool);
        ASSERT_EQ("", reading.broken());
        result.nHalfMade += reading.halfMade();
        for (const ledgerRow& row : p->aRow)
            if (row.nUsed)
                expectOwned(reading, row);
        for (const qorTest::poolCell& cell : reading.cells())
            EXPECT_TRUE(cell.bFree || !reading.isChained(cell.nAt)) << "a used cell is in the free chain";
        const std::vector<void*> listTaken = takeAll(p->pool);
        for (const ledgerRow& row : p->aRow)
            for (int i = 0; row.nUsed && i < row.nSize; ++i)
                ASSERT_EQ(row.nFill, static_cast<unsigned char>(pImage[row.iOffset + i]))
                    << "a used block was handed out";
        for (void* pBlock : listTaken)
            p->pool.free(pBlock);
        for (const ledgerRow& row : p->aRow)
            if (row.nUsed)
                p->pool.free(pImage + row.iOffset);
        countLeaks(p->pool, result);
    }

private:
    static poolImage* imageOf(char* pImage) { return reinterpret_cast<poolImage*>(pImage); }
    static void expectOwned(const poolReading& reading, const ledgerRow& row) {
        const qorTest::poolCell* pCell = reading.find(row.iOffset);
        ASSERT_NE(nullptr, pCell) << "a used block is no cell";
        EXPECT_FALSE(pCell->bFree);
        EXPECT_FALSE(reading.isChained(pCell->nAt)) << "a used block is in the free chain";
        EXPECT_GE(pCell->size(), row.nSize);
    }
};

// ---- a list and a map

struct listImage {
    baseStaticPoolAlloc pool;
    chObjList_pool_share<int> list;
    chMapList_pool_share<int, int> map;
    char aArea[900];
};
static_assert(sizeof(listImage) <= sizeImage, "room");

class listScenario : public scenario {
public:
    void Build(char* pImage) override {
        listImage* p = new (pImage) listImage;
        p->pool.init_pool(p->aArea, sizeof(p->aArea));
        p->list.InitPool(&p->pool);
        p->map.InitPool(&p->pool);
    }
    void Act(char* pImage, const operation& op) override {
        listImage* p = imageOf(pImage);
        const int nValue = static_cast<int>(op.uB % 1000);
        const auto it = p->list.begin() + static_cast<int>(op.uA % static_cast<unsigned>(p->list.size() + 1));
        switch (p->list.size() < 10 ? op.uKind % 8 : op.uKind % 5) {
            case 0:
                p->list.erase(it);
                break;
            case 1:
                p->list.pop_back();
                break;
            case 2:
                p->list.pop_front();
                break;
            case 3:
                p->map[nValue % 8] = nValue;
                break;
            case 4:
                p->map.erase(p->map.find_key(nValue % 8));
                break;
            case 5:
                p->list.push_back(nValue);
                break;
            case 6:
                p->list.push_front(nValue);
                break;
            default:
                p->list.insert(it, nValue);
        }
    }
    // The list's values and the map's keys.
    values Describe(char* pImage) override {
        listImage* p = imageOf(pImage);
        values list;
        p->list.find_if([&](int n) { return list.push_back(n), false; });
        list.push_back(-1);
        p->map.find_if([&](const pair_type<int, int>& r) { return list.push_back(r.key), false; });
        return list;
    }
    void Survive(char* pImage, tally& result) override {
        listImage* p = imageOf(pImage);
        const values listBefore = Describe(pImage);
        const poolReading reading(&p->pool);
        ASSERT_EQ("", reading.broken());
        result.nHalfMade += reading.halfMade();
        for (auto it = p->list.begin(); it != p->list.end(); ++it)
            expectOwned(reading, pImage, it.m_pThisNode);
        for (auto it = p->map.begin(); it != p->map.end(); ++it)
            expectOwned(reading, pImage, it.m_pThisNode);
        expectSameBackwards(p->list, listBefore);
        useUp(p->pool);
        ASSERT_EQ(listBefore, Describe(pImage)) << "an element was handed out";
        for (int i = 0; !p->list.empty(); ++i)
            i % 3 == 0 ? p->list.pop_front() : p->list.pop_back();
        p->map.clear();
        EXPECT_EQ(values{-1}, Describe(pImage));
        countLeaks(p->pool, result);
    }

private:
    static listImage* imageOf(char* pImage) { return reinterpret_cast<listImage*>(pImage); }
    static void expectSameBackwards(const chObjList_pool_share<int>& list, const values& listForward) {
        values listBackward;
        for (auto it = list.tail(); it != list.end() && listBackward.size() < 100; --it)
            listBackward.insert(listBackward.begin(), *it);
        listBackward.push_back(-1);
        EXPECT_EQ(listBackward, values(listForward.begin(), std::find(listForward.begin(), listForward.end(), -1) + 1));
    }
};

// ---- strings

struct stringImage {
    baseStaticPoolAlloc pool;
    QOR_StringHelper::chShareStringA aText[4];
    char aArea[800];
};
static_assert(sizeof(stringImage) <= sizeImage, "room");

class stringScenario : public scenario {
public:
    void Build(char* pImage) override {
        stringImage* p = new (pImage) stringImage;
        p->pool.init_pool(p->aArea, sizeof(p->aArea));
        for (QOR_StringHelper::chShareStringA& str : p->aText)
            str.InitPool(&p->pool);
    }
    void Act(char* pImage, const operation& op) override {
        stringImage* p = imageOf(pImage);
        const std::string strText = textOf(op.uB % 45);
        if (p->pool.find_big_enough_cell(60) != NULL)
            p->aText[op.uA % 4] = QOR_StringHelper::chConstTextT<char>(strText.c_str(), -1);
    }
    // Between the old text and the new one, a string is empty.
    values Describe(char*) override { return values(); }
    void Survive(char* pImage, tally& result) override {
        stringImage* p = imageOf(pImage);
        const poolReading reading(&p->pool);
        ASSERT_EQ("", reading.broken());
        result.nHalfMade += reading.halfMade();
        for (int i = 0; i < 2; ++i) {
            for (QOR_StringHelper::chShareStringA& str : p->aText) {
                EXPECT_EQ(textOf(static_cast<unsigned>(str.GetLength())), static_cast<const char*>(str));
                if (i == 0 && str.get_Text() != NULL)
                    expectOwned(reading, pImage, str.get_Text());
            }
            useUp(p->pool);
        }
        for (QOR_StringHelper::chShareStringA& str : p->aText)
            str = QOR_StringHelper::chConstTextT<char>();
        countLeaks(p->pool, result);
    }

private:
    static stringImage* imageOf(char* pImage) { return reinterpret_cast<stringImage*>(pImage); }
    // Its character implies its length.
    static std::string textOf(unsigned nLength) { return std::string(nLength, static_cast<char>('a' + nLength % 26)); }
};

// ---- named blocks

struct namedImage {
    baseStaticPoolAlloc pool;
    QOR_MsgQueueHelper::chNamedObjectManager manager;
    char aArea[900];
};
static_assert(sizeof(namedImage) <= sizeImage, "room");

class namedScenario : public scenario {
public:
    void Build(char* pImage) override {
        namedImage* p = new (pImage) namedImage;
        p->pool.init_pool(p->aArea, sizeof(p->aArea));
        p->manager.InitManager(&p->pool);
    }
    void Act(char* pImage, const operation& op) override {
        namedImage* p = imageOf(pImage);
        const char* lpszName = s_arrName[op.uA % nNames];
        if (op.uKind % 2 && p->manager.FindNamedObject(lpszName) != NULL)
            p->manager.FreeNamedObject(lpszName);
        else if (p->pool.find_big_enough_cell(100) != NULL)  // for the record and its name
            p->manager.GetNamedObject(lpszName, static_cast<int>(4 + op.uB % 12), NULL);
    }
    // The existing names.
    values Describe(char* pImage) override {
        values list;
        for (int i = 0; i < nNames; ++i)
            if (imageOf(pImage)->manager.FindNamedObject(s_arrName[i]) != NULL)
                list.push_back(i);
        return list;
    }
    void Survive(char* pImage, tally& result) override {
        namedImage* p = imageOf(pImage);
        const values listBefore = Describe(pImage);
        const poolReading reading(&p->pool);
        ASSERT_EQ("", reading.broken());
        result.nHalfMade += reading.halfMade();
        for (int i : listBefore)
            expectOwned(reading, pImage, static_cast<char*>(p->manager.FindNamedObject(s_arrName[i])) - 16);
        useUp(p->pool);
        ASSERT_EQ(listBefore, Describe(pImage)) << "a record was handed out";
        for (const char* lpszName : s_arrName)
            p->manager.FreeNamedObject(lpszName);
        EXPECT_EQ(values(), Describe(pImage));
        countLeaks(p->pool, result);
    }

private:
    static constexpr int nNames = 5;
    static constexpr const char* s_arrName[nNames] = {"timer", "a", "device_state", "zz", "meeting"};
    static namedImage* imageOf(char* pImage) { return reinterpret_cast<namedImage*>(pImage); }
};

// ---- a chain of records that are not allocated

struct chainImage {
    list_chain_offset vHead;
    struct record {
        list_chain_offset vLink;
        int32_t nNumber;
    } aRecord[8];
};

class chainScenario : public scenario {
public:
    void Build(char* pImage) override {
        chainImage* p = new (pImage) chainImage;
        memset(static_cast<void*>(p), 0xFF, sizeof(*p));
        QOR_ChainHelper::link_list_node(&p->vHead, &p->vHead);
        for (int i = 0; i < 8; ++i)
            p->aRecord[i].nNumber = i;
    }
    void Act(char* pImage, const operation& op) override {
        const auto chain = chainOf(pImage);
        list_chain_offset* pRecord = link(pImage, op.uA);
        list_chain_offset* pOther = link(pImage, op.uB);
        if (chain.Holds(pRecord))
            chain.Unlink(pRecord);
        else if (op.uKind % 2)
            chain.InsertBefore(chain.Holds(pOther) ? pOther : NULL, pRecord);
        else
            chain.InsertAfter(chain.Holds(pOther) ? pOther : NULL, pRecord);
    }
    values Describe(char* pImage) override {
        values list;
        chainOf(pImage).Find([&](list_chain_offset* p) { return list.push_back(numberOf(p)), false; });
        return list;
    }
    void Survive(char* pImage, tally&) override {
        const auto chain = chainOf(pImage);
        values listForward = Describe(pImage), listBackward;
        chain.FindLast([&](list_chain_offset* p) { return listBackward.push_back(numberOf(p)), false; });
        EXPECT_EQ(values(listForward.rbegin(), listForward.rend()), listBackward);
        for (unsigned i : {3u, 0u, 7u, 5u}) {
            chain.Unlink(link(pImage, i));
            listForward.erase(std::remove(listForward.begin(), listForward.end(), static_cast<int>(i)),
                              listForward.end());
            ASSERT_EQ(listForward, Describe(pImage));
        }
        while (list_chain_offset* pLast = chain.Last())
            chain.Unlink(pLast);
        for (unsigned i = 0; i < 8; ++i)
            chain.InsertBefore(NULL, link(pImage, i));
        EXPECT_EQ((values{0, 1, 2, 3, 4, 5, 6, 7}), Describe(pImage));
    }

private:
    static QOR_ChainHelper::shareChain chainOf(char* pImage) {
        return QOR_ChainHelper::shareChain(&reinterpret_cast<chainImage*>(pImage)->vHead, sizeof(chainImage::record),
                                           "_chTest");
    }
    static list_chain_offset* link(char* pImage, unsigned i) {
        return &reinterpret_cast<chainImage*>(pImage)->aRecord[i % 8].vLink;
    }
    static int numberOf(const list_chain_offset* p) { return reinterpret_cast<const chainImage::record*>(p)->nNumber; }
};

// ---- killing

class Kill : public testing::Test {
protected:
    Kill() {
        void* p = mmap(nullptr, 2 * sizePage, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED)
            abort();
        m_pImage = static_cast<char*>(p);
        m_pnProgress = reinterpret_cast<int32_t*>(m_pImage + sizePage);
        QOR_ChainHelper::registShareRange(m_pImage, sizeImage);
    }
    ~Kill() override {
        QOR_ChainHelper::unregistShareRange(m_pImage);
        munmap(m_pImage, 2 * sizePage);
    }

    void start(scenario& s) {
        memset(m_pImage, 0, 2 * sizePage);
        s.Build(m_pImage);
    }
    std::vector<operation> plan(unsigned uSeed, int nOperations) {
        std::mt19937 random(qorTest::seed(uSeed));
        std::vector<operation> list;
        for (int i = 0; i < nOperations; ++i)
            list.push_back(
                {static_cast<unsigned>(random()), static_cast<unsigned>(random()), static_cast<unsigned>(random())});
        return list;
    }
    // A survivor takes over a copy of the current image, at another address, as another process would map it.
    void takeOver(scenario& s) {
        ++m_tally.nStates;
        memcpy(m_copy.begin(), m_pImage, sizeImage);
        s.Survive(m_copy.begin(), m_tally);
    }
    values describe(scenario& s) {
        memcpy(m_copy.begin(), m_pImage, sizeImage);
        return s.Describe(m_copy.begin());
    }
    void print(const char* lpszHow) const {
        printf("%s: %d states, %d stale links or flags, %d states with memory that nobody owns (at most %d bytes)\n",
               lpszHow, m_tally.nStates, m_tally.nHalfMade, m_tally.nLeaked, m_tally.nLeakedMost);
    }

    // Lets the child execute one instruction; whether it is still alive.
    static bool stepOnce(pid_t idChild) {
        int nStatus = 0;
        return ptrace(PTRACE_SINGLESTEP, idChild, 0, 0) == 0 && waitpid(idChild, &nStatus, 0) == idChild &&
               WIFSTOPPED(nStatus) && WSTOPSIG(nStatus) == SIGTRAP;
    }

    pid_t forkStopped(scenario& s, const std::vector<operation>& listPlan) {
        fflush(NULL);
        const pid_t idChild = fork();
        if (idChild == 0) {
            if (ptrace(PTRACE_TRACEME, 0, 0, 0) != 0)
                _exit(77);
            raise(SIGSTOP);
            for (const operation& op : listPlan) {
                s.Act(m_pImage, op);
                ++*m_pnProgress;
            }
            _exit(0);
        }
        int nStatus = 0;
        waitpid(idChild, &nStatus, 0);
        EXPECT_TRUE(WIFSTOPPED(nStatus)) << "the kernel refuses to trace a child: PTRACE_TRACEME must be allowed";
        return WIFSTOPPED(nStatus) ? idChild : -1;
    }

    // Tests every state between two stores of a sequence of changes.
    void KillAtEveryStore(scenario& s, unsigned uSeed, int nOperations) {
        start(s);
        const std::vector<operation> listPlan = plan(uSeed, nOperations);
        const pid_t idChild = forkStopped(s, listPlan);
        if (idChild == -1)
            return;
        char aLast[sizeImage];
        memcpy(aLast, m_pImage, sizeImage);
        std::vector<values> listMet{describe(s)};
        int32_t nProgress = 0;
        while (nProgress < nOperations && !HasFailure() && stepOnce(idChild)) {
            if (memcmp(aLast, m_pImage, sizeImage) != 0) {
                memcpy(aLast, m_pImage, sizeImage);
                listMet.push_back(describe(s));
                takeOver(s);
            }
            if (*m_pnProgress == nProgress)
                continue;
            // One change is complete: every state in between was the one before it or the one after it.
            const values listBefore = listMet.front(), listAfter = listMet.back();
            for (const values& list : listMet)
                EXPECT_TRUE(list == listBefore || list == listAfter) << "change " << nProgress;
            listMet.assign(1, listAfter);
            ++nProgress;
        }
        EXPECT_EQ(nOperations, nProgress) << "after " << m_tally.nStates << " states";
        kill(idChild, SIGKILL);
        waitpid(idChild, NULL, 0);
    }

    // Kills children at random times. A few of them in a row continue with the same image.
    void KillAtRandomTimes(scenario& s, unsigned uSeed, int nRounds) {
        std::mt19937 random(uSeed);
        for (int i = 0; i < nRounds && !HasFailure(); ++i) {
            if (i % 8 == 0)
                start(s);
            const std::vector<operation> listPlan = plan(uSeed + static_cast<unsigned>(i), 500);
            qorTest::meeting meetRunning;
            qorTest::childProcess child("to be killed", [&] {
                meetRunning.say();
                for (size_t iOperation = 0;; iOperation = (iOperation + 1) % listPlan.size())
                    s.Act(m_pImage, listPlan[iOperation]);
                return 0;
            });
            meetRunning.hear();
            usleep(static_cast<useconds_t>(random() % 2000));
            child.kill();
            EXPECT_EQ(-SIGKILL, child.wait());
            takeOver(s);
        }
    }

    void KillEverywhere(const char* lpszName, scenario& s, int nOperations) {
#if defined(__x86_64__) || defined(__i386__)
        KillAtEveryStore(s, 71, nOperations);
        print((std::string(lpszName) + ", killed at every store").c_str());
        EXPECT_GT(m_tally.nStates, nOperations);
        m_tally = tally();
#else
        (void)nOperations;
#endif
        KillAtRandomTimes(s, 72, scaled(40));
        print((std::string(lpszName) + ", killed at random times").c_str());
    }

    static constexpr size_t sizePage = 4096;
    char* m_pImage;
    int32_t* m_pnProgress;
    qorTest::guardedSegment m_copy{1};
    tally m_tally;
};

TEST_F(Kill, APoolGoesOnWithWhatWasStored) {
    poolScenario s;
    KillEverywhere("pool", s, scaled(18));
}

TEST_F(Kill, AListChangesCompletelyOrNotAtAll) {
    listScenario s;
    KillEverywhere("list and map", s, scaled(8));
}

TEST_F(Kill, AStringIsWholeOrEmpty) {
    stringScenario s;
    KillEverywhere("strings", s, scaled(10));
}

TEST_F(Kill, NamedBlocksChangeCompletelyOrNotAtAll) {
    namedScenario s;
    KillEverywhere("named blocks", s, scaled(8));
}

TEST_F(Kill, AChainChangesCompletelyOrNotAtAll) {
    chainScenario s;
    KillEverywhere("chain", s, scaled(8));
}

}  // namespace
