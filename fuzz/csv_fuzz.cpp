// Comma-separated values: any text is read record by record to its end; a record that was built from one that was read
// is read back as it is.
#include <stdint.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "qor/FileHelper.h"

using namespace QOR_FileHelper;

namespace {

typedef QOR_StringHelper::chReferenceStringT<char> refString;

constexpr size_t maxBuilt = 4;  // fields of a record that is built

std::vector<std::string> listOf(csvFields& fields) {
    std::vector<std::string> listField;
    for (csvFields::iterator it = fields.begin(); it != fields.end(); ++it)
        listField.push_back(static_cast<const char*>(*it));
    if (listField.size() > maxBuilt)
        listField.resize(maxBuilt);
    return listField;
}

std::vector<std::string> rebuilt(const std::vector<std::string>& listField) {
    const char* aField[maxBuilt] = {};
    for (size_t i = 0; i < listField.size(); ++i)
        aField[i] = listField[i].c_str();
    refString strLine;
    qorBuildCSVLine(strLine, static_cast<int>(listField.size()), aField[0], aField[1], aField[2], aField[3]);
    csvFields fields;
    const char* lpszEnd = qorPeekCSVRecord(strLine, fields);
    if (lpszEnd == NULL || *lpszEnd != 0)
        abort();
    return listOf(fields);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    const std::string strText(reinterpret_cast<const char*>(pData), nSize);
    const char* const lpszEnd = strText.c_str() + nSize;
    csvFields fields;
    for (const char* lpsz = strText.c_str(); *lpsz != 0;) {
        const char* lpszNext = qorPeekCSVRecord(lpsz, fields);
        if (lpszNext == NULL || lpszNext <= lpsz || lpszNext > lpszEnd || fields.empty())
            abort();
        // White space that needed no quotes is cut once.
        const std::vector<std::string> listOnce = rebuilt(listOf(fields));
        if (listOnce != rebuilt(listOnce))
            abort();
        lpsz = lpszNext;
    }
    return 0;
}
