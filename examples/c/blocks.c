/* A block of memory that every process of the device sees, used under its lock. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qor/flat.h"

/* Words of fixed width and no pointers. It stays until the device restarts: a restarted program finds it as it was. */
typedef struct boiler {
    uint32_t uStarts;
    int32_t nTemperature;
} boiler;

/* The block, locked: call nameHelperUnlock() after a few instructions. Between the two, no function that flat.h marks
 * "Not under nameHelperLock()": no message, no trace line, no tick. */
static boiler* lockBoiler(void) {
    int bCreated = 0;
    boiler* pBoiler;
    nameHelperLock();
    pBoiler = (boiler*)nameGetSystemObject("boiler", (int)sizeof(boiler), &bCreated);
    if (bCreated)
        pBoiler->nTemperature = 20; /* all else is 0 */
    return pBoiler;
}

static void start(int nTemperature) {
    boiler* pBoiler = lockBoiler();
    ++pBoiler->uStarts;
    pBoiler->nTemperature += nTemperature;
    nameHelperUnlock();
}

int main(void) {
    boiler copy;
    pid_t id;
    start(1);
    id = fork(); /* before this process registers a thread */
    if (id == 0) {
        start(2);
        _exit(0);
    }
    waitpid(id, NULL, 0);
    copy = *lockBoiler(); /* take what is needed, and print it when the lock is free */
    nameHelperUnlock();
    printf("%u starts, %d degrees\n", copy.uStarts, copy.nTemperature);
    return 0;
}
