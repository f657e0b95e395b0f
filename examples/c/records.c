/* Records: whole lines in files that rotate, whatever ends the writer. */
#include <stdio.h>
#include <string.h>

#include "qor/flat.h"

static int copyLines(const char* lpszFile) {
    char szLine[80];
    FILE* pFile = fopen(lpszFile, "r");
    if (pFile == NULL)
        return 0;
    while (fgets(szLine, (int)sizeof(szLine), pFile) != NULL)
        printf("%s: %s", strrchr(lpszFile, '/') + 1, szLine);
    return fclose(pFile) == 0;
}

int main(void) {
    int i;
    char szLine[32];
    HRECORD hRecord = recordOpen("/tmp/home/alarms", 24, 2); /* two files of 24 bytes at most */
    if (hRecord == NULL) {                                   /* another writer has it open, or errno says what else */
        perror("/tmp/home/alarms");
        return 1;
    }
    for (i = 1; i <= 5; ++i) {
        snprintf(szLine, sizeof(szLine), "alarm %d", i);
        if (!recordWrite(hRecord, szLine, 0)) /* a full disk costs this record; the next one is tried again */
            perror("/tmp/home/alarms");
    }
    recordSync(hRecord); /* from here on a power cut takes none of them; recordWrite(..., 1) does it for each */
    printf("refused: %d\n", recordWrite(hRecord, "two\nlines", 0));
    recordClose(hRecord);
    return copyLines("/tmp/home/alarms.1") && copyLines("/tmp/home/alarms") ? 0 : 1;
}
