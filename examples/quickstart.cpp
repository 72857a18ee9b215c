// Two processes communicate through a shared-memory mailbox. This program is the server and starts itself again as the
// client. The client sends one message. The server waits for the message, prints it and removes the mailbox.

#include <OQLinux.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/shm.h>
#include <unistd.h>

#include <string>

static int client(key_t aKey)
{
    OQShmDesc lMailbox = {aKey, 256, -1, NULL};  // both sides use the same key and size
    OsSharedMemoryOpen(lMailbox, OQCM_Client);
    const unsigned char cMessage[] = "hello from the other process";
    unsigned int lWritten = 0;  // stays 0 if the write is cancelled because a side is missing
    OsSharedMemoryWrite(lMailbox, cMessage, sizeof cMessage, lWritten);
    OsSharedMemoryClose(lMailbox, OQCM_Client);
    return sizeof cMessage == lWritten ? 0 : 1;
}

static int startClient(key_t aKey)
{
    std::string lKey = std::to_string(aKey);
    char lName[] = "quickstart";
    char* lArguments[] = {lName, &lKey[0], NULL};
    const pid_t lServer = getpid();
    try {
        return ProcessCreate("/proc/self/exe", lArguments, environ);
    } catch (const OQCProcessCreationFailedEx&) {
        if (getpid() != lServer) {
            _exit(127);  // the child could not run the program and must not continue as a second server
        }
        throw;
    }
}

static void receive(OQShmDesc& arMailbox)
{
    OsSharedMemoryWaitForActivity(arMailbox, 5);
    unsigned char lMessage[250];  // the segment without the 6-byte header
    unsigned int lLength = 0;
    OsSharedMemoryRead(arMailbox, lMessage, sizeof lMessage, lLength);
    printf("%.*s\n", static_cast<int>(lLength), reinterpret_cast<char*>(lMessage));
}

static int server(key_t aKey)
{
    OQShmDesc lMailbox = {aKey, 256, -1, NULL};
    try {
        OsSharedMemoryOpen(lMailbox, OQCM_Server);
    } catch (const OQCException&) {
        shmctl(lMailbox.shm_id, IPC_RMID, NULL);  // a failed open does not remove the segment that it created
        throw;
    }
    int lStatus = 1;
    try {
        const int lClient = startClient(aKey);
        receive(lMailbox);
        lStatus = ProcessWait(lClient, 0);
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "quickstart: %s\n", acrFailure.what());
    }
    OsSharedMemoryClose(lMailbox, OQCM_Server);  // removes the segment, even after a failure
    return lStatus;
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
