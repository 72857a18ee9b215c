// Checks whether a program runs. The name goes to a shell and into a fixed-size buffer, so it must match a strict
// pattern.

#include <OQLinux.h>
#include <stdio.h>
#include <string.h>

#include <initializer_list>

static bool isPlainName(const char* acName)
{
    const char* const cLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    const char* const cAllowed = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    return 0 != strspn(acName, cLetters) && strlen(acName) <= 15 && strspn(acName, cAllowed) == strlen(acName);
}

static void report(const char* acName)
{
    if (!isPlainName(acName)) {
        printf("%s: not asked\n", acName);
        return;
    }
    printf("%s: %s\n", acName, 1 == isProcessRunning(acName) ? "runs" : "does not run");
}

int main()
{
    try {
        for (const char* lpName : {"guide_running", "no-such-program", "x; reboot", "-v"}) {
            report(lpName);
        }
        return 0;
    } catch (const OQCException& acrFailure) {
        fprintf(stderr, "running: %s (%u)\n", acrFailure.what(), acrFailure.code());
        return 1;
    }
}
