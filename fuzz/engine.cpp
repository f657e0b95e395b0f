// What libFuzzer needs beside the target: a program of its own namespaces.
#include "support/isolation.h"

extern "C" int LLVMFuzzerInitialize(int* pnArgument, char*** pppArgument) {
    qorTest::isolate(*pnArgument, *pppArgument);
    return 0;
}
