// INI documents as they are found: those of tests/corpus/ini, in the styles that programs write and people edit, and
// those that the machine has. Each is loaded, saves to a fixed point, and has the values that Python's parser finds in
// it.
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "qor/FileHelper.h"
#include "support/filebytes.h"

using namespace QOR_FileHelper;
using qorTest::getFile;
using qorTest::putFile;

namespace fs = std::filesystem;

namespace {

const std::string s_strCorpus = QOR_SOURCE_DIR "/tests/corpus";

// The machine's documents, as many as fit into /tmp: loading completes interrupted saves beside a file, so copies are
// loaded.
const std::string s_strFind =
    "find /etc /opt /usr/lib /usr/share /var/lib -xdev -type f -size -49k \\( -name '*.ini' -o -name '*.cfg' "
    "-o -name '*.conf' -o -name '*.cnf' -o -name '*.service' -o -name '*.socket' -o -name '*.timer' "
    "-o -name '*.target' -o -name '*.mount' -o -name '*.automount' -o -name '*.path' -o -name '*.slice' "
    "-o -name '*.network' -o -name '*.link' -o -name '*.netdev' -o -name '*.preset' -o -name '*.desktop' "
    "-o -name '*.directory' -o -name '*.theme' -o -name '*.nmconnection' -o -name '*.repo' -o -name '*.toml' "
    "-o -name '*gitconfig' -o -name '.editorconfig' -o -name '*hgrc*' -o -name '*.inf' \\) "
    "-print0 2>/dev/null | sort -z | head -z -n 2000";

std::string lower(std::string str) {
    for (char& ch : str)
        ch = QOR_StringHelper::chLower(ch);
    return str;
}

std::vector<std::string> split(const std::string& str) {
    std::vector<std::string> listField;
    for (size_t nAt = 0; nAt < str.size(); nAt = str.find('\0', nAt) + 1)
        listField.push_back(str.c_str() + nAt);
    return listField;
}

// Values by section and key, both in lower case.
typedef std::map<std::string, std::map<std::string, std::string>> content;

// What a reader found, and the keys of sections that are left out of the comparison.
struct reading {
    bool bKnown = true;
    content values;
    std::set<std::pair<std::string, std::string>> setUnknown;
};

content contentOf(const iniFile& file) {
    content values;
    for (iniObjList::iterator it = file.begin(); it != file.end(); ++it) {
        if ((*it)->type() != iniLineSection)
            continue;
        const auto& section = static_cast<iniSection&>(**it);
        auto& keys = values[lower(static_cast<const char*>(section.key()))];
        for (iniObjList::iterator itKey = section.begin(); itKey != section.end(); ++itKey)
            if ((*itKey)->type() == iniLineKey)
                keys[lower(static_cast<const char*>((*itKey)->key()))] = static_cast<iniKey*>(*itKey)->value();
    }
    return values;
}

// Adds the fields of one document, up to the next document's. A section may come twice, in different case: the reader
// does not say which of two values came last.
reading readingOf(const std::vector<std::string>& listField, size_t& nAt) {
    reading read;
    std::string strSection;
    std::set<std::string> setSeen;
    bool bAgain = false;
    for (++nAt; nAt < listField.size() && listField[nAt] != "file";) {
        const std::string& strKind = listField[nAt++];
        if (strKind == "nul") {
            read.bKnown = false;
        } else if (strKind == "section") {
            strSection = lower(listField[nAt++]);
            bAgain = !setSeen.insert(strSection).second;
            read.values[strSection];
        } else {
            const std::string strKey = listField[nAt++];
            if (strKind == "none" || (bAgain && read.values[strSection].count(strKey) != 0))
                read.setUnknown.insert({strSection, strKey});
            if (strKind == "key")
                read.values[strSection][strKey] = listField[nAt++];
        }
    }
    return read;
}

std::vector<reading> readByPython(const std::vector<std::string>& listName, const char* lpszOption = "") {
    std::string strList;
    for (const std::string& strName : listName)
        strList += strName + '\0';
    putFile("/tmp/list", strList);
    const std::string strCommand = "python3 " + s_strCorpus + "/read_ini.py " + lpszOption + " /tmp/list /tmp/result";
    std::vector<reading> listReading;
    if (system(strCommand.c_str()) != 0)
        return listReading;
    const std::vector<std::string> listField = split(getFile("/tmp/result"));
    for (size_t nAt = 0; nAt < listField.size();)
        listReading.push_back(readingOf(listField, nAt));
    return listReading;
}

// Leaves out what only one of the two defines: keys without a name are refused there, keys of lines that begin with '['
// and have no ']' are no keys here.
content comparable(content values, const reading& read) {
    for (auto& section : values)
        for (auto it = section.second.begin(); it != section.second.end();) {
            const bool bNoKey = it->first.empty() || it->first[0] == '[';
            const bool bOut = bNoKey || read.setUnknown.count({section.first, it->first}) != 0;
            it = bOut ? section.second.erase(it) : std::next(it);
        }
    return values;
}

std::string describe(const content& values) {
    std::string str;
    for (const auto& section : values) {
        str += "[" + section.first + "]\n";
        for (const auto& key : section.second)
            str += key.first + "=" + key.second + "\n";
    }
    return str;
}

// The documents: where each came from, and its copy, which the tests load.
class Corpus : public testing::Test {
protected:
    static void SetUpTestSuite() {
        for (const auto& entry : fs::directory_iterator(s_strCorpus + "/ini"))
            s_listOrigin.push_back(entry.path().string());
        s_nOwn = s_listOrigin.size();
        system((s_strFind + " >/tmp/found").c_str());
        for (const std::string& strName : split(getFile("/tmp/found")))
            s_listOrigin.push_back(strName);
        fs::create_directory("/tmp/corpus");
        for (size_t i = 0; i < s_listOrigin.size(); ++i)
            putFile(copyOf(i), getFile(s_listOrigin[i]));
    }
    static std::string copyOf(size_t i) { return "/tmp/corpus/" + std::to_string(i) + ".ini"; }
    static std::string savedOf(size_t i) { return "/tmp/corpus/" + std::to_string(i) + ".saved"; }

    static std::vector<std::string> s_listOrigin;
    static size_t s_nOwn;
};

std::vector<std::string> Corpus::s_listOrigin;
size_t Corpus::s_nOwn;

TEST_F(Corpus, ThereAreDocumentsOfTheTreeAndOfTheMachine) {
    EXPECT_GE(s_nOwn, 30u);
    EXPECT_GT(s_listOrigin.size(), s_nOwn);
    size_t nSections = 0, nKeys = 0;
    for (size_t i = 0; i < s_listOrigin.size(); ++i)
        for (const auto& section : contentOf(iniFile(copyOf(i).c_str()))) {
            ++nSections;
            nKeys += section.second.size();
        }
    EXPECT_GT(nSections, 100u);
    EXPECT_GT(nKeys, 300u);
    printf("%zu documents, %zu of them the tree's; %zu sections, %zu keys\n", s_listOrigin.size(), s_nOwn, nSections,
           nKeys);
}

TEST_F(Corpus, EveryDocumentIsSavedToAFixedPoint) {
    for (size_t i = 0; i < s_listOrigin.size(); ++i) {
        SCOPED_TRACE(s_listOrigin[i]);
        iniFile file;
        ASSERT_EQ(1, file.LoadFromFile(copyOf(i).c_str()));
        ASSERT_EQ(1, file.SaveToFile(savedOf(i).c_str()));
        iniFile again;
        ASSERT_EQ(1, again.LoadFromFile(savedOf(i).c_str()));
        EXPECT_EQ(contentOf(file), contentOf(again));
        ASSERT_EQ(1, again.SaveToFile("/tmp/corpus/again"));
        EXPECT_TRUE(getFile(savedOf(i)) == getFile("/tmp/corpus/again"));
    }
}

TEST_F(Corpus, EveryKeyIsFoundByItsNamesInCapitals) {
    for (size_t i = 0; i < s_nOwn; ++i) {
        SCOPED_TRACE(s_listOrigin[i]);
        const iniFile file(copyOf(i).c_str());
        const auto upper = [](std::string str) {
            for (char& ch : str)
                ch = QOR_StringHelper::chUpper(ch);
            return str;
        };
        for (const auto& section : contentOf(file))
            for (const auto& key : section.second)
                EXPECT_STREQ(key.second.c_str(),
                             file.GetTextValue(upper(section.first).c_str(), upper(key.first).c_str(), "none"));
    }
}

TEST_F(Corpus, AnotherParserFindsTheSameInDocumentsAndInTheirSaves) {
    std::vector<std::string> listName;
    for (size_t i = 0; i < s_listOrigin.size(); ++i) {
        ASSERT_EQ(1, iniFile(copyOf(i).c_str()).SaveToFile(savedOf(i).c_str()));
        listName.push_back(copyOf(i));
        listName.push_back(savedOf(i));
    }
    const std::vector<reading> listReading = readByPython(listName);
    ASSERT_EQ(listName.size(), listReading.size());
    size_t nCompared = 0, nLeftOut = 0;
    for (size_t i = 0; i < listName.size(); ++i) {
        const reading& there = listReading[i];
        if (!there.bKnown)
            continue;
        const content here = contentOf(iniFile(listName[i].c_str()));
        EXPECT_EQ(describe(comparable(there.values, there)), describe(comparable(here, there)))
            << s_listOrigin[i / 2] << (i % 2 != 0 ? ", saved" : "");
        ++nCompared;
        nLeftOut += there.setUnknown.size();
    }
    EXPECT_GE(nCompared, 2 * s_nOwn - 4);
    printf("%zu documents and saves compared; %zu keys that have no value there left out\n", nCompared, nLeftOut);
}

// ---- the differences, each with the value that a key has there and here ("none": no such key)

struct difference {
    const char* lpszText;
    const char* lpszSection;
    const char* lpszKey;
    const char* lpszThere;
    const char* lpszHere;
};

const std::vector<difference> s_listDifference = {
    // Indented lines: of the value there, lines like any other here.
    {"[a]\nk = v\n  more\n", "a", "k", "v\nmore", "v"},
    {"[a]\nk = v\n  other = w\n", "a", "other", "none", "w"},
    // Section names: their letters and blanks count there; they end with the last bracket there, with the first here.
    {"[A]\nk = v\n[a]\nk = w\n", "A", "k", "v", "w"},
    {"[ a ]\nk = v\n", "a", "k", "none", "v"},
    {"[a]b]\nk = v\n", "a", "k", "none", "v"},
    {"[a]b]\nk = v\n", "a]b", "k", "v", "none"},
    {"[]\nk = v\n", "", "k", "none", "v"},
    // Lines that begin with a bracket which is not closed: keys there, dropped here.
    {"[a]\n[k = v\n", "a", "[k", "v", "none"},
};

// What the parser by itself says of every difference's key, its sections as it spells them.
std::vector<std::string> valuesThere() {
    std::vector<std::string> listName, listValue;
    for (const difference& differs : s_listDifference) {
        listName.push_back("/tmp/differs" + std::to_string(listName.size()) + ".ini");
        putFile(listName.back(), differs.lpszText);
    }
    readByPython(listName, "--plain");
    const std::vector<std::string> listField = split(getFile("/tmp/result"));
    std::string strSection;
    for (size_t i = 0; i < listField.size() && listValue.size() <= listName.size();) {
        const std::string& strKind = listField[i++];
        if (strKind == "file") {
            listValue.push_back("none");
            continue;
        }
        const difference& differs = s_listDifference[listValue.size() - 1];
        if (strKind == "section")
            strSection = listField[i];
        if (strKind == "key" && strSection == differs.lpszSection && listField[i] == differs.lpszKey)
            listValue.back() = listField[i + 1];
        i += strKind == "key" ? 2 : 1;
    }
    return listValue;
}

TEST(CorpusDifferences, AreTheDocumentedOnes) {
    const std::vector<std::string> listThere = valuesThere();
    ASSERT_EQ(s_listDifference.size(), listThere.size());
    for (size_t i = 0; i < listThere.size(); ++i) {
        const difference& differs = s_listDifference[i];
        SCOPED_TRACE(differs.lpszText);
        EXPECT_EQ(differs.lpszThere, listThere[i]);
        const iniFile file(("/tmp/differs" + std::to_string(i) + ".ini").c_str());
        EXPECT_STREQ(differs.lpszHere, file.GetTextValue(differs.lpszSection, differs.lpszKey, "none"));
    }
}

}  // namespace
