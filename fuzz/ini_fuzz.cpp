// INI files: any bytes are loaded, looked up, changed and saved; what was saved once is saved the same again, and is
// what the look-ups by index and by walk agree on.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "input.h"
#include "qor/FileHelper.h"

using namespace QOR_FileHelper;

namespace {

const char szName[] = "/tmp/fuzz.ini";

std::string get() {
    std::string strText;
    FILE* pFile = fopen(szName, "rb");
    if (pFile == NULL)
        abort();
    char sz[4096];
    while (const size_t nRead = fread(sz, 1, sizeof(sz), pFile))
        strText.append(sz, nRead);
    fclose(pFile);
    return strText;
}

// Every name is found, and found first.
void lookUp(const iniObjList& list) {
    for (iniObjList::iterator it = list.begin(); it != list.end(); ++it) {
        iniObject* pObject = *it;
        if (pObject->type() == iniLineComment)
            continue;
        if (list.FindObject(pObject->type(), pObject->key()) != pObject)
            abort();
        if (pObject->type() == iniLineSection)
            lookUp(*static_cast<iniSection*>(pObject));
    }
}

std::string savedAgain() {
    iniFile file;
    if (!file.LoadFromFile(szName))
        abort();
    lookUp(file);
    if (!file.SaveToFile(NULL))
        abort();
    return get();
}

// Changes something of every kind in the loaded document.
void change() {
    iniFile file(szName);
    file.GetIntValue("a", "k", 0);
    file.GetFloatValue("a", "k", 0);
    file.SetTextValue("a", "k", "v");
    file.SetTextValue("A", "other", "0x1F");
    if (!file.empty())
        file.list_erase_object(file.front());
    lookUp(file);
    if (!file.SaveToFile(NULL))
        abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t nSize) {
    putInput(szName, pData, nSize);
    std::string strSaved = savedAgain();
    if (strSaved != savedAgain())
        abort();
    change();
    strSaved = get();
    if (strSaved != savedAgain())
        abort();
    return 0;
}
