// Runs a command. OsExecute reports no exit status and drops a last line without a newline. The command prints both.

#include <OQLinux.h>
#include <stdio.h>

#include <string>

static bool run(const std::string& acrCommand)
{
    // The added newline completes an unfinished last line. The last line printed is the exit status.
    OQCList<OQCString> lLines;
    OsExecute(("(" + acrCommand + "\n) 2>&1; printf '\\n%d\\n' $?").c_str(), lLines);
    std::string lStatus = "no shell";  // a command that could not be started adds no line
    for (const OQCString& acrLine : lLines) {
        printf("  %s\n", acrLine.get());
        lStatus = acrLine.get();
    }
    printf("%s: %s\n", acrCommand.c_str(), lStatus.c_str());
    return "0" == lStatus;
}

int main()
{
    try {
        const bool lGood = run("printf 'one\\ntwo'");
        const bool lBad = run("echo three; exit 3");
        return lGood && !lBad ? 0 : 1;
    } catch (const OQCException& acrFailure) {  // OQCReadFailedEx, OQCNoMemoryEx
        fprintf(stderr, "commands: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
