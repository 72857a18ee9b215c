// Waits for any kind of descriptor. Every wait has a time limit; 0 seconds polls.

#include <OQLinux.h>
#include <stdio.h>
#include <unistd.h>

static void look(int aDescriptor)
{
    try {
        OsWaitForActivity(aDescriptor, 0);
        printf("readable\n");
    } catch (const OQCTimeOutEx& acrFailure) {
        printf("nothing yet: %s\n", acrFailure.what());
    } catch (const OQCPipeWaitFailedEx& acrFailure) {
        printf("no such descriptor: %s\n", acrFailure.what());
    }
}

int main()
{
    int lEnds[2];
    if (pipe(lEnds) < 0) {
        perror("waiting: pipe");
        return 1;
    }
    look(lEnds[0]);
    if (1 != write(lEnds[1], "x", 1)) {
        perror("waiting: write");
        return 1;
    }
    look(lEnds[0]);  // data
    close(lEnds[1]);
    char lByte;
    if (1 != read(lEnds[0], &lByte, 1)) {
        perror("waiting: read");
        return 1;
    }
    look(lEnds[0]);  // end of file is readable: the next read returns 0 bytes
    close(lEnds[0]);
    look(lEnds[0]);
    return 0;
}
