// What targets share: inputs that become files, and what must hold.
#ifndef QOR_FUZZ_INPUT_H
#define QOR_FUZZ_INPUT_H

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

inline void expect(bool bGood) {
    if (!bGood)
        abort();
}

// Makes a file of the input, which may be empty and null.
inline void putInput(const char* lpszName, const void* pData, size_t nSize) {
    FILE* pFile = fopen(lpszName, "wb");
    expect(pFile != NULL);
    expect(nSize == 0 || fwrite(pData, 1, nSize, pFile) == nSize);
    expect(fclose(pFile) == 0);
}

#endif
