// Writes and reads in each state of a mailbox. Both sides are in one program.

#include <OQGuards.h>
#include <stdio.h>
#include <unistd.h>

static void put(OQCMailbox& arSide)
{
    printf("%s\n", arSide.write("message", 8) ? "wrote a message" : "wrote nothing");
}

static void take(OQCMailbox& arSide)
{
    char lMessage[64];
    unsigned int lLength = 0;
    const bool lTaken = arSide.receive(lMessage, sizeof lMessage, lLength, std::chrono::milliseconds(10));
    printf("%s\n", lTaken ? "read a message" : "read nothing");
}

int main()
{
    try {
        OQCMailbox lServer(getpid(), 64, OQCM_Server);  // the same key and size on both sides
        put(lServer);                                   // cancelled: no client has opened the mailbox yet
        OQCMailbox lClient(getpid(), 64, OQCM_Client);
        take(lClient);  // Empty
        put(lServer);
        take(lClient);  // Full
        take(lClient);  // Empty again
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "mailbox: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
