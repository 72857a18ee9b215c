/// \file
/// What hostd and hostctl do first.
#ifndef HOSTD_STARTUP_H
#define HOSTD_STARTUP_H

#include <string>
#include <vector>

struct Options {
    std::string mName = "hostd";  ///< --name: decides all paths and the segment's key
    bool mTrace = false;          ///< --trace: every log line, not only the important ones
    std::string mLogFile;         ///< --log: where the daemon's lines go; empty: standard error
    bool mDetach = false;         ///< --detach: the daemon leaves its starter's session
    bool mHelp = false;           ///< --help: the usage is printed, and nothing else is done
};

typedef std::vector<std::string> Words;

/// Takes the options that stand before the first other word out of the words.
/// \return what is wrong with them; empty: nothing
std::string takeOptions(Words& arWords, Options& arOptions);

/// Makes sure that descriptors 0 to 2 are in use: a starter may have closed some, and the next file opened would then
/// receive what is meant for standard error.
void keepStandardDescriptors();

#endif
