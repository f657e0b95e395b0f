// Code pages: any bytes are a table, and any text is converted with it, there and back. An input is the size of
// a table in one byte, the table, and text. What a conversion yields is what the single look-ups say.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

#include "input.h"
#include "qor/CodePage.h"

using QOR_CodePage::chCodePage;

namespace {

const char szName[] = "/tmp/fuzz.tbl";

typedef std::vector<unsigned short> units;

// Every entry's wide character is found, and no code yields what the table does not hold.
void lookUp(const chCodePage& page, const uint8_t* pData, size_t nEntries) {
    for (size_t i = 0; i < nEntries; ++i) {
        const auto word = [&](size_t n) { return static_cast<unsigned short>(pData[n] << 8 | pData[n + 1]); };
        const unsigned short wChar = page.MBCS2W_fast(word(4 * i + 2));
        bool bHeld = wChar == '?';
        for (size_t j = 0; j < nEntries && !bHeld; ++j)
            bHeld = word(4 * j) == wChar && word(4 * j + 2) == word(4 * i + 2);
        expect(bHeld);
        size_t nFirst = 0;
        while (word(4 * nFirst) != word(4 * i))
            ++nFirst;
        expect(page.W2MBCS_slow(word(4 * i)) == word(4 * nFirst + 2));
    }
}

units toWide(const chCodePage& page, const std::string& strText) {
    units listUnit;
    for (const char* lpsz = strText.c_str(); *lpsz != 0; ++lpsz) {
        const unsigned uLead = static_cast<unsigned char>(*lpsz);
        if (uLead < 0x80)
            listUnit.push_back(static_cast<unsigned short>(uLead));
        else if (uLead == 0x80 || uLead == 0xFF || lpsz[1] == 0)
            listUnit.push_back('?');
        else
            listUnit.push_back(
                page.MBCS2W_fast(static_cast<unsigned short>(uLead << 8 | static_cast<unsigned char>(*++lpsz))));
    }
    return listUnit;
}

std::string toBytes(const chCodePage& page, const units& listUnit) {
    std::string str;
    for (const unsigned short wChar : listUnit) {
        const bool bOutside = wChar == 0x80 || wChar == 0xFF;
        const unsigned uCode = wChar < 0x80 ? wChar : bOutside ? '?' : page.W2MBCS_slow(wChar);
        if (wChar >= 0x80 && !bOutside)
            str += static_cast<char>(uCode >> 8);
        str += static_cast<char>(uCode);
    }
    return str;
}

void convert(const chCodePage& page, const std::string& strText) {
    const auto wstr = page.MBCS2W(strText.c_str());
    const unsigned short* lpszTextW = wstr;
    units listUnit = toWide(page, strText);
    expect(listUnit == units(lpszTextW, lpszTextW + wstr.GetLength()) && lpszTextW[wstr.GetLength()] == 0);

    listUnit.erase(std::find(listUnit.begin(), listUnit.end(), 0), listUnit.end());
    const auto str = page.W2MBCS(wstr);
    const char* lpszText = str;
    expect(toBytes(page, listUnit) == std::string(lpszText, lpszText + str.GetLength()));
    expect(lpszText[str.GetLength()] == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    if (nSize == 0)
        return 0;
    const size_t nTable = std::min<size_t>(pData[0], nSize - 1);
    putInput(szName, pData + 1, nTable);
    chCodePage page(szName);
    expect(page.LoadCodePageFile(szName) == (nTable >= 4));
    lookUp(page, pData + 1, nTable / 4);
    convert(page, std::string(reinterpret_cast<const char*>(pData) + 1 + nTable, nSize - 1 - nTable));
    page.UnloadCodePageFile();
    convert(page, "a\xA4\xA4");
    return 0;
}
