// A signal handler can interrupt a call in any thread. A thread that must not be interrupted blocks signals.

#include <OQGuards.h>
#include <stdio.h>

static volatile sig_atomic_t sAsked = 0;

static void askToEnd(int) { sAsked = 1; }  // sets a flag and returns: little else is safe in a handler

int main()
{
    try {
        RegisterSignalHandler(SIGTERM, askToEnd);
        OQCList<OQCString> lLines;
        {
            const OQCSignalBlock lBlock({SIGTERM});
            OsExecute("kill -TERM $PPID; echo done", lLines);  // the command signals this program
            printf("during the command: %s\n", 0 != sAsked ? "asked to end" : "not asked to end");
        }
        printf("after the block: %s\n", 0 != sAsked ? "asked to end" : "not asked to end");
        return 1 == lLines.size() ? 0 : 1;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "signals: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
