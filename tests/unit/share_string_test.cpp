// Strings in a shared pool: their layout, their use of the pool, access by several processes, and damage.
#include "qor/BaseHelper.h"
#include "support/child.h"
#include "support/far_memory.h"
#include "support/text.h"
#include "support/fatal.h"

using namespace QOR_AllocHelper;
using namespace QOR_StringHelper;

namespace {

typedef chConstTextT<char> view;

// A pool, its area and some strings in it, laid out as in a segment.
struct record {
    baseStaticPoolAlloc m_pool;
    chShareStringA m_arrText[3];
    alignas(4) char m_aPool[2048];

    record() {
        m_pool.init_pool(m_aPool, sizeof(m_aPool));
        for (chShareStringA& str : m_arrText)
            str.InitPool(&m_pool);
    }
    // Whether the pool is one free cell again, after an unsuccessful search has merged all free neighbours.
    bool isWhole() {
        return m_pool.find_big_enough_cell(sizeof(m_aPool) + 1) == nullptr && m_pool.begin_cell()->is_free_cell() &&
               m_pool.begin_cell()->get_pRight() == m_pool.end_cell();
    }
    // The words of a string: pool, text.
    int32_t& word(int iText, int iWord) { return reinterpret_cast<int32_t*>(&m_arrText[iText])[iWord]; }
};

// A record in a segment of its own.
class ShareString : public testing::Test {
protected:
    ShareString() : m_pRecord(new (m_file.OpenMapFile("share_string", sizeof(record))) record) {}
    ~ShareString() override {
        m_pRecord->~record();
        m_file.DestroyMapFile();
    }

    QOR_BaseHelper::chMapFile m_file;
    record* m_pRecord;
};

TEST_F(ShareString, IsTwoWordsThePoolAndTheText) {
    chShareStringA& str = m_pRecord->m_arrText[0];
    EXPECT_EQ(8u, sizeof(str));
    EXPECT_EQ(reinterpret_cast<char*>(&m_pRecord->m_pool) - reinterpret_cast<char*>(&str), m_pRecord->word(0, 0));
    EXPECT_EQ(-1, m_pRecord->word(0, 1));
    EXPECT_EQ(nullptr, str.get_Text());
    str = view("abc");
    const char* pText = reinterpret_cast<const char*>(&str) + m_pRecord->word(0, 1);
    EXPECT_EQ(reinterpret_cast<const char*>(str.get_Text()), pText);
    EXPECT_EQ(3, *reinterpret_cast<const int32_t*>(pText));
    EXPECT_STREQ("abc", pText + 4);
}

TEST_F(ShareString, ItsBlockHasEightBytesMoreThanItsText) {
    for (int nLength : {1, 4, 21, 300}) {
        m_pRecord->m_arrText[0] = view(std::string(static_cast<size_t>(nLength), 'x').c_str());
        const int nSize = poll_chain::get_pCell(m_pRecord->m_arrText[0].get_Text())->get_nPoolSize();
        EXPECT_GE(nSize, nLength + 8);
        EXPECT_LT(nSize, nLength + 8 + 16) << "rounded, or with a rest too small for a cell of its own";
    }
}

TEST_F(ShareString, WithoutABlockItIsTheEmptyText) {
    const chShareStringA& str = m_pRecord->m_arrText[0];
    EXPECT_EQ(szNULL, static_cast<const char*>(str));
    EXPECT_EQ(0, str.GetLength());
}

TEST_F(ShareString, CopiesAllOfAViewAndNoMore) {
    chShareStringA& str = m_pRecord->m_arrText[0];
    str = view("sampler", 4);
    EXPECT_STREQ("samp", str);
    EXPECT_EQ(4, str.GetLength());
    str = view("a longer text than the one before");
    EXPECT_STREQ("a longer text than the one before", str);
    EXPECT_EQ(33, str.GetLength());
}

TEST_F(ShareString, AnEmptyTextHasNoBlock) {
    chShareStringA& str = m_pRecord->m_arrText[0];
    str = view("abc");
    str = view("");
    EXPECT_EQ(nullptr, str.get_Text());
    EXPECT_EQ(-1, m_pRecord->word(0, 1));
    EXPECT_TRUE(m_pRecord->isWhole());
}

TEST_F(ShareString, AnEmptyTextNeedsNoPool) {
    chShareStringA str;
    str = view("");
    EXPECT_EQ(0, str.GetLength());
    EXPECT_EXIT(str = view("abc"), testing::KilledBySignal(SIGABRT),
                qorTest::reportOf("_chAlloc", "get_pPool() != NULL"));
}

TEST_F(ShareString, EveryAssignmentFreesTheOldBlock) {
    EXPECT_TRUE(m_pRecord->isWhole());
    for (int i = 0; i < 200; ++i)
        m_pRecord->m_arrText[i % 3] = view(std::string(static_cast<size_t>(i * 7 % 400), 'x').c_str());
    EXPECT_FALSE(m_pRecord->isWhole());
    for (chShareStringA& str : m_pRecord->m_arrText)
        str = view();
    EXPECT_TRUE(m_pRecord->isWhole());
}

TEST_F(ShareString, DestructionFreesTheBlock) {
    chShareStringA& str = m_pRecord->m_arrText[1];
    str = view("abc");
    str.~chShareStringA();
    EXPECT_TRUE(m_pRecord->isWhole());
    new (&str) chShareStringA;
}

TEST_F(ShareString, PartOfItsOwnTextMayBeAssigned) {
    chShareStringA& str = m_pRecord->m_arrText[0];
    str = view("a text of some length");
    str = view(str, str.GetLength());
    EXPECT_STREQ("a text of some length", str);
    str = view(str + 2, 4);
    EXPECT_STREQ("text", str);
    str = view(str + 4, 0);
    EXPECT_EQ(0, str.GetLength());
    EXPECT_TRUE(m_pRecord->isWhole());
}

TEST_F(ShareString, ABlockCanBeMovedToAnotherString) {
    chShareStringA* arrText = m_pRecord->m_arrText;
    arrText[0] = view("abc");
    chShareTextA* pText = arrText[0].get_Text();
    arrText[0].set_Text(nullptr);
    arrText[1].set_Text(pText);
    EXPECT_EQ(0, arrText[0].GetLength());
    EXPECT_STREQ("abc", arrText[1]);
    EXPECT_EQ(pText, arrText[1].get_Text());
}

TEST_F(ShareString, IsComparedByItsCharacters) {
    chShareStringA &str = m_pRecord->m_arrText[0], &strOther = m_pRecord->m_arrText[1];
    str = view("abc");
    strOther = view("abc");
    const std::string strSame = "abc";
    EXPECT_TRUE(str == strOther && str == strSame.c_str() && strSame.c_str() == str && str == view("abcd", 3));
    strOther = view("abd");
    EXPECT_TRUE(str != strOther && str < strOther && strOther > str && str <= "abc" && "abb" < str);
    EXPECT_TRUE(str == chReferenceStringT<char>("abc"));
}

TEST_F(ShareString, ALengthBeyondTheLargestSizeIsFatal) {
    EXPECT_EXIT(m_pRecord->m_arrText[0] = view("abc", 0x7FFFFFFF), testing::KilledBySignal(SIGABRT),
                qorTest::reportOf("_chAlloc", "nAllocSize > 0"));
}

TEST_F(ShareString, AFullPoolIsFatal) {
    const std::string strLarge(3000, 'x');
    EXPECT_EXIT(m_pRecord->m_arrText[0] = view(strLarge.c_str()), testing::KilledBySignal(SIGABRT),
                qorTest::reportOf("_chAlloc", "pResultCell != NULL"));
}

TEST_F(ShareString, IsReadAndWrittenInEveryProcessThatMapsTheSegment) {
    m_pRecord->m_arrText[0] = view("from the parent");
    m_pRecord->m_arrText[1] = view("old");
    qorTest::childProcess child("other", [] {
        QOR_BaseHelper::chMapFile file;
        record* pRecord = static_cast<record*>(file.OpenMapFile("share_string", sizeof(record)));
        const bool bRead = strcmp("from the parent", pRecord->m_arrText[0]) == 0;
        pRecord->m_arrText[1] = view("from the child, and longer than what was there");
        file.CloseMapFile();
        return bRead ? 0 : 1;
    });
    EXPECT_EQ(0, child.wait());
    EXPECT_STREQ("from the child, and longer than what was there", m_pRecord->m_arrText[1]);
    for (chShareStringA& str : m_pRecord->m_arrText)
        str = view();
    EXPECT_TRUE(m_pRecord->isWhole());
}

TEST_F(ShareString, ADamagedLinkOrLengthIsFatalAndNotFollowed) {
    const chShareStringA& str = m_pRecord->m_arrText[0];
    m_pRecord->m_arrText[0] = view("abc");
    // The child process that the damage ends shares the memory with this one, which repairs it.
    const auto expectBroken = [&str](int32_t& nWord, int32_t nValue) {
        const int32_t nSound = nWord;
        nWord = nValue;
        EXPECT_FATAL("_chString", str.GetLength(), "broken share string");
        nWord = nSound;
        EXPECT_STREQ("abc", str);
    };
    int32_t& iText = m_pRecord->word(0, 1);
    for (int32_t iBroken : {iText + 1, 0x7FFFFFF0, -0x7FFFFFF0, static_cast<int32_t>(sizeof(record)) + 4096})
        expectBroken(iText, iBroken);
    for (int32_t nBroken : {-1, 0x7FFFFFFF, 2})
        expectBroken(str.get_Text()->m_nLength, nBroken);
}

TEST(ShareStringHeap, WorksInAPoolOfOneProcessToo) {
    record vRecord;
    vRecord.m_arrText[2] = view("abc");
    EXPECT_STREQ("abc", vRecord.m_arrText[2]);
    vRecord.m_arrText[2] = view();
    EXPECT_TRUE(vRecord.isWhole());
}

TEST(ShareStringHeap, TheExampleOfItsHeaderWorks) {
    struct {
        baseStaticPoolAlloc pool;
        chShareStringA strName;
        alignas(4) char aPool[256];
    } vRecord, *pRecord = &vRecord;
    baseStaticPoolAlloc* pPool = &vRecord.pool;
    pPool->init_pool(vRecord.aPool, sizeof(vRecord.aPool));
    pRecord->strName.InitPool(pPool);
    pRecord->strName = QOR_StringHelper::chConstTextT<char>("sampler");
    EXPECT_STREQ("sampler", pRecord->strName);
    EXPECT_EQ(7, pRecord->strName.GetLength());
}

TEST(ShareStringHeap, ItsBlockIsTheLengthAndTheText) {
    record vRecord;
    vRecord.m_arrText[0] = view("sampler");
    const QOR_StringHelper::chShareTextA* const pText = vRecord.m_arrText[0].get_Text();
    EXPECT_EQ(7, pText->m_nLength);
    EXPECT_EQ(static_cast<const char*>(vRecord.m_arrText[0]), pText->m_szText);
    EXPECT_EQ(reinterpret_cast<const char*>(pText) + 4, pText->m_szText);
    vRecord.m_arrText[0] = view();
}

#ifdef QOR_TEST_FAR_MEMORY
TEST(FarShareString, ATextMoreThanTwoGibibytesAwayIsFatal) {
    const qorTest::farMemory memory;
    chShareStringA* pString = new (memory.low()) chShareStringA;
    EXPECT_EXIT(pString->set_Text(reinterpret_cast<chShareTextA*>(memory.high())), testing::KilledBySignal(SIGABRT),
                "\\[_chChain:[0-9]+\\] the distance fits into 32 bits ");
    EXPECT_EQ(0, pString->GetLength());
}
#endif

}  // namespace
