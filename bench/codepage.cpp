// Code pages: both conversions of double-byte text, beside the system's own, iconv(3).
//
// usage: qor_bench_codepage [--quick] [DIRECTORY]
//
// DIRECTORY holds the tables that scripts/codepages makes; build/codepages by default. Before
// anything is measured, both must convert every text alike.
#include "qor/CodePage.h"

#include <iconv.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>

#include "support.h"

using namespace bench;

namespace {

double s_nRepeat = 1;
std::string s_strTables = "build/codepages";

void fail(const char* lpszWho, const char* lpszWhat) {
    fprintf(stderr, "%s: %s\n", lpszWho, lpszWhat);
    exit(1);
}

// ---- who converts: each conversion makes a text and deletes it

class systemPage {
public:
    explicit systemPage(const char* lpszSet) {
        m_toWide = open("UTF-16LE", lpszSet);
        m_toBytes = open(lpszSet, "UTF-16LE");
    }
    ~systemPage() {
        iconv_close(m_toWide);
        iconv_close(m_toBytes);
    }
    // The bytes that were written into a buffer for the longest result; -1: the text holds what has no other
    // side.
    long toWide(const char* p, size_t nSize, std::unique_ptr<char[]>& arrTo) {
        return convert(m_toWide, p, nSize, 2 * nSize, arrTo);
    }
    long toBytes(const char* p, size_t nSize, std::unique_ptr<char[]>& arrTo) {
        return convert(m_toBytes, p, nSize, nSize, arrTo);
    }

private:
    static iconv_t open(const char* lpszTo, const char* lpszFrom) {
        const iconv_t id = iconv_open(lpszTo, lpszFrom);
        if (id == reinterpret_cast<iconv_t>(-1))
            fail(lpszFrom, "the system has no conversion");
        return id;
    }
    static long convert(iconv_t id, const char* p, size_t nSize, size_t nRoom, std::unique_ptr<char[]>& arrTo) {
        arrTo.reset(new char[nRoom]);
        char* lpszFrom = const_cast<char*>(p);
        char* lpszTo = arrTo.get();
        iconv(id, NULL, NULL, NULL, NULL);
        if (iconv(id, &lpszFrom, &nSize, &lpszTo, &nRoom) != 0)
            return -1;
        return lpszTo - arrTo.get();
    }

    iconv_t m_toWide, m_toBytes;
};

// ---- the texts

// The codes that have the same other side for both, and lead back to themselves.
std::vector<unsigned> commonCodes(const QOR_CodePage::chCodePage& page, systemPage& other) {
    std::vector<unsigned> list;
    std::unique_ptr<char[]> arrWide, arrBytes;
    for (unsigned uCode = 0x8100; uCode < 0xFF00; ++uCode) {
        const char sz[] = {static_cast<char>(uCode >> 8), static_cast<char>(uCode), 0};
        const unsigned short wChar = page.MBCS2W_fast(static_cast<unsigned short>(uCode));
        if (sz[1] == 0 || wChar == '?' || page.W2MBCS_slow(wChar) != uCode)
            continue;
        if (other.toWide(sz, 2, arrWide) == 2 && memcmp(arrWide.get(), &wChar, 2) == 0 &&
            other.toBytes(arrWide.get(), 2, arrBytes) == 2 && memcmp(arrBytes.get(), sz, 2) == 0)
            list.push_back(uCode);
    }
    return list;
}

// A text of nSize bytes or one more; nAscii percent of its characters are ASCII, which come in words. Of the
// codes, nCodes are drawn, the first ones most often, as in a language; 0: all alike.
std::string textOf(const std::vector<unsigned>& listCode, size_t nSize, unsigned uAscii, size_t nCodes) {
    std::mt19937 engine(7);
    std::string str;
    bool bAscii = false;
    while (str.size() < nSize) {
        if (engine() % 8 == 0)
            bAscii = engine() % 100 < uAscii;
        if (bAscii) {
            str += static_cast<char>(engine() % 6 == 0 ? ' ' : 'a' + engine() % 26);
            continue;
        }
        size_t n = engine() % listCode.size();
        if (nCodes != 0)
            n = (engine() % nCodes * (engine() % nCodes) / nCodes) * listCode.size() / nCodes;
        str += static_cast<char>(listCode[n] >> 8);
        str += static_cast<char>(listCode[n]);
    }
    return str;
}

// ---- measurements

void checkText(const char* lpszSet, const QOR_CodePage::chCodePage& page, systemPage& other,
               const std::string& strText) {
    std::unique_ptr<char[]> arrTo;
    const auto wstr = page.MBCS2W(strText.c_str());
    const long nWide = 2L * wstr.GetLength();
    const unsigned short* const lpszWide = wstr;
    if (other.toWide(strText.data(), strText.size(), arrTo) != nWide ||
        memcmp(arrTo.get(), lpszWide, static_cast<size_t>(nWide)) != 0)
        fail(lpszSet, "another wide text than iconv's");
    const auto str = page.W2MBCS(lpszWide);
    if (str.GetLength() != static_cast<int>(strText.size()) || memcmp(str, strText.data(), strText.size()) != 0)
        fail(lpszSet, "wide text does not become what it was");
}

void printText(const char* lpszSet, const QOR_CodePage::chCodePage& page, systemPage& other, const char* lpszShape,
               const std::string& strText) {
    checkText(lpszSet, page, other, strText);
    const auto wstr = page.MBCS2W(strText.c_str());
    const unsigned short* const lpszWide = wstr;
    const size_t nWide = 2 * static_cast<size_t>(wstr.GetLength());
    std::unique_ptr<char[]> arrTo;
    const auto toBytes = [&]() {
        other.toBytes(static_cast<const char*>(static_cast<const void*>(lpszWide)), nWide, arrTo);
    };
    const double nSize = static_cast<double>(strText.size());
    const auto arrWide = mediansSpent(
        strText.size(), s_nRepeat,
        {[&]() { page.MBCS2W(strText.c_str()); }, [&]() { other.toWide(strText.data(), strText.size(), arrTo); }});
    const auto arrBytes = mediansSpent(strText.size(), s_nRepeat, {[&]() { page.W2MBCS(lpszWide); }, toBytes});
    printf(
        "  %-7s %-20s %8zu bytes   to wide: qor %6.2f  iconv %6.2f %6.2f   to bytes: qor %6.2f  iconv %6.2f "
        "%6.2f\n",
        lpszSet, lpszShape, strText.size(), arrWide[0] / nSize, arrWide[1] / nSize, arrWide[1] / arrWide[0],
        arrBytes[0] / nSize, arrBytes[1] / nSize, arrBytes[1] / arrBytes[0]);
    fflush(stdout);
}

void printSet(const char* lpszSet) {
    const std::string strFile = s_strTables + "/" + lpszSet + ".tbl";
    const QOR_CodePage::chCodePage page(strFile.c_str());
    if (page.MBCS2W("\xB0\xA1").GetLength() != 1)
        fail(strFile.c_str(), "no such table; scripts/codepages makes it");
    systemPage other(lpszSet);
    const std::vector<unsigned> listCode = commonCodes(page, other);
    if (listCode.size() < 1000)
        fail(lpszSet, "hardly a code is the same on both sides");
    for (const size_t nSize : {size_t(1000), size_t(1000000)}) {
        printText(lpszSet, page, other, "as in a language", textOf(listCode, nSize, 5, 3000));
        printText(lpszSet, page, other, "half of it ASCII", textOf(listCode, nSize, 67, 3000));
        printText(lpszSet, page, other, "all codes alike", textOf(listCode, nSize, 0, 0));
    }
}

void printLoads() {
    printf("loading a table (us)\n");
    for (const char* lpszSet : {"BIG5", "GBK", "EUC-KR"}) {
        const std::string strFile = s_strTables + "/" + lpszSet + ".tbl";
        const double nLoad = medianSpent(1000000, s_nRepeat, [&]() { QOR_CodePage::chCodePage page(strFile.c_str()); });
        printf("  %-7s %8.1f\n", lpszSet, nLoad / 1000);
    }
    printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    int iArgument = 1;
    if (argc > iArgument && strcmp(argv[iArgument], "--quick") == 0) {
        s_nRepeat = 0.05;
        ++iArgument;
    }
    if (argc > iArgument + 1 || (argc > iArgument && argv[iArgument][0] == '-')) {
        fprintf(stderr, "usage: qor_bench_codepage [--quick] [DIRECTORY]\n");
        return 2;
    }
    if (argc > iArgument)
        s_strTables = argv[iArgument];
    pin(0);
    printLoads();
    printf("conversions (ns per byte of the double-byte text; iconv against qor)\n");
    for (const char* lpszSet : {"BIG5", "GBK", "EUC-KR"})
        printSet(lpszSet);
    printf("\n");
    return 0;
}
