// Two processes communicate through a shared-memory mailbox. This program is the server and starts itself again as the
// client. The client sends one message. The server waits for the message and prints it.

#include <OQGuards.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

static int client(key_t aKey)
{
    OQCMailbox lMailbox(aKey, 256, OQCM_Client);  // both sides use the same key and size
    const char cMessage[] = "hello from the other process";
    return lMailbox.write(cMessage, sizeof cMessage) ? 0 : 1;
}

static int server(key_t aKey)
{
    OQCMailbox lMailbox(aKey, 256, OQCM_Server);  // the destructor removes the segment
    std::string lKey = std::to_string(aKey);
    char lName[] = "quickstart";
    char* lArguments[] = {lName, &lKey[0], NULL};
    OQCProcess lClient("/proc/self/exe", lArguments, environ, OQAE_Wait);
    char lMessage[250];  // the segment without the 6-byte header
    unsigned int lLength = 0;
    if (lMailbox.receive(lMessage, sizeof lMessage, lLength, std::chrono::seconds(5))) {
        printf("%.*s\n", static_cast<int>(lLength), lMessage);
    }
    return lClient.wait();
}

int main(int aCount, char** apWords)
{
    try {
        return 1 < aCount ? client(static_cast<key_t>(strtol(apWords[1], NULL, 10))) : server(getpid());
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "quickstart: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
