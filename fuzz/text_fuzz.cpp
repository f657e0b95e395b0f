// Text files and words: any bytes are read as lines, as UTF-16 and UTF-8 text, as stored numbers and strings, whole,
// and as phrases between tokens.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "input.h"
#include "qor/FileHelper.h"

using namespace QOR_FileHelper;
using namespace QOR_StringHelper;

namespace {

const char szName[] = "/tmp/fuzz.txt";

void readLines() {
    chFileStdio file;
    expect(file.Open(szName));
    chReferenceStringT<char> str;
    while (!file.IsEOF())
        expect(file.ReadString(str) == !str.IsEmpty());
    file.SeekToBegin();
    int nValue = 0;
    double dValue = 0;
    while ((file >> nValue >> str) == file && (file >> dValue) == file) {
    }
}

void readWide() {
    chFile_WText file;
    if (!file.Open(szName))
        return;
    chReferenceStringT<unsigned short> wstr;
    while (!file.IsEOF())
        file.ReadString(wstr);
}

void readUtf8() {
    chFile_UTF8Text file;
    if (!file.Open(szName))
        return;
    chReferenceStringT<char> str;
    while (file.ReadString(str)) {
        const char* lpsz = str;
        while (const char* lpszNext = chUTF8Inc(lpsz))
            lpsz = lpszNext;
        for (lpsz = str; *lpsz != 0;)
            chUTF8Word(lpsz);
        expect(lpsz == str + str.GetLength());
    }
}

void readWhole(const uint8_t* pData, size_t nSize) {
    const auto arrByte = qorDumpBinFile(szName);
    expect(static_cast<size_t>(arrByte.GetSize()) == nSize);
    expect(nSize == 0 || memcmp(arrByte.GetBuffer(), pData, nSize) == 0);
    const std::string strText(reinterpret_cast<const char*>(pData), nSize);
    expect(strcmp(qorDumpTextFileA(szName), strText.c_str()) == 0);
    expect(static_cast<size_t>(qorDumpTextFileW(szName).GetLength()) <= nSize / 2);
}

// Every call moves on, and no phrase leaves the text.
void peekPhrases(const std::string& strText) {
    const char* const lpszEnd = strText.c_str() + strlen(strText.c_str());
    chConstTextT<char> phrase;
    for (int nForm = 0; nForm < 3; ++nForm)
        for (const char* lpsz = strText.c_str(); lpsz != lpszEnd;) {
            const char* const lpszFrom = lpsz;
            const int nFound = nForm == 0   ? qorPeekPhraseByCharToken(lpsz, phrase, '=')
                               : nForm == 1 ? qorPeekPhraseByCharTokens(lpsz, phrase, ";,")
                                            : qorPeekPhraseByStringTokens(lpsz, phrase, "ab", "\n", nullptr);
            expect(lpsz > lpszFrom && lpsz <= lpszEnd);
            if (nFound < 0)
                break;
            const char* lpszPhrase = phrase;
            expect(lpszPhrase >= lpszFrom && lpszPhrase + phrase.GetLength() <= lpszEnd);
        }
    chConstTextT<char> arrPart[4];
    expect(qorTextBreak(strText.c_str(), ',', arrPart, 4) >= 1);
    expect(qorGetWords(strText.c_str(), arrPart, 4) >= 0);
    int nValue = 0;
    double dValue = 0;
    chReferenceStringT<char>(strText.c_str()) >> nValue;
    chReferenceStringT<char>(strText.c_str()) >> dValue;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    putInput(szName, pData, nSize);
    readLines();
    readWide();
    readUtf8();
    readWhole(pData, nSize);
    peekPhrases(std::string(reinterpret_cast<const char*>(pData), nSize));
    return 0;
}
