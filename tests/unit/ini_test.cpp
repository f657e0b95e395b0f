// INI documents in memory: what a line is, entries, look-ups by name, values.
#include "qor/FileHelper/Ini.h"

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "qor/FileHelper/File.h"

using namespace QOR_FileHelper;
using namespace QOR_StringHelper;

namespace {

std::string textOf(const chConstTextT<char>& text) {
    return std::string(static_cast<const char*>(text), static_cast<size_t>(text.GetLength()));
}

// A parsed line as "type name=value".
std::string parsed(const char* lpszLine) {
    phraseConstTextA name, value;
    const iniLineType eType = iniFile::ParseIniLineText(lpszLine, name, value);
    const std::string strType = std::to_string(static_cast<int>(eType));
    if (eType == iniLineKey)
        return strType + " " + textOf(name) + "=" + textOf(value);
    return eType == iniLineSection ? strType + " " + textOf(name) : strType;
}

// What an operation writes to a file.
std::string written(const std::function<BOOL(chFileStdio&)>& write) {
    FILE* pStream = tmpfile();
    chFileStdio file(pStream);
    EXPECT_EQ(1, write(file));
    fflush(pStream);
    std::string strText(static_cast<size_t>(ftell(pStream)), 0);
    rewind(pStream);
    EXPECT_EQ(strText.size(), fread(&strText[0], 1, strText.size(), pStream));
    return strText;
}

std::string exported(iniObject& object) {
    return written([&](chFileStdio& file) { return object.exportObject(file); });
}

std::string exportedList(const iniObjList& list) {
    return written([&](chFileStdio& file) { return list.ExportToFile(file); });
}

// An entry that counts its instances.
class countedObject : public iniObject {
public:
    explicit countedObject(const char* lpszName) : iniObject(iniLineKey, lpszName) { ++s_nAlive; }
    ~countedObject() override { --s_nAlive; }
    BOOL exportObject(chFileStdio&) override { return 1; }
    static int s_nAlive;
};
int countedObject::s_nAlive = 0;

// ---- lines

TEST(IniLine, TheNumbersAreFixed) {
    EXPECT_EQ(0, iniLineInvalid);
    EXPECT_EQ(1, iniLineComment);
    EXPECT_EQ(2, iniLineKey);
    EXPECT_EQ(3, iniLineSection);
    EXPECT_EQ(4, iniLineEmpty);
}

TEST(IniLine, NothingButWhiteSpaceIsAnEmptyLine) {
    EXPECT_EQ("4", parsed(""));
    EXPECT_EQ("4", parsed("\n"));
    EXPECT_EQ("4", parsed(" \t\n\v\f\r"));
}

TEST(IniLine, ACommentBeginsWithASemicolonOrAHash) {
    EXPECT_EQ("1", parsed("; a = b\n"));
    EXPECT_EQ("1", parsed(" \t#[x]"));
    EXPECT_EQ("1", parsed(";"));
}

TEST(IniLine, ASectionIsTheTrimmedTextBetweenBrackets) {
    EXPECT_EQ("3 Net", parsed("  [ Net ]  ; x"));
    EXPECT_EQ("3 Net", parsed("[Net]\r\n"));
    EXPECT_EQ("3 Net work", parsed("[\tNet work\v]junk]"));
    EXPECT_EQ("3 [a", parsed("[[a]]"));
    EXPECT_EQ("3 a=b;c", parsed("[a=b;c]"));
}

TEST(IniLine, ASectionMayHaveAnEmptyName) {
    EXPECT_EQ("3 ", parsed("[]"));
    EXPECT_EQ("3 ", parsed("[  \t]\n"));
}

TEST(IniLine, ABracketThatIsNotClosedIsInvalid) {
    EXPECT_EQ("0", parsed("[Net\n"));
    EXPECT_EQ("0", parsed("["));
    EXPECT_EQ("0", parsed("[ \r\n"));
    EXPECT_EQ("0", parsed("[a = b"));
}

TEST(IniLine, AKeyIsSplitAtTheFirstEqualSignAndTrimmed) {
    EXPECT_EQ("2 key=value", parsed("key=value"));
    EXPECT_EQ("2 key=value", parsed("key = value\n"));
    EXPECT_EQ("2 my key=my value", parsed("\t my key\t=\vmy value \r\n"));
    EXPECT_EQ("2 a=b=c", parsed("a=b=c"));
    EXPECT_EQ("2 x]=[y", parsed("x]=[y"));
}

TEST(IniLine, AValueMayBeEmptyAndSoMayAName) {
    EXPECT_EQ("2 key=", parsed("key ="));
    EXPECT_EQ("2 key=", parsed("key = \r\n"));
    EXPECT_EQ("2 =value", parsed("=value"));
    EXPECT_EQ("2 =", parsed(" = "));
}

TEST(IniLine, ThereAreNoTrailingComments) {
    EXPECT_EQ("2 a=b ; c", parsed("a = b ; c\n"));
    EXPECT_EQ("2 a # b=c", parsed("a # b = c"));
    EXPECT_EQ("0", parsed("x ; c\n"));
}

TEST(IniLine, AWordWithoutAnEqualSignIsInvalid) {
    EXPECT_EQ("0", parsed("word"));
    EXPECT_EQ("0", parsed("]"));
    EXPECT_EQ("0", parsed("\xff\xfe[\n"));
}

TEST(IniLine, ParsingALineWarnsOfNothing) {
    testing::internal::CaptureStderr();
    parsed(" [ a ] ");
    parsed(" a = b ");
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(IniLine, NameAndValueAreEmptyWhereALineHasNone) {
    phraseConstTextA name("n"), value("v");
    EXPECT_EQ(iniLineComment, iniFile::ParseIniLineText("; a=b", name, value));
    EXPECT_EQ(0, name.GetLength());
    EXPECT_EQ(0, value.GetLength());
    name = value = phraseConstTextA("x");
    EXPECT_EQ(iniLineInvalid, iniFile::ParseIniLineText("word", name, value));
    EXPECT_EQ(0, name.GetLength());
    name = value = phraseConstTextA("x");
    EXPECT_EQ(iniLineSection, iniFile::ParseIniLineText("[s]=1", name, value));
    EXPECT_EQ(0, value.GetLength());
}

TEST(IniLine, ANullLineIsFatal) {
    phraseConstTextA name, value;
    EXPECT_EXIT(iniFile::ParseIniLineText(nullptr, name, value), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] lpszLineText != NULL ");
}

// ---- entries

TEST(IniComment, IsWrittenAsItIs) {
    iniComment comment("  ; text \r\n");
    EXPECT_EQ(iniLineComment, comment.type());
    EXPECT_TRUE(comment.key().IsEmpty());
    EXPECT_STREQ("  ; text \r\n", comment.text());
    EXPECT_EQ("  ; text \r\n", exported(comment));
}

TEST(IniComment, KeepsBytesOfAnyValue) {
    const char szLine[] = "; a\0b\0\n";
    iniComment comment(szLine, 7);
    EXPECT_EQ(std::string(szLine, 7), exported(comment));
}

TEST(IniComment, MayBeEmpty) {
    iniComment commentNull(nullptr), commentEmpty("");
    EXPECT_EQ("", exported(commentNull));
    EXPECT_EQ("", exported(commentEmpty));
}

TEST(IniKey, IsWrittenWithOneBlankOnEachSideOfTheEqualSign) {
    iniKey key("name");
    EXPECT_EQ(iniLineKey, key.type());
    EXPECT_STREQ("name", key.key());
    EXPECT_EQ("name = \n", exported(key));
    key.SetValue("my value");
    EXPECT_EQ("name = my value\n", exported(key));
}

TEST(IniKey, TheFirstAssignmentIsAChangeEvenOfAnEmptyValue) {
    iniKey key("name");
    EXPECT_STREQ("", key.value());
    EXPECT_EQ(1, key.SetValue(""));
    EXPECT_EQ(0, key.SetValue(""));
    EXPECT_EQ(1, key.SetValue("a"));
    EXPECT_EQ(0, key.SetValue("a"));
    EXPECT_EQ(1, key.SetValue("A"));
    EXPECT_STREQ("A", key.value());
}

TEST(IniKey, AFirstAssignmentOfAValueEndsFreshness) {
    iniKey key("name");
    EXPECT_EQ(1, key.SetValue("a"));
    EXPECT_EQ(0, key.SetValue("a"));
}

// Callers chain look-ups without checking for null.
__attribute__((noinline, no_sanitize("null", "undefined"))) const char* chainedValue(iniSection& section,
                                                                                     const char* lpszKey) {
    return section.FindKey(lpszKey)->value();
}
__attribute__((noinline, no_sanitize("null", "undefined"))) chReferenceStringT<char> chainedGet(iniSection& section,
                                                                                                const char* lpszKey) {
    return section.FindKey(lpszKey)->GetValue("default");
}

TEST(IniKey, ANullKeyHasNoValueAndGetsTheDefault) {
    iniSection section("s");
    section.GetKey("k")->SetValue("v");
    EXPECT_EQ(nullptr, chainedValue(section, "none"));
    EXPECT_STREQ("v", chainedValue(section, "k"));
    EXPECT_STREQ("default", chainedGet(section, "none"));
    EXPECT_STREQ("v", chainedGet(section, "k"));
}

TEST(IniSection, IsWrittenWithItsEntriesInOrder) {
    iniSection section("Net");
    section.push_back(new iniComment("; first\n"));
    section.GetKey("b")->SetValue("2");
    section.push_back(new iniComment("\n"));
    section.GetKey("a")->SetValue("1");
    EXPECT_EQ(iniLineSection, section.type());
    EXPECT_EQ("[ Net ]\n; first\nb = 2\n\na = 1\n", exported(section));
}

TEST(IniSection, FindsKeysWithoutRegardToCaseAndMakesThemAtItsEnd) {
    iniSection section("Net");
    EXPECT_EQ(nullptr, section.FindKey("name"));
    iniKey* pKey = section.GetKey("Name");
    EXPECT_EQ(pKey, section.FindKey("NAME"));
    EXPECT_EQ(pKey, section.GetKey("name"));
    EXPECT_STREQ("Name", pKey->key());
    iniKey* pOther = section.GetKey("other");
    EXPECT_EQ(2, section.size());
    EXPECT_EQ(pOther, *section.tail());
}

TEST(IniSection, AnUnterminatedCommentGetsALineFeedWhenSomethingFollows) {
    iniDocument document;
    document.GetSection("a")->push_back(new iniComment("; last"));
    EXPECT_EQ("[ a ]\n; last", exportedList(document));
    document.GetSection("b");
    EXPECT_EQ("[ a ]\n; last\n[ b ]\n", exportedList(document));
    document.GetSection("a")->GetKey("k");
    EXPECT_EQ("[ a ]\n; last\nk = \n[ b ]\n", exportedList(document));
}

// ---- lists

TEST(IniObjList, FindsTheFirstOfATypeAndName) {
    iniObjList list;
    list.push_back(new iniComment("; c\n"));
    list.push_back(new iniKey("a"));
    list.push_back(new iniSection("A"));
    list.push_back(new iniKey("A"));
    EXPECT_EQ(list.begin() + 1, list.list_find_object(iniLineKey, "A"));
    EXPECT_EQ(list.begin() + 2, list.list_find_object(iniLineSection, "a"));
    EXPECT_EQ(list.begin(), list.list_find_object(iniLineComment, ""));
    EXPECT_EQ(list.end(), list.list_find_object(iniLineKey, "b"));
    EXPECT_EQ(list.end(), list.list_find_object(iniLineInvalid, "a"));
    EXPECT_EQ(*list.begin(), list.FindObject(iniLineComment, ""));
    EXPECT_EQ(nullptr, list.FindObject(iniLineSection, "b"));
}

TEST(IniObjList, DeletesWhatItErases) {
    {
        iniObjList list;
        list.push_back(new countedObject("a"));
        list.push_back(new countedObject("b"));
        list.push_back(new countedObject("c"));
        EXPECT_EQ(1, list.list_erase_object(*(list.begin() + 1)));
        EXPECT_EQ(2, countedObject::s_nAlive);
        EXPECT_EQ(2, list.size());
        EXPECT_EQ(nullptr, list.FindObject(iniLineKey, "b"));
        list.ClearObjList();
        EXPECT_EQ(0, countedObject::s_nAlive);
        EXPECT_TRUE(list.empty());
        list.push_back(new countedObject("d"));
    }
    EXPECT_EQ(0, countedObject::s_nAlive);
}

TEST(IniObjList, LeavesAloneWhatIsNotItsOwn) {
    iniObjList list;
    countedObject other("a");
    EXPECT_EQ(0, list.list_erase_object(&other));
    EXPECT_EQ(0, list.list_erase_object(nullptr));
    EXPECT_EQ(1, countedObject::s_nAlive);
}

TEST(IniObjList, AnEntryCanBeConstructedInMemoryOfTheCaller) {
    iniObject* pObject = new (std::nothrow) countedObject("a");
    EXPECT_EQ(1, countedObject::s_nAlive);
    delete pObject;
    alignas(countedObject) char aRoom[sizeof(countedObject)];
    countedObject* const pPlaced = new (aRoom) countedObject("b");
    EXPECT_EQ(static_cast<void*>(aRoom), pPlaced);
    EXPECT_STREQ("b", pPlaced->key());
    pPlaced->~countedObject();
    EXPECT_EQ(0, countedObject::s_nAlive);
}

TEST(IniObjList, AnEmptyListWritesNothing) { EXPECT_EQ("", exportedList(iniObjList())); }

TEST(IniObjList, AnElementFilledAfterALookUpIsFound) {
    iniObjList list;
    for (int i = 0; i < 100; ++i)
        list.push_back(new iniKey(std::to_string(i).c_str()));
    iniObject*& pLate = list.alloc_push_back();
    EXPECT_EQ(nullptr, list.FindObject(iniLineKey, "late"));
    pLate = new iniKey("late");
    EXPECT_EQ(pLate, list.FindObject(iniLineKey, "LATE"));
}

TEST(IniObjList, ANameWithANulIsFoundByWhatWasKeptOfIt) {
    for (const int nOthers : {0, 100}) {
        iniSection section(phraseConstTextA("s"));
        for (int i = 0; i < nOthers; ++i)
            section.GetKey(phraseConstTextA(("other" + std::to_string(i)).c_str()));
        const phraseConstTextA whole(chConstTextT<char>("name\0tail", 9));
        iniKey* pKey = section.GetKey(whole);
        EXPECT_STREQ("name", pKey->key());
        EXPECT_EQ(pKey, section.GetKey(phraseConstTextA("NAME")));
        EXPECT_EQ(nOthers + 1, section.size());
    }
}

TEST(IniObjList, ErasingWithListOperationsTakesElementsOutOfTheIndex) {
    iniObjList list;
    for (int i = 0; i < 100; ++i)
        list.push_back(new iniKey(std::to_string(i).c_str()));
    ASSERT_NE(nullptr, list.FindObject(iniLineKey, "50"));
    const auto erase = [&](iniObjList::iterator it) {
        delete *it;  // before it is erased
        list.erase(it);
    };
    erase(list.list_find_object(iniLineKey, "50"));
    EXPECT_EQ(nullptr, list.FindObject(iniLineKey, "50"));
    delete list.front();
    list.pop_front();
    delete *list.tail();
    list.pop_back();
    EXPECT_EQ(nullptr, list.FindObject(iniLineKey, "0"));
    EXPECT_EQ(nullptr, list.FindObject(iniLineKey, "99"));
    EXPECT_NE(nullptr, list.FindObject(iniLineKey, "98"));
    EXPECT_EQ(97, list.size());
}

TEST(IniObjList, OfSeveralOfOneNameTheFirstInOrderIsFound) {
    iniObjList list;
    for (int i = 0; i < 100; ++i)
        list.push_back(new iniKey(std::to_string(i).c_str()));
    ASSERT_NE(nullptr, list.FindObject(iniLineKey, "7"));
    iniKey* pBack = new iniKey("Twin");
    list.push_back(pBack);
    EXPECT_EQ(pBack, list.FindObject(iniLineKey, "twin"));
    iniKey* pFront = new iniKey("twin");
    list.push_front(pFront);
    EXPECT_EQ(pFront, list.FindObject(iniLineKey, "twin"));
    list.list_erase_object(pFront);
    EXPECT_EQ(pBack, list.FindObject(iniLineKey, "twin"));
}

// The linear search that the index replaces.
iniObject* walked(const iniObjList& list, iniLineType eType, const std::string& strName) {
    for (iniObjList::iterator it = list.begin(); it != list.end(); ++it)
        if ((*it)->type() == eType && stringSameNC((*it)->key(), strName.c_str()))
            return *it;
    return nullptr;
}

iniObject* newObject(std::mt19937& random) {
    const std::string strName = (random() % 2 != 0 ? "n" : "N") + std::to_string(random() % 60);
    switch (random() % 5) {
        case 0:
            return new iniComment("; c\n");
        case 1:
            return new iniSection(strName.c_str());
        default:
            return new iniKey(strName.c_str());
    }
}

void editAtRandom(iniObjList& list, std::mt19937& random) {
    const auto place = list.begin() + static_cast<int>(random() % static_cast<unsigned>(list.size() + 1));
    switch (random() % 8) {
        case 0:
            list.push_back(newObject(random));
            break;
        case 1:
            list.push_front(newObject(random));
            break;
        case 2:
        case 3:
            list.insert(place, newObject(random));
            break;
        case 4:
            list.alloc_insert(place) = newObject(random);
            break;
        case 5:
            list.list_erase_object(place != list.end() ? *place : nullptr);
            break;
        case 6:
            if (place != list.end())
                delete *place;
            list.erase(place);
            break;
        default:
            if (random() % 60 == 0)
                list.ClearObjList();
    }
}

TEST(IniObjList, TheIndexFindsWhatAWalkFindsAfterAnyEdits) {
    for (unsigned uSeed = 1; uSeed <= 20; ++uSeed) {
        std::mt19937 random(uSeed);
        iniObjList list;
        for (int i = 0; i < 1500; ++i) {
            editAtRandom(list, random);
            const std::string strName = "n" + std::to_string(random() % 60);
            const iniLineType eType = static_cast<iniLineType>(random() % 5);
            ASSERT_EQ(walked(list, eType, strName), list.FindObject(eType, strName.c_str()))
                << "seed " << uSeed << ", edit " << i << ", " << eType << " " << strName;
        }
    }
}

// ---- documents

TEST(IniDocument, SectionsAreFoundWithoutRegardToCaseAndMadeAtTheEnd) {
    iniDocument document;
    EXPECT_EQ(nullptr, document.FindSection("net"));
    iniSection* pSection = document.GetSection("Net");
    EXPECT_EQ(pSection, document.FindSection("NET"));
    EXPECT_EQ(pSection, document.GetSection("net"));
    iniSection* pOther = document.GetSection("Other");
    EXPECT_EQ(pOther, *document.tail());
    EXPECT_EQ("[ Net ]\n[ Other ]\n", exportedList(document));
}

TEST(IniDocument, ASetValueIsReadBackAndOnlyAChangeIsReported) {
    iniDocument document;
    EXPECT_EQ(1, document.SetTextValue("Net", "address", "10.0.0.1"));
    EXPECT_EQ(0, document.SetTextValue("net", "ADDRESS", "10.0.0.1"));
    EXPECT_EQ(1, document.SetTextValue("Net", "address", "10.0.0.2"));
    EXPECT_EQ(1, document.SetTextValue("Net", "empty", ""));
    EXPECT_EQ(0, document.SetTextValue("Net", "empty", ""));
    EXPECT_STREQ("10.0.0.2", document.GetTextValue("NET", "Address", "x"));
    EXPECT_STREQ("", document.GetTextValue("NET", "empty", "x"));
    EXPECT_EQ("[ Net ]\naddress = 10.0.0.2\nempty = \n", exportedList(document));
}

TEST(IniDocument, AMissingTextIsTheDefault) {
    iniDocument document;
    document.SetTextValue("Net", "address", "1");
    EXPECT_STREQ("x", document.GetTextValue("None", "address", "x"));
    EXPECT_STREQ("x", document.GetTextValue("Net", "none", "x"));
    EXPECT_STREQ("", document.GetTextValue("Net", "none", nullptr));
    EXPECT_EQ(nullptr, document.FindSection("None"));
}

TEST(IniDocument, ATextThatWasGotIsTheCallersOwn) {
    iniDocument document;
    document.SetTextValue("s", "k", "value");
    const chReferenceStringT<char> strText = document.GetTextValue("s", "k", "");
    EXPECT_EQ(1, strText.getStringData()->m_nReferenceCount);
    document.SetTextValue("s", "k", "other");
    EXPECT_STREQ("value", strText);
}

TEST(IniDocument, ValuesAreTrimmedWithAWarning) {
    iniDocument document;
    testing::internal::CaptureStderr();
    EXPECT_EQ(1, document.SetTextValue("s", "k", " v "));
    EXPECT_EQ("\033[1;33m warning: \033[00m [ v ]\n", testing::internal::GetCapturedStderr());
    EXPECT_STREQ("v", document.GetTextValue("s", "k", ""));
}

int intOf(const char* lpszValue) {
    iniDocument document;
    document.SetTextValue("s", "k", lpszValue);
    return document.GetIntValue("s", "k", -77);
}

TEST(IniDocument, IntegersAreDecimalOrHexadecimalAfterAPrefix) {
    EXPECT_EQ(42, intOf("42"));
    EXPECT_EQ(-42, intOf("-42"));
    EXPECT_EQ(42, intOf("42 apples"));
    EXPECT_EQ(10, intOf("010"));
    EXPECT_EQ(31, intOf("0x1F"));
    EXPECT_EQ(31, intOf("0X1f"));
    EXPECT_EQ(-1, intOf("0xFFFFFFFF"));
    EXPECT_EQ(2147483647, intOf("99999999999"));
    EXPECT_EQ(0, intOf("0"));
    EXPECT_EQ(31, intOf("0x 1F"));
    EXPECT_EQ(-5, intOf("0x-5"));
    EXPECT_EQ(16, intOf("0x0x10"));
}

TEST(IniDocument, AHexadecimalNumberThatIsTooLargeHasAllBitsSet) {
    EXPECT_EQ(-1, intOf("0x100000000"));
    EXPECT_EQ(-1, intOf("0x123456789A"));
    EXPECT_EQ(-1, intOf("0xFFFFFFFFFFFFFFF0"));
    EXPECT_EQ(-1, intOf("0x-100000002"));
    EXPECT_EQ(-1, intOf("0x123456789ABCDEF012345"));
}

TEST(IniDocument, WhatIsNoIntegerIsTheDefault) {
    EXPECT_EQ(-77, intOf(""));
    EXPECT_EQ(-77, intOf("apples"));
    EXPECT_EQ(-77, intOf("0x"));
    EXPECT_EQ(-77, intOf("0xz"));
    iniDocument document;
    document.GetSection("s");
    EXPECT_EQ(5, document.GetIntValue("s", "none", 5));
    EXPECT_EQ(5, document.GetIntValue("none", "k", 5));
}

TEST(IniDocument, FloatsAreScannedOrTheDefault) {
    iniDocument document;
    document.SetTextValue("s", "a", "2.5");
    document.SetTextValue("s", "b", "-1e3 m");
    document.SetTextValue("s", "c", "m");
    document.SetTextValue("s", "d", "");
    EXPECT_EQ(2.5, document.GetFloatValue("S", "A", 7));
    EXPECT_EQ(-1000, document.GetFloatValue("s", "b", 7));
    EXPECT_EQ(7, document.GetFloatValue("s", "c", 7));
    EXPECT_EQ(7, document.GetFloatValue("s", "d", 7));
    EXPECT_EQ(7, document.GetFloatValue("s", "none", 7));
    EXPECT_EQ(7, document.GetFloatValue("none", "a", 7));
}

// ---- the index of a list

// A list of that many keys, "k0" and so on.
void fill(iniObjList& list, int nCount) {
    for (int i = 0; i < nCount; ++i)
        list.push_back(new iniKey(("k" + std::to_string(i)).c_str()));
}

TEST(IniIndex, WhatIsInsertedAfterALookUpIsFoundByTheNext) {
    iniObjList list;
    fill(list, 100);
    EXPECT_EQ(nullptr, list.FindObject(iniLineKey, "new"));
    iniKey* const pErased = new iniKey("erased before any look-up");
    list.push_back(pErased);
    list.push_front(new iniKey("new"));
    list.push_back(new iniComment("; new\n"));
    list.list_erase_object(pErased);
    EXPECT_EQ(list.front(), list.FindObject(iniLineKey, "NEW"));
    EXPECT_EQ(nullptr, list.FindObject(iniLineKey, "erased before any look-up"));
    list.ClearObjList();
    EXPECT_EQ(nullptr, list.FindObject(iniLineKey, "new"));
}

TEST(IniIndex, ErasingLeavesTheOthersToBeFound) {
    iniObjList list;
    const int nCount = 5000;
    fill(list, nCount);
    std::vector<int> listErase(nCount);
    for (int i = 0; i < nCount; ++i)
        listErase[static_cast<size_t>(i)] = i;
    std::shuffle(listErase.begin(), listErase.end(), std::mt19937(7));
    listErase.resize(nCount / 2);
    std::vector<bool> listGone(nCount);
    for (const int i : listErase) {
        const iniObjList::iterator it = list.list_find_object(iniLineKey, ("K" + std::to_string(i)).c_str());
        ASSERT_NE(list.end(), it) << i;
        delete *it;
        list.erase(it);
        listGone[static_cast<size_t>(i)] = true;
    }
    for (int i = 0; i < nCount; ++i)
        ASSERT_EQ(listGone[static_cast<size_t>(i)],
                  list.FindObject(iniLineKey, ("k" + std::to_string(i)).c_str()) == nullptr)
            << i;
}

TEST(IniIndex, AnEntryIsMadeOnlyWhenThereIsNoneOfItsName) {
    for (const int nCount : {0, 1000}) {
        iniSection section("s");
        fill(section, nCount);
        iniKey* const pKey = section.GetKey("name");
        EXPECT_EQ(pKey, section.GetKey("NAME"));
        EXPECT_NE(pKey, section.GetKey("other"));
        EXPECT_EQ(nCount + 2, section.size());
    }
}

}  // namespace
