// A signal handler can interrupt a wait in any thread. A thread that must not be interrupted blocks signals.

#include <OQLinux.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

static volatile sig_atomic_t sAsked = 0;

static void askToEnd(int) { sAsked = 1; }  // sets a flag and returns: little else is safe in a handler

class SignalsBlocked
{
public:
    SignalsBlocked()
    {
        sigset_t lAll;
        sigfillset(&lAll);
        pthread_sigmask(SIG_BLOCK, &lAll, &mBefore);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &mBefore, NULL); }

private:
    sigset_t mBefore;
};

int main()
{
    char lShell[] = "sh";
    char lOption[] = "-c";
    char lScript[] = "kill -TERM $PPID; exit 3";  // a child that signals its waiting parent
    char* lArguments[] = {lShell, lOption, lScript, NULL};
    const pid_t lSelf = getpid();
    try {
        RegisterSignalHandler(SIGTERM, askToEnd);
        const int lChild = ProcessCreate("/bin/sh", lArguments, environ);
        const SignalsBlocked lBlocked;  // after the start, so that the child does not inherit the blocked signals
        printf("the child's exit code: %d\n", ProcessWait(lChild, 0));
    } catch (const OQCException& acrFailure) {
        if (getpid() != lSelf) {
            _exit(127);
        }
        fprintf(stderr, "signals: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
    printf("asked to end: %s\n", 0 != sAsked ? "yes" : "no");
    return 0;
}
