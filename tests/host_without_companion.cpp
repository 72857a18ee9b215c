// A host that does not bring the names which the layer asks of it: it never gets as far as main.
#include <stdio.h>

#include "OQLinux.h"

int main()
{
    puts("main was reached");
    pthread_mutex_t lMutex;
    OsInitMutex(lMutex);
    return 0;
}
