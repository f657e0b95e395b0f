// The program: everything is in launcher.cpp, so that a test can run it.
#include "launcher.h"

int main(int nCount, char** lpszArguments) { return device::deviceMain(nCount, lpszArguments); }
