// A host without a companion runtime. The loader reports the missing names and ends the program before main().
#include <stdio.h>

#include "OQLinux.h"

int main()
{
    puts("main was reached");
    pthread_mutex_t lMutex;
    OsInitMutex(lMutex);
    return 0;
}
