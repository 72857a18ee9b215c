// Starts programs. If a program cannot be run, the constructor throws.

#include <OQGuards.h>
#include <stdio.h>
#include <unistd.h>

int main()
{
    char lShell[] = "sh";
    char lOption[] = "-c";
    char lScript[] = "exit 3";
    char* lArguments[] = {lShell, lOption, lScript, NULL};
    try {
        OQCProcess lChild("/bin/sh", lArguments, environ, OQAE_Wait);
        printf("a program that runs: %d\n", lChild.wait());
        printf("the same child again: %d\n", lChild.wait());
        OQCProcess("/no/such/program", lArguments, environ, OQAE_Wait);
        return 1;
    } catch (const OQCProcessCreationFailedEx& acrFailure) {
        printf("one that is not there: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "processes: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
