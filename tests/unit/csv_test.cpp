// Comma-separated values: fields, quotes, records, lines.
#include "qor/FileHelper.h"

using namespace QOR_FileHelper;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> text;
typedef std::vector<std::string> strings;

strings stringsOf(csvFields& fields) {
    strings list;
    for (auto it = fields.begin(); it != fields.end(); ++it)
        list.push_back(static_cast<const char*>(*it));
    return list;
}

// All records of a text; each by its fields.
std::vector<strings> recordsOf(const std::string& strText) {
    std::vector<strings> list;
    csvFields fields;
    for (const char* lpsz = strText.c_str(); (lpsz = qorPeekCSVRecord(lpsz, fields)) != nullptr;)
        list.push_back(stringsOf(fields));
    return list;
}

// A field, and what is left of the text after it.
std::pair<std::string, std::string> fieldOf(const char* lpszText) {
    text str("before");
    const char* lpszRest = qorPeekCSVField(lpszText, str);
    return {static_cast<const char*>(str), lpszRest};
}

typedef std::pair<std::string, std::string> fieldAndRest;

TEST(Csv, AFieldEndsAtACommaALineFeedOrTheEnd) {
    EXPECT_EQ(fieldAndRest("a", "b"), fieldOf("a,b"));
    EXPECT_EQ(fieldAndRest("a", "b"), fieldOf("a\nb"));
    EXPECT_EQ(fieldAndRest("a", ""), fieldOf("a"));
    EXPECT_EQ(fieldAndRest("", ""), fieldOf(""));
    EXPECT_EQ(fieldAndRest("", ",b"), fieldOf(",,b"));
}

TEST(Csv, WhiteSpaceAroundAFieldIsCut) {
    EXPECT_EQ(fieldAndRest("a b", "c"), fieldOf(" \t a b \t\v\f,c"));
    EXPECT_EQ(fieldAndRest("", "c"), fieldOf("   ,c"));
    EXPECT_EQ(fieldAndRest("\va", ""), fieldOf("\va"));  // only blanks and tabs in front
}

TEST(Csv, CarriageReturnsAreSkipped) {
    EXPECT_EQ(fieldAndRest("ab", "c"), fieldOf("a\rb\r\nc"));
    EXPECT_EQ(fieldAndRest("ab", ""), fieldOf("\"a\r\rb\""));
}

TEST(Csv, AQuotedPartKeepsCommasLineFeedsAndDoubledQuotes) {
    EXPECT_EQ(fieldAndRest("a,b\nc\"d", "e"), fieldOf("\"a,b\nc\"\"d\",e"));
    EXPECT_EQ(fieldAndRest("\"", ""), fieldOf("\"\"\"\""));
    EXPECT_EQ(fieldAndRest("", "x"), fieldOf("\"\",x"));
}

TEST(Csv, UnquotedBytesAroundAQuotedPartBelongToTheField) {
    EXPECT_EQ(fieldAndRest("ab,cd", "e"), fieldOf("a\"b,c\"d,e"));
    EXPECT_EQ(fieldAndRest("a b", ""), fieldOf("\"a\" \"b\""));
}

TEST(Csv, WhiteSpaceAtTheEndIsCutAlsoFromAQuotedPart) { EXPECT_EQ(fieldAndRest(" a", ""), fieldOf("\" a \"")); }

TEST(Csv, AQuoteThatIsNotClosedEndsWithTheText) {
    EXPECT_EQ(fieldAndRest("a,b\nc", ""), fieldOf("\"a,b\nc"));
    EXPECT_EQ(fieldAndRest("", ""), fieldOf("\""));
    EXPECT_EQ(fieldAndRest("a\"", ""), fieldOf("\"a\"\""));
}

TEST(Csv, AQuotedPartIsAppended) {
    text str("x");
    EXPECT_STREQ("b\"c\"", qorPeekCSVQuote("\"a\"\"\"b\"c\"", str));
    EXPECT_STREQ("xa\"", str);
    EXPECT_STREQ("", qorPeekCSVQuote("\"open", str));
    EXPECT_STREQ("xa\"open", str);
}

TEST(Csv, APartThatIsNotQuotedIsAFatalAssertion) {
    text str;
    const char* lpszText = "\\[QORFile:[0-9]+\\] lpszText != NULL && \\*lpszText == '\\\\\"' ";
    EXPECT_EXIT(qorPeekCSVQuote("a", str), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(qorPeekCSVQuote("", str), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(qorPeekCSVQuote(nullptr, str), testing::KilledBySignal(SIGABRT), lpszText);
    EXPECT_EXIT(qorPeekCSVField(nullptr, str), testing::KilledBySignal(SIGABRT),
                "\\[QORFile:[0-9]+\\] lpszText != NULL ");
}

TEST(Csv, ARecordEndsAtALineFeedOutsideQuotes) {
    EXPECT_EQ((std::vector<strings>{{"a", "b"}, {"c"}, {"d\ne", ""}, {""}, {"f"}}),
              recordsOf("a,b\r\nc\n\"d\ne\",\n\nf"));
}

TEST(Csv, ACommaAtTheEndOfTheTextBeginsNoField) {
    EXPECT_EQ((std::vector<strings>{{"a"}}), recordsOf("a,"));
    EXPECT_EQ((std::vector<strings>{{"a"}}), recordsOf("a\n"));
}

TEST(Csv, ANullOrEmptyTextHasNoRecord) {
    csvFields fields;
    fields.push_back(text("before"));
    EXPECT_EQ(nullptr, qorPeekCSVRecord(nullptr, fields));
    EXPECT_EQ(0, fields.size());
    fields.push_back(text("before"));
    EXPECT_EQ(nullptr, qorPeekCSVRecord("", fields));
    EXPECT_EQ(0, fields.size());
}

TEST(Csv, ALineQuotesWhatNeedsIt) {
    text strLine("before");
    qorBuildCSVLine(strLine, 3, "a b", "x\"y", "z");
    EXPECT_STREQ("\"a b\",\"x\"\"y\",z\n", strLine);
    EXPECT_EQ((std::vector<strings>{{"a b", "x\"y", "z"}}), recordsOf(static_cast<const char*>(strLine)));
    qorBuildCSVLine(strLine, 6, "a,b", "c\nd", "e\rf", "\"", "g\th", "");
    EXPECT_STREQ("\"a,b\",\"c\nd\",\"e\rf\",\"\"\"\",g\th,\n", strLine);
    qorBuildCSVLine(strLine, 0);
    EXPECT_STREQ("\n", strLine);
    qorBuildCSVLine(strLine, 2, static_cast<const char*>(nullptr), "x");
    EXPECT_STREQ(",x\n", strLine);
}

TEST(Csv, LongFieldsTakeTimeInProportion) {
    // 10 MB of doubled quotes, of carriage returns, and of one plain field.
    std::string strQuotes(10 << 20, '"');
    text str;
    EXPECT_STREQ("", qorPeekCSVField(strQuotes.c_str(), str));
    EXPECT_EQ((10 << 20) / 2 - 1, str.GetLength());
    EXPECT_EQ(fieldAndRest("ab", "c"), fieldOf(("a" + std::string(10 << 20, '\r') + "b,c").c_str()));
    const std::string strPlain(10 << 20, 'p');
    EXPECT_EQ((std::vector<strings>{{strPlain, "q"}}), recordsOf(strPlain + ",q\n"));
}

}  // namespace
