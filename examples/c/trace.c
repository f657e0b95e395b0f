/* Trace lines of a program that has its own tag. */
#include <stdarg.h>
#include <stdio.h>

#include "qor/flat.h"

/* A program's own trace function: for levels, or to write each line elsewhere as well. */
static void note(const char* lpszFormat, ...) __attribute__((format(printf, 1, 2)));
static void note(const char* lpszFormat, ...) {
    va_list args;
    va_start(args, lpszFormat);
    tracePrintfV(lpszFormat, args);
    va_end(args);
}

int main(void) {
    szTraceAuthor = "PMP"; /* a constant: the library keeps the address */
    traceSetFileClock(1);  /* with date and time in front, in log files */
    tracePrintf("pump %d", 3);
    note("%s: %.1f bar", "pressure", 2.5);
    printf("version %s, %d\n", _szVersion_VER_QOR_LIB, doubleMIN > 0 && doubleMAX < doubleINF);
    return 0;
}
