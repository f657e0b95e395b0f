// Regular expressions: compiling, matching at a place and searching, beside what else there is.
//
// usage: qor_bench_regex [--quick]
//
// Every pattern is spelled twice, in the library's syntax and in the usual one. Before anything is measured,
// all that take part must find the same match and the same groups in every subject. PCRE2 interprets its
// patterns here; it makes no machine code of them.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <regex>
#include <string>

#include "qor/RegularExpressHelper.h"
#include "support.h"

#ifdef QOR_BENCH_PCRE2
#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>
#endif
#ifdef QOR_BENCH_RE2
#include <re2/re2.h>
#endif

using namespace bench;

namespace {

double s_nRepeat = 1;

constexpr int maxGroups = 4;

struct pattern {
    const char* lpszName;
    const char* lpszOwn;
    const char* lpszUsual;
    int nGroups;
    bool bFold;
};

// Where a match and its groups are, from the begin of the text; -1: nowhere.
struct found {
    long arrBegin[maxGroups + 1], arrEnd[maxGroups + 1];
};

// ---- who compiles and matches

class contender {
public:
    virtual ~contender() {}
    virtual const char* name() const = 0;
    // Compiles a pattern in place of the one before.
    virtual void compile(const pattern& p) = 0;
    // Matches at lpszFrom, or at the first position after it, in a text that begins with lpszText.
    virtual bool match(const char* lpszText, const char* lpszFrom, const char* lpszTo, bool bSearch, found& result) = 0;
};

void expect(bool bRight, const char* lpszWho, const char* lpszWhat) {
    if (bRight)
        return;
    fprintf(stderr, "%s: %s\n", lpszWho, lpszWhat);
    exit(1);
}

class libraryRegex : public contender {
public:
    const char* name() const override { return "qor"; }
    void compile(const pattern& p) override {
        m_nGroups = p.nGroups;
        m_pExpress = std::make_unique<QOR_RegularExpressHelper::reRegularExpress<char>>(nullptr, 0);
        const unsigned uFlags = p.bFold ? QOR_RegularExpressHelper::flagIgnoreCase : 0;
        expect(m_pExpress->BuildRegularExpress(p.lpszOwn, uFlags) == NULL, name(), p.lpszOwn);
    }
    bool match(const char* lpszText, const char* lpszFrom, const char* lpszTo, bool bSearch, found& result) override {
        if (bSearch) {
            if (m_pExpress->SearchREOnText(lpszFrom, lpszTo) == NULL)
                return false;
        } else {
            m_pExpress->ClearResult();
            if (m_pExpress->ApplyREOnText(lpszFrom, lpszTo) == NULL)
                return false;
        }
        for (int i = 0; i <= m_nGroups; ++i) {
            const QOR_RegularExpressHelper::re_Base<char>* p = i == 0 ? m_pExpress.get() : m_pExpress->GetCaptureRE(i);
            result.arrBegin[i] = p->m_lpszResultBegin - lpszText;
            result.arrEnd[i] = p->m_lpszResultEnd - lpszText;
        }
        return true;
    }

private:
    int m_nGroups = 0;
    std::unique_ptr<QOR_RegularExpressHelper::reRegularExpress<char>> m_pExpress;
};

class standardRegex : public contender {
public:
    const char* name() const override { return "std::regex"; }
    void compile(const pattern& p) override {
        m_nGroups = p.nGroups;
        const auto eFold = p.bFold ? std::regex::icase : std::regex::flag_type();
        m_pRegex = std::make_unique<std::regex>(p.lpszUsual, std::regex::ECMAScript | std::regex::optimize | eFold);
    }
    bool match(const char* lpszText, const char* lpszFrom, const char* lpszTo, bool bSearch, found& result) override {
        const auto eWhere = bSearch ? std::regex_constants::match_default : std::regex_constants::match_continuous;
        if (!std::regex_search(lpszFrom, lpszTo, m_match, *m_pRegex, eWhere))
            return false;
        for (int i = 0; i <= m_nGroups; ++i) {
            const auto& sub = m_match[static_cast<size_t>(i)];
            result.arrBegin[i] = sub.first - lpszText;
            result.arrEnd[i] = sub.second - lpszText;
        }
        return true;
    }

private:
    int m_nGroups = 0;
    std::unique_ptr<std::regex> m_pRegex;
    std::cmatch m_match;
};

#ifdef QOR_BENCH_PCRE2
class pcre : public contender {
public:
    ~pcre() override { release(); }
    const char* name() const override { return "PCRE2"; }
    void compile(const pattern& p) override {
        release();
        m_nGroups = p.nGroups;
        int nError = 0;
        PCRE2_SIZE nAt = 0;
        m_pCode = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(p.lpszUsual), PCRE2_ZERO_TERMINATED,
                                p.bFold ? PCRE2_CASELESS : 0, &nError, &nAt, NULL);
        expect(m_pCode != NULL, name(), p.lpszUsual);
        m_pMatch = pcre2_match_data_create_from_pattern(m_pCode, NULL);
    }
    bool match(const char* lpszText, const char* lpszFrom, const char* lpszTo, bool bSearch, found& result) override {
        const int n =
            pcre2_match(m_pCode, reinterpret_cast<PCRE2_SPTR>(lpszFrom), static_cast<size_t>(lpszTo - lpszFrom), 0,
                        bSearch ? 0 : PCRE2_ANCHORED, m_pMatch, NULL);
        if (n <= 0)
            return false;
        const PCRE2_SIZE* pAt = pcre2_get_ovector_pointer(m_pMatch);
        for (int i = 0; i <= m_nGroups; ++i) {
            result.arrBegin[i] = static_cast<long>(pAt[2 * i]) + (lpszFrom - lpszText);
            result.arrEnd[i] = static_cast<long>(pAt[2 * i + 1]) + (lpszFrom - lpszText);
        }
        return true;
    }

private:
    void release() {
        pcre2_match_data_free(m_pMatch);
        pcre2_code_free(m_pCode);
    }

    int m_nGroups = 0;
    pcre2_code* m_pCode = NULL;
    pcre2_match_data* m_pMatch = NULL;
};
#endif

#ifdef QOR_BENCH_RE2
class re2Regex : public contender {
public:
    const char* name() const override { return "RE2"; }
    void compile(const pattern& p) override {
        m_nGroups = p.nGroups;
        RE2::Options options;
        options.set_case_sensitive(!p.bFold);
        options.set_encoding(RE2::Options::EncodingLatin1);
        m_pRegex = std::make_unique<RE2>(p.lpszUsual, options);
        expect(m_pRegex->ok(), name(), p.lpszUsual);
    }
    bool match(const char* lpszText, const char* lpszFrom, const char* lpszTo, bool bSearch, found& result) override {
        const re2::StringPiece text(lpszFrom, static_cast<size_t>(lpszTo - lpszFrom));
        re2::StringPiece arrGroup[maxGroups + 1];
        if (!m_pRegex->Match(text, 0, text.size(), bSearch ? RE2::UNANCHORED : RE2::ANCHOR_START, arrGroup,
                             m_nGroups + 1))
            return false;
        for (int i = 0; i <= m_nGroups; ++i) {
            result.arrBegin[i] = arrGroup[i].data() - lpszText;
            result.arrEnd[i] = result.arrBegin[i] + static_cast<long>(arrGroup[i].size());
        }
        return true;
    }

private:
    int m_nGroups = 0;
    std::unique_ptr<RE2> m_pRegex;
};
#endif

std::vector<std::unique_ptr<contender>> allContenders() {
    std::vector<std::unique_ptr<contender>> list;
    list.push_back(std::make_unique<libraryRegex>());
    list.push_back(std::make_unique<standardRegex>());
#ifdef QOR_BENCH_PCRE2
    list.push_back(std::make_unique<pcre>());
#endif
#ifdef QOR_BENCH_RE2
    list.push_back(std::make_unique<re2Regex>());
#endif
    return list;
}

// ---- the patterns and their subjects

#define USUAL_DATE "(\\d{4})-(\\d{2})-(\\d{2})"
#define OWN_DATE "(\\d{4})\\-(\\d{2})\\-(\\d{2})"

enum subject {
    subjectDate,
    subjectAddress,
    subjectLine,
    subjectRequest,
    subjectHeader,
    subjectId,
    subjectNumber,
    subjectText
};

struct matchCase {
    pattern pat;
    subject eSubject;
};

constexpr matchCase arrMatch[] = {
    {{"date", OWN_DATE, USUAL_DATE, 3, false}, subjectDate},
    {{"IP address", "(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})",
      "(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})", 4, false},
     subjectAddress},
    {{"INI line", "\\s*([\\w\\.]+)\\s*=\\s*(.*)", "\\s*([\\w.]+)\\s*=\\s*(.*)", 2, false}, subjectLine},
    {{"alternatives", "([(?:GET)(?:POST)(?:PUT)(?:DELETE)]) (/\\S*) HTTP/1\\.([01])",
      "(GET|POST|PUT|DELETE) (/\\S*) HTTP/1\\.([01])", 3, false},
     subjectRequest},
    {{"letters of either case", "content\\-length: *(\\d+)", "content-length: *(\\d+)", 1, true}, subjectHeader},
    {{"counted sets", "[0-9a-f]{8}\\-[0-9a-f]{4}\\-[0-9a-f]{4}\\-([0-9a-f]{12})",
      "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-([0-9a-f]{12})", 1, false},
     subjectId},
    {{"number", "[\\-\\+]?\\d+(?:\\.\\d+)?(?:[eE][\\-\\+]?\\d+)?", "[-+]?\\d+(?:\\.\\d+)?(?:[eE][-+]?\\d+)?", 0, false},
     subjectNumber},
    {{"quoted text", "\"([^\"]*)\"", "\"([^\"]*)\"", 1, false}, subjectText},
};

// One in eight does not match.
std::string subjectOf(subject eSubject, int i) {
    static const char* const arrVerb[] = {"GET", "POST", "PUT", "DELETE"};
    const bool bWrong = i % 8 == 5;
    char sz[160];
    switch (eSubject) {
        case subjectDate:
            snprintf(sz, sizeof(sz), "%04d-%02d%c%02d", 1990 + i, 1 + i % 12, bWrong ? '/' : '-', 1 + i % 28);
            break;
        case subjectAddress:
            snprintf(sz, sizeof(sz), "%d.%d%c%d.%d", i * 7 % 256, i * 31 % 256, bWrong ? ':' : '.', i % 3,
                     i * 101 % 256);
            break;
        case subjectLine:
            snprintf(sz, sizeof(sz), "%skey.%d%s some value with %d words", i % 2 ? "" : "  ", i, bWrong ? ":" : " =",
                     i * 17);
            break;
        case subjectRequest:
            snprintf(sz, sizeof(sz), "%s /devices/%d/state?part=%d HTTP/1.%c", arrVerb[i * 5 % 4], i, i % 5,
                     bWrong ? '2' : '1');
            break;
        case subjectHeader:
            snprintf(sz, sizeof(sz), "%s: %d",
                     i % 2 ? (bWrong ? "Content-Language" : "Content-Length") : "content-length", i * 997);
            break;
        case subjectId:
            snprintf(sz, sizeof(sz), "%08x-%04x-%04x-%08x%s", i * 2654435761u, i, i * 77 & 0xFFFF, i * 40503u,
                     bWrong ? "zz" : "01ef");
            break;
        case subjectNumber:
            snprintf(sz, sizeof(sz), i % 2 ? "-%d.%de+%d" : "%d.%d", bWrong ? -i : i * 37, i, i % 30);
            break;
        default:
            snprintf(sz, sizeof(sz), "\"the quick brown fox jumps over %d dogs%s", i, bWrong ? "" : "\" and more");
    }
    return sz;
}

// What is searched for, every match in the text.
constexpr pattern arrSearch[] = {
    {"rare word", "emergency", "emergency", 0, false},
    {"rare word of either case", "EMERGENCY", "EMERGENCY", 0, true},
    {"rare alternatives", "[(?:emergency)(?:disaster)(?:overflow)]", "emergency|disaster|overflow", 0, false},
    {"date in every line", OWN_DATE, USUAL_DATE, 3, false},
    {"rare address", "(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})",
     "(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})\\.(\\d{1,3})", 4, false},
    {"rare assignment", "(\\w+)=(\\w+)", "(\\w+)=(\\w+)", 2, false},
    {"every word", "[a-zA-Z]+", "[a-zA-Z]+", 0, false},
    {"quoted texts", "\"([^\"]*)\"", "\"([^\"]*)\"", 1, false},
};

// A log of nSize bytes and a little more.
std::string logText(size_t nSize) {
    std::string str;
    char sz[256];
    for (int i = 0; str.size() < nSize; ++i) {
        snprintf(sz, sizeof(sz),
                 "2026-%02d-%02d 12:%02d:%02d unit %d said \"%d of %d parts are there\" and went on with its "
                 "work\n",
                 1 + i % 12, 1 + i % 28, i / 60 % 60, i % 60, i % 17, i, i + 5);
        str += sz;
        if (i % 500 == 499)
            str += "an emergency or an overflow at 10.0.17.4 with state=closed\n";
    }
    return str;
}

// ---- everybody finds the same

bool isSame(const found& a, const found& b, int nGroups) {
    const size_t n = static_cast<size_t>(nGroups + 1) * sizeof(long);
    return memcmp(a.arrBegin, b.arrBegin, n) == 0 && memcmp(a.arrEnd, b.arrEnd, n) == 0;
}

void checkMatch(const std::vector<std::unique_ptr<contender>>& list, const pattern& p, const std::string& str) {
    found first;
    const char* const lpsz = str.c_str();
    const bool bFirst = list[0]->match(lpsz, lpsz, lpsz + str.size(), false, first);
    for (const auto& other : list) {
        found result;
        const bool bResult = other->match(lpsz, lpsz, lpsz + str.size(), false, result);
        expect(bResult == bFirst && (!bFirst || isSame(first, result, p.nGroups)), other->name(), str.c_str());
    }
}

std::vector<found> allIn(contender& c, const std::string& str) {
    std::vector<found> list;
    const char* const lpszTo = str.c_str() + str.size();
    found result = {};
    for (const char* lpsz = str.c_str(); c.match(str.c_str(), lpsz, lpszTo, true, result);
         lpsz = str.c_str() + result.arrEnd[0])
        list.push_back(result);
    return list;
}

void checkSearch(const std::vector<std::unique_ptr<contender>>& list, const pattern& p, const std::string& str) {
    const std::vector<found> first = allIn(*list[0], str);
    expect(!first.empty(), p.lpszName, "finds nothing");
    for (const auto& other : list) {
        const std::vector<found> result = allIn(*other, str);
        expect(result.size() == first.size(), other->name(), p.lpszUsual);
        for (size_t i = 0; i < first.size(); ++i)
            expect(isSame(first[i], result[i], p.nGroups), other->name(), p.lpszUsual);
    }
}

// ---- measurements

// The products of the ratios against qor, to say what they are in the middle.
class summary {
public:
    void add(const std::vector<double>& arrTime) {
        m_arrSum.resize(arrTime.size());
        for (size_t i = 0; i < arrTime.size(); ++i)
            m_arrSum[i] += std::log(arrTime[i] / arrTime[0]);
        ++m_nCount;
    }
    void print(const std::vector<std::unique_ptr<contender>>& list) const {
        printf("  %-24s", "geometric mean");
        for (size_t i = 0; i < list.size(); ++i)
            printf("  %-10s %9s %6.2f", list[i]->name(), "", std::exp(m_arrSum[i] / m_nCount));
        printf("\n\n");
    }
    // qor against another; 0 when that is not there.
    double against(const char* lpszName, const std::vector<std::unique_ptr<contender>>& list) const {
        for (size_t i = 0; i < list.size(); ++i)
            if (strcmp(list[i]->name(), lpszName) == 0)
                return std::exp(-m_arrSum[i] / m_nCount);
        return 0;
    }

private:
    std::vector<double> m_arrSum;
    int m_nCount = 0;
};

// Geometric means of qor's time against the others'.
struct ratios {
    double nStandard, nPcre;
};

void printGoals(const char* lpszWhat, const ratios& r) {
    printGoal((std::string(lpszWhat) + " / std::regex").c_str(), r.nStandard, 0.2);
    if (r.nPcre > 0)
        printGoal((std::string(lpszWhat) + " / PCRE2").c_str(), r.nPcre, 2.0);
}

void printLine(const char* lpszName, const std::vector<std::unique_ptr<contender>>& list,
               const std::vector<double>& arrTime, double nUnits) {
    printf("  %-24s", lpszName);
    for (size_t i = 0; i < list.size(); ++i)
        printf("  %-10s %9.2f %6.2f", list[i]->name(), arrTime[i] / nUnits, arrTime[i] / arrTime[0]);
    printf("\n");
    fflush(stdout);
}

ratios printCompiles(bool bMatch) {
    constexpr int nTimes = 50;
    printf("compiling%s and deleting (us; against qor)\n", bMatch ? ", the first match" : "");
    const auto list = allContenders();
    summary all;
    for (const matchCase& c : arrMatch) {
        const std::string str = subjectOf(c.eSubject, 0);
        std::vector<std::function<void()>> listRun;
        for (const auto& p : list)
            listRun.push_back([&]() {
                found result;
                for (int i = 0; i < nTimes; ++i) {
                    p->compile(c.pat);
                    if (bMatch)
                        p->match(str.c_str(), str.c_str(), str.c_str() + str.size(), false, result);
                }
            });
        const std::vector<double> arrTime = mediansSpent(400000, s_nRepeat, listRun);
        all.add(arrTime);
        printLine(c.pat.lpszName, list, arrTime, nTimes * 1000);
    }
    all.print(list);
    return {all.against("std::regex", list), all.against("PCRE2", list)};
}

ratios printMatches() {
    constexpr int countSubject = 256;
    printf("matching at a place, subjects of one line, one in eight fails (ns; against qor)\n");
    const auto list = allContenders();
    summary all;
    for (const matchCase& c : arrMatch) {
        std::vector<std::string> arrText;
        for (int i = 0; i < countSubject; ++i)
            arrText.push_back(subjectOf(c.eSubject, i));
        std::vector<std::function<void()>> listRun;
        for (const auto& p : list) {
            p->compile(c.pat);
            listRun.push_back([&]() {
                found result;
                for (const std::string& str : arrText)
                    p->match(str.c_str(), str.c_str(), str.c_str() + str.size(), false, result);
            });
        }
        for (const std::string& str : arrText)
            checkMatch(list, c.pat, str);
        const std::vector<double> arrTime = mediansSpent(200000, s_nRepeat, listRun);
        all.add(arrTime);
        printLine(c.pat.lpszName, list, arrTime, countSubject);
    }
    all.print(list);
    return {all.against("std::regex", list), all.against("PCRE2", list)};
}

ratios printSearches() {
    const std::string strText = logText(500000);
    printf("every match in a log of %zu bytes (ns per byte; against qor)\n", strText.size());
    const auto list = allContenders();
    summary all;
    for (const pattern& c : arrSearch) {
        std::vector<std::function<void()>> listRun;
        for (const auto& p : list) {
            p->compile(c);
            listRun.push_back([&]() {
                found result = {};
                const char* const lpszTo = strText.c_str() + strText.size();
                for (const char* lpsz = strText.c_str(); p->match(strText.c_str(), lpsz, lpszTo, true, result);)
                    lpsz = strText.c_str() + result.arrEnd[0];
            });
        }
        checkSearch(list, c, strText);
        const std::vector<double> arrTime = mediansSpent(4000000, s_nRepeat, listRun);
        all.add(arrTime);
        printLine(c.lpszName, list, arrTime, static_cast<double>(strText.size()));
    }
    all.print(list);
    return {all.against("std::regex", list), all.against("PCRE2", list)};
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && strcmp(argv[1], "--quick") == 0) {
        s_nRepeat = 0.05;
    } else if (argc > 1) {
        fprintf(stderr, "usage: qor_bench_regex [--quick]\n");
        return 2;
    }
    pin(0);
    const ratios compiling = printCompiles(false);
    printCompiles(true);
    const ratios matching = printMatches();
    const ratios searching = printSearches();
    printf("goals, geometric means\n");
    printGoals("compiling", compiling);
    printGoals("matching at a place", matching);
    printGoals("searching", searching);
    return 0;
}
