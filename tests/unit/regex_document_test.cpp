// docs/expressions.md and the hint for patterns of the usual dialect: every row of the document's tables is run, what
// it says of that dialect with std::regex; patterns that look usual, and no others, are traced with a hint.
#include <filesystem>
#include <fstream>
#include <regex>
#include <vector>

#include "qor/TraceHelper.h"
#include "support/regex.h"
#include "support/traceline.h"

using namespace QOR_RegularExpressHelper;
using namespace qorTest;

namespace {

typedef std::vector<std::string> tableRow;

// The cells of a line of a table, with their bars unescaped.
tableRow cellsOf(const std::string& strLine) {
    tableRow row;
    std::string strCell;
    for (size_t i = 1; i < strLine.size(); ++i) {
        if (strLine.compare(i, 2, "\\|") == 0) {
            strCell += strLine[++i];
        } else if (strLine[i] == '|') {
            row.push_back(strCell.size() > 1 ? strCell.substr(1, strCell.size() - 2) : "");
            strCell.clear();
        } else {
            strCell += strLine[i];
        }
    }
    return row;
}

// The rows of all tables of the document that have this header.
std::vector<tableRow> rowsOf(const tableRow& header) {
    std::ifstream in(QOR_SOURCE_DIR "/docs/expressions.md");
    EXPECT_TRUE(in.is_open());
    std::vector<tableRow> listRow;
    bool bInside = false;
    for (std::string strLine; std::getline(in, strLine);) {
        if (strLine.empty() || strLine[0] != '|') {
            bInside = false;
        } else if (cellsOf(strLine) == header) {
            bInside = true;
        } else if (bInside && strLine.compare(0, 5, "| ---") != 0) {
            listRow.push_back(cellsOf(strLine));
        }
    }
    return listRow;
}

bool isCode(const std::string& strCell) {
    return strCell.size() > 1 && strCell.front() == '`' && strCell.find('`', 1) == strCell.size() - 1;
}
// What is between the backquotes.
std::string codeOf(const std::string& strCell) {
    EXPECT_TRUE(isCode(strCell)) << strCell;
    return strCell.substr(1, strCell.size() - 2);
}
// The same of a text, with its line breaks.
std::string textOf(const std::string& strCell) {
    std::string str = codeOf(strCell);
    for (const auto& [lpszWritten, lpszMeant] : {std::pair("\\n", "\n"), std::pair("\\r", "\r")})
        for (size_t n = 0; (n = str.find(lpszWritten)) != std::string::npos;)
            str.replace(n, 2, lpszMeant);
    return str;
}
// What a cell says is found: a text in angle brackets, "nothing" or "error".
std::string expectedOf(const std::string& strCell) {
    return strCell == "nothing" || strCell == "error" ? strCell : "<" + textOf(strCell) + ">";
}

std::string foundHere(const std::string& strPattern, const std::string& strText) {
    regexTree express;
    if (errorAt(express, strPattern) >= 0)
        return "error";
    const char* lpszFrom = express.SearchREOnText(strText.c_str(), NULL);
    return lpszFrom != NULL ? "<" + std::string(lpszFrom, express.m_lpszResultEnd) + ">" : "nothing";
}

std::string foundThere(const std::string& strPattern, const std::string& strText) {
    std::smatch match;
    return std::regex_search(strText, match, std::regex(strPattern)) ? "<" + match.str() + ">" : "nothing";
}

// The traced texts of compiling a pattern.
std::string traced(const std::string& strPattern) {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe();
    regexTree express;
    express.AddCustomAlias("/bar", "a|b");
    testing::internal::CaptureStdout();
    express.BuildRegularExpress(strPattern.c_str(), 0);
    return traceTexts(testing::internal::GetCapturedStdout());
}

class RegexDocument : public testing::Test {
protected:
    RegexDocument() { QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull(); }
    ~RegexDocument() {
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(INT_MAX);
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToStdPipe();
    }
};

TEST_F(RegexDocument, EveryExpressionFindsWhatItsRowSays) {
    const std::vector<tableRow> listRow = rowsOf({"to match", "expression", "text", "found"});
    EXPECT_GT(listRow.size(), 20u);
    for (const tableRow& row : listRow)
        EXPECT_EQ(expectedOf(row.at(3)), foundHere(codeOf(row.at(1)), textOf(row.at(2)))) << row.at(1);
}

TEST_F(RegexDocument, EveryGroupCapturesWhatItsRowSays) {
    const std::vector<tableRow> listRow = rowsOf({"expression", "text", "group 1", "group 2"});
    EXPECT_GT(listRow.size(), 3u);
    for (const tableRow& row : listRow) {
        regexTree express(codeOf(row.at(0)).c_str(), 0);
        const std::string strText = textOf(row.at(1));
        ASSERT_NE(nullptr, express.SearchREOnText(strText.c_str(), NULL)) << row.at(0);
        for (int n : {1, 2}) {
            const regexNode* p = express.GetCaptureRE(n);
            const std::string& strCell = row.at(static_cast<size_t>(n) + 1);
            ASSERT_EQ(strCell.empty(), p == NULL) << row.at(0);
            if (p != NULL) {
                EXPECT_EQ(strCell == "nothing" ? "ERROR" : textOf(strCell), resultOf(p)) << row.at(0);
            }
        }
    }
}

TEST_F(RegexDocument, TheUsualDialectDiffersAsItsTableSays) {
    const std::vector<tableRow> listRow = rowsOf({"usual", "text", "found there", "found here", "written here"});
    EXPECT_GT(listRow.size(), 15u);
    int nWritten = 0;
    for (const tableRow& row : listRow) {
        const std::string strUsual = codeOf(row.at(0)), strText = textOf(row.at(1)), strThere = expectedOf(row.at(2));
        EXPECT_EQ(strThere, foundThere(strUsual, strText)) << strUsual;
        EXPECT_EQ(expectedOf(row.at(3)), foundHere(strUsual, strText)) << strUsual;
        if (!isCode(row.at(4)))
            continue;
        ++nWritten;
        EXPECT_EQ(strThere, foundHere(codeOf(row.at(4)), strText)) << strUsual;
    }
    EXPECT_GT(nWritten, 12);
}

TEST_F(RegexDocument, TheNamedPartsMatch) {
    regexTree express;
    express.AddCustomAlias("/num", "[\\+\\-]?\\d+");
    ASSERT_EQ(-1, errorAt(express, "\\(/num,/num\\)"));
    EXPECT_EQ(7, lengthAt(express, "(12,-3)"));
}

// ---- the hint

TEST_F(RegexDocument, APatternThatLooksUsualGetsOneLineThatSaysWhatItMeansHere) {
    EXPECT_EQ("Express \"cat|dog\": '|' is a plain character; alternatives are a set of groups, [(one)(other)]\n",
              traced("cat|dog"));
    EXPECT_EQ("Express \"^key=\\d+\": '^' negates the pattern; a match begins where it is asked for\n",
              traced("^key=\\d+"));
    EXPECT_EQ("Express \"[a-z.]\": '.' is any character, in a set, too; a point is '\\.'\n", traced("[a-z.]"));
    EXPECT_EQ(
        "Express \"[[:digit:]]\": a set has no named classes; digits are '\\d', white space '\\s', letters "
        "[a-zA-Z]\n",
        traced("[[:digit:]]"));
    EXPECT_EQ("Express \"\\bcat\": '\\b' is a backspace; there are no word boundaries\n", traced("\\bcat"));
    EXPECT_EQ("Express \"cat\\b\": '\\b' is a backspace; there are no word boundaries\n", traced("cat\\b"));
    EXPECT_EQ("Express \"^(a|b)[.|]$\": '|' is a plain character; alternatives are a set of groups, [(one)(other)]\n",
              traced("^(a|b)[.|]$"));
}

TEST_F(RegexDocument, EveryExampleOfTheHintsTableGetsOne) {
    const std::vector<tableRow> listRow = rowsOf({"what is seen", "example"});
    EXPECT_EQ(5u, listRow.size());
    for (const tableRow& row : listRow)
        EXPECT_NE("", traced(codeOf(row.at(1)))) << row.at(1);
}

TEST_F(RegexDocument, WhatIsMeantInThisLanguageGetsNoHint) {
    for (const char* lpszPattern : {"^a",        "^(^ab)[^c-e](^f*g)",
                                    "(^ab)",     "[|,;]",
                                    "a\\x7Cb",   "[(ab)(cd)]",
                                    "[\\w\\.]",  "a.b",
                                    "[(.)a]",    "[:]",
                                    "[[:]a]",    "[:a:]",
                                    "\\b",       "\\n\\b\\/",
                                    "cat\\\\b",  "ab*",
                                    "a$",        "a/barb",
                                    "[^\r\n]*$", "([a-z]+)=(\\d+)"})
        EXPECT_EQ("", traced(lpszPattern)) << lpszPattern;
    int nRows = 0;
    for (const tableRow& row : rowsOf({"to match", "expression", "text", "found"})) {
        // One row of the document shows that the bar has no meaning.
        const std::string strPattern = codeOf(row.at(1));
        if (strPattern.find('|') != std::string::npos)
            continue;
        ++nRows;
        EXPECT_EQ("", traced(strPattern)) << strPattern;
    }
    for (const tableRow& row : rowsOf({"expression", "text", "group 1", "group 2"}))
        EXPECT_EQ("", traced(codeOf(row.at(0))));
    EXPECT_GT(nRows, 20);
}

TEST_F(RegexDocument, ThePatternsOfTheFuzzCorpusGetNoHint) {
    int nSound = 0;
    for (const auto& entry : std::filesystem::directory_iterator(QOR_SOURCE_DIR "/fuzz/corpus/regex")) {
        std::ifstream in(entry.path(), std::ios::binary);
        std::string str(std::istreambuf_iterator<char>(in), {});
        // A byte of options comes first, a NUL and a text last.
        const std::string strPattern = str.substr(1, str.find('\0', 1) - 1);
        if (errorAt(strPattern) >= 0)
            continue;
        ++nSound;
        EXPECT_EQ("", traced(strPattern)) << entry.path();
        QOR_TraceHelper::uCTraceHelpergetGlobalObject()->RedirectToNull();
    }
    EXPECT_GT(nSound, 10);
}

TEST_F(RegexDocument, AnErrorHasNoHint) {
    EXPECT_EQ(
        "Express \"a|b(\"\n"
        "Error   \"    ^\"\n",
        traced("a|b("));
}

TEST_F(RegexDocument, TheHintHasALevelAboveThatOfErrors) {
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(2);
    EXPECT_EQ("", traced("a|b"));
    EXPECT_NE("", traced("a|b)"));
    QOR_TraceHelper::uCTraceHelpergetGlobalObject()->ResetTraceLevel(3);
    EXPECT_NE("", traced("a|b"));
}

}  // namespace
