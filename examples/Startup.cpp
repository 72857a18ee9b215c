#include "Startup.h"

#include <fcntl.h>
#include <unistd.h>

#include "Channel.h"

std::string takeOptions(Words& arWords, Options& arOptions)
{
    while (!arWords.empty() && '-' == arWords.front()[0]) {
        const std::string lOption = arWords.front();
        arWords.erase(arWords.begin());
        if ("--help" == lOption) {
            arOptions.mHelp = true;
        } else if ("--trace" == lOption) {
            arOptions.mTrace = true;
        } else if ("--detach" == lOption) {
            arOptions.mDetach = true;
        } else if ("--name" == lOption || "--log" == lOption) {
            if (arWords.empty() || arWords.front().empty()) {
                return lOption + " needs a word";
            }
            ("--name" == lOption ? arOptions.mName : arOptions.mLogFile) = arWords.front();
            arWords.erase(arWords.begin());
        } else {
            return "unknown option " + lOption;
        }
    }
    if (!isChannelName(arOptions.mName)) {
        return "a name is 1 to 32 of A-Z a-z 0-9 _ -";
    }
    return "";
}

void keepStandardDescriptors()
{
    int lDescriptor;
    do {
        lDescriptor = ClibOpen("/dev/null", O_RDWR, 0);
    } while (0 <= lDescriptor && lDescriptor <= STDERR_FILENO);
    ClibClose(lDescriptor);
}
