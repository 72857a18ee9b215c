// A guard owns the descriptor. A failed open or read throws. A failed write returns a smaller count.

#include <OQGuards.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

static bool talk(const OQCString& acrPath)
{
    OQCPipe lPipe(acrPath, OQFM_Mode1, OQPS_NonBlocking);  // no started program inherits it
    const char cMessage[] = "a message";
    if (sizeof cMessage != lPipe.write(cMessage, sizeof cMessage)) {
        perror("pipes: write");  // errno is that of the write
        return false;
    }
    OsNamedPipeWaitForActivity(lPipe.get(), 5);
    char lBuffer[64];
    const unsigned int lRead = lPipe.read(lBuffer, sizeof lBuffer);  // possibly fewer bytes than were sent
    printf("%u bytes: %s\n", lRead, lBuffer);
    printf("and then %u bytes\n", lPipe.read(lBuffer, sizeof lBuffer));  // a non-blocking pipe does not wait
    return true;
}

int main()
{
    char lDirectory[] = "/tmp/pipes-XXXXXX";  // private, so that no other user can create files in it
    if (NULL == mkdtemp(lDirectory)) {
        perror("pipes: mkdtemp");
        return 1;
    }
    const OQCString lPath((std::string(lDirectory) + "/fifo").c_str());
    int lUnused = -1;
    bool lGood = false;
    try {
        OsNamedPipeCreate(lPath, lUnused);
        lGood = talk(lPath);
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "pipes: %s (%u)\n", acrFailure.what(), acrFailure.code());
    }
    OsNamedPipeDestroy(lPath, lUnused);
    rmdir(lDirectory);
    return lGood ? 0 : 1;
}
