// A failed pipe operation leaves its out-parameter unchanged. Initialise a descriptor to -1 and a count to 0.

#include <OQLinux.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

static bool talk(const OQCString& acrPath)
{
    int lPipe = -1;
    OsNamedPipeOpen(lPipe, acrPath, OQFM_Mode1, OQPS_NonBlocking, OQCM_Server);
    if (lPipe < 0) {
        perror("pipes: open");  // errno is that of the open
        return false;
    }
    fcntl(lPipe, F_SETFD, FD_CLOEXEC);  // otherwise started programs inherit it
    const unsigned char cMessage[] = "a message";
    unsigned int lWritten = 0;
    OsNamedPipeWrite(lPipe, cMessage, sizeof cMessage, lWritten);
    bool lGood = sizeof cMessage == lWritten;
    try {
        OsNamedPipeWaitForActivity(lPipe, 5);
        unsigned char lBuffer[64];
        unsigned int lRead = 0;
        OsNamedPipeRead(lPipe, lBuffer, sizeof lBuffer, lRead);  // at most 64 bytes; possibly fewer than were sent
        printf("%u of %u bytes: %s\n", lRead, lWritten, reinterpret_cast<char*>(lBuffer));
        OsNamedPipeWaitForActivity(lPipe, 0);  // a poll
    } catch (const OQCTimeOutEx& acrFailure) {
        printf("and then nothing: %s\n", acrFailure.what());
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "pipes: %s (%u)\n", acrFailure.what(), acrFailure.code());
        lGood = false;
    }
    OsNamedPipeClose(lPipe, OQCM_Server);  // the variable keeps the number, which another file will get later
    return lGood;
}

int main()
{
    char lDirectory[] = "/tmp/pipes-XXXXXX";  // private, so that no other user can create files in it
    if (NULL == mkdtemp(lDirectory)) {
        perror("pipes: mkdtemp");
        return 1;
    }
    bool lGood = false;
    try {
        const OQCString lPath((std::string(lDirectory) + "/fifo").c_str());
        int lUnused = -1;
        OsNamedPipeCreate(lPath, lUnused);
        lGood = talk(lPath);
        OsNamedPipeDestroy(lPath, lUnused);
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "pipes: %s (%u)\n", acrFailure.what(), acrFailure.code());
    }
    rmdir(lDirectory);
    return lGood ? 0 : 1;
}
