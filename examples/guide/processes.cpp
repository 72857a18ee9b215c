// Starts programs. When one cannot be run, ProcessCreate throws in a child that is a copy of this program.

#include <OQLinux.h>
#include <stdio.h>
#include <unistd.h>

static int start(const char* acPath, char* const* apArguments)
{
    const pid_t lSelf = getpid();
    try {
        return ProcessCreate(acPath, apArguments, environ);
    } catch (const OQCProcessCreationFailedEx&) {
        if (getpid() != lSelf) {
            _exit(127);  // the child: no other code of this program may run twice
        }
        throw;  // the parent: no child could be created
    }
}

int main()
{
    char lShell[] = "sh";
    char lOption[] = "-c";
    char lScript[] = "exit 3";
    char* lArguments[] = {lShell, lOption, lScript, NULL};
    try {
        printf("a program that runs: %d\n", ProcessWait(start("/bin/sh", lArguments), 0));
        printf("one that is not there: %d\n", ProcessWait(start("/no/such/program", lArguments), 0));
        const int lChild = start("/bin/sh", lArguments);
        printf("the same child, once: %d\n", ProcessWait(lChild, 0));
        ProcessWait(lChild, 0);  // throws: the child has already been reaped
        return 1;
    } catch (const OQCProcessWaitFailedEx& acrFailure) {
        printf("and a second time: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "processes: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
