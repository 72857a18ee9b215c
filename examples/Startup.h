/// \file
/// Startup code that hostd and hostctl share.
#ifndef HOSTD_STARTUP_H
#define HOSTD_STARTUP_H

#include <string>
#include <vector>

struct Options {
    std::string mName = "hostd";  ///< --name: determines all paths and the segment's key
    bool mTrace = false;          ///< --trace: writes all log lines, including trace lines
    std::string mLogFile;         ///< --log: file for the daemon's log lines; empty: standard error
    bool mDetach = false;         ///< --detach: the daemon leaves its starter's session
    bool mHelp = false;           ///< --help: only prints the usage
};

typedef std::vector<std::string> Words;

/// Removes the leading options from the words, up to the first word that is not an option.
/// \return a description of the error; empty if there is none
std::string takeOptions(Words& arWords, Options& arOptions);

/// Ensures that descriptors 0 to 2 are open. The parent process may have closed some. The next opened file would then
/// get such a number and receive the program's standard error.
void keepStandardDescriptors();

#endif
