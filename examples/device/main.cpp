#include "launcher.h"

int main(int nCount, char** lpszArguments) { return device::deviceMain(nCount, lpszArguments); }
