/* Counters that survive restarts and power cuts: in a file in the home directory. */
#include <stdio.h>

#include "qor/flat.h"

int main(void) {
    unsigned int uNumber = 0;
    accCreateAccumulaterOnce("order", 9998, 1, 9999); /* at the very first start; later it goes on where it was */
    printf("order %u\n", accExcuteAccumulater("order", 1));
    printf("order %u\n", accExcuteAccumulater("order", 1)); /* after 9,999 follows 1 */
    if (accReadAccumulater("order", &uNumber))              /* what was handed out last */
        printf("last %u\n", uNumber);

    accCreateAccumulater("jobs", 0, 0, 1000000); /* also sets back one that is there */
    printf("jobs %u\n", accExcuteAccumulater("jobs", 5));
    accDestoryAccumulater("jobs");
    printf("is there: %d\n", accReadAccumulater("jobs", NULL));
    return 0;
}
