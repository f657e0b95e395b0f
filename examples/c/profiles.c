/* An old program's settings: files by name, some of which have moved. */
#include <stdio.h>

#include "qor/flat.h"

int main(void) {
    static const char szFile[] = "/tmp/home/old.ini";
    char szValue[64], szSections[64];
    HINIFILE hFile;
    FILE* pFile = fopen(szFile, "w");
    if (pFile == NULL)
        return 1;
    fputs("[line]\nname = one\nrings = 4\n", pFile);
    fclose(pFile);

    hFile = profileOpen(szFile);
    if (hFile == NULL) /* unlike registryOpen(), it makes no document of a file that is not there */
        return 1;
    profileGetStringN(hFile, "line", "name", szValue, (int)sizeof(szValue), "none");
    profileListSections(hFile, szSections, (int)sizeof(szSections));
    printf("%s rings %d times\n", szValue, profileGetInt(hFile, "line", "rings", 0));
    printf("sections:\n%s", szSections);
    printf("no file: %d\n", profileOpen("/tmp/home/none.ini") == NULL);
    profileDeleteKey(hFile, "line", "rings");
    printf("rings %d\n", qorGetProfileInt(szFile, "line", "rings", -1));
    profileClose(hFile);
    return 0;
}
