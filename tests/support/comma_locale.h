// A locale that writes 1.5 as "1,5", for the calling process as long as the object lives. Machines without any locale
// but C have it too: its file is written here, in the form in which the C library reads compiled locales.
#ifndef QOR_TESTS_SUPPORT_COMMA_LOCALE_H
#define QOR_TESTS_SUPPORT_COMMA_LOCALE_H

#include <locale.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <string>

#include "support/filebytes.h"

namespace qorTest {

class commaLocale {
public:
    commaLocale() {
        mkdir("/tmp/locale", 0777);
        mkdir("/tmp/locale/xx_XX", 0777);
        putFile("/tmp/locale/xx_XX/LC_NUMERIC", compiledNumeric());
        setenv("LOCPATH", "/tmp/locale", 1);
        m_bSet = setlocale(LC_NUMERIC, "xx_XX") != nullptr;
        unsetenv("LOCPATH");
    }
    commaLocale(const commaLocale&) = delete;
    commaLocale& operator=(const commaLocale&) = delete;
    ~commaLocale() { setlocale(LC_NUMERIC, "C"); }

    bool isSet() const { return m_bSet; }

private:
    static void append(std::string& str, uint32_t uWord) {
        str.append(reinterpret_cast<const char*>(&uWord), sizeof(uWord));
    }

    // The decimal point, the separator of thousands and their grouping, the first two as wide characters, and the
    // character set; in front of them a magic number, their count and their offsets.
    static std::string compiledNumeric() {
        std::string strHead, strBody;
        append(strHead, 0x20031115u ^ LC_NUMERIC);
        append(strHead, 6);
        const uint32_t sizeHead = 8 + 6 * sizeof(uint32_t);
        const auto addText = [&](const std::string& str) {
            append(strHead, sizeHead + static_cast<uint32_t>(strBody.size()));
            strBody += str;
            strBody.resize((strBody.size() + 4) / 4 * 4);  // with a NUL at least
        };
        const auto addWord = [&](uint32_t uWord) {
            append(strHead, sizeHead + static_cast<uint32_t>(strBody.size()));
            append(strBody, uWord);
        };
        addText(",");
        addText("");
        addText(std::string(1, '\x7F'));  // no grouping
        addWord(',');
        addWord(0);
        addText("UTF-8");
        return strHead + strBody;
    }

    bool m_bSet = false;
};

}  // namespace qorTest

#endif
