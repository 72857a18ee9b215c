// The program of the table of outcomes. It runs the rows as tests, or prints pages from what the rows recorded:
//
//     OutcomeTest --print failures|messages   the page, of the families below
//     OutcomeTest --sites                     looks up the source line of each log call, with addr2line

#include <iostream>
#include <map>
#include <set>

#include "Outcome.h"

namespace
{

struct Family {
    const char* mTitle;
    const char* mFile;  ///< its name in the log
    const char* mNote;
    std::vector<std::pair<std::string, std::string>> mMeanings;  ///< each message behind its tag, and its meaning
};
const Family cFamilies[] = {
    {"Mutexes",
     ".//MutexLinux",
     "Silent always. The error text is that of `errno`, not of what the POSIX call returned.",
     {}},
    {"Condition variables",
     ".//ConditionalLinux",
     "The error text is that of `errno`, not of what the POSIX call returned.",
     {{"-H- Assertion [ aSeconds > 0 ] failed", "the caller passed 0 seconds"},
      {"-T- Condition wait timed out.", "nobody signalled in time; a throw follows"}}},
};

std::string code(const std::string& acrText) { return "`" + acrText + "`"; }

/// The format; of an assertion, the line with its condition.
std::string message(const Event& acrEvent)
{
    if ("Assertion [ %s ] failed\n" == acrEvent.mName) {
        return "Assertion [ " + acrEvent.mArguments[0] + " ] failed";
    }
    return acrEvent.mName;
}

bool isWord(const Event& acrEvent) { return "%s" == acrEvent.mName && 1 == acrEvent.mArguments.size(); }

/// What was thrown, or how the process ended, or how the caller can tell.
std::string thrown(const OutcomeRow& acrRow)
{
    std::string lErrorText;
    std::string lCondition;
    for (const Event& lrEvent : acrRow.mEvents) {
        if (Event::Call == lrEvent.mKind && "ClibStrerror" == lrEvent.mName) {
            lErrorText = lrEvent.mResult;
        } else if (Event::Log == lrEvent.mKind && OQLL_Halt == lrEvent.mLevel && !lrEvent.mArguments.empty()) {
            lCondition = lrEvent.mArguments[0];
        } else if (Event::Throw == lrEvent.mKind) {
            const std::string lText = "\"" + lrEvent.mArguments[0] + "\"";
            return code(lrEvent.mName) + " " + std::to_string(lrEvent.mLevel) + ", " +
                   (lErrorText == lText ? "error text" : lText);
        } else if (Event::End == lrEvent.mKind && !lCondition.empty()) {
            return "assertion " + code(lCondition) + ", " + lrEvent.mName;
        }
    }
    return acrRow.mTells.empty() ? "nothing" : "nothing; " + acrRow.mTells;
}

std::string logged(const OutcomeRow& acrRow)
{
    std::string lLines;
    for (const Event& lrEvent : acrRow.mEvents) {
        if (Event::Log == lrEvent.mKind) {
            lLines += lLines.empty() ? "" : ", ";
            lLines += code(isWord(lrEvent) ? lrEvent.mArguments[0] : lrEvent.mTag + " \"" + message(lrEvent) + "\"");
        }
    }
    return lLines.empty() ? "nothing" : lLines;
}

/// \return whether every row is on the page
bool printFailures()
{
    size_t lPrinted = 0;
    for (const Family& lrFamily : cFamilies) {
        std::cout
            << "\n## " << lrFamily.mTitle << "\n\n"
            << lrFamily.mNote << "\n\n"
            << "| operation | condition | thrown, or what tells | logged, in order | left untouched, left behind | "
               "tests |\n|---|---|---|---|---|---|\n";
        for (const OutcomeRow& lrRow : outcomeRows()) {
            if (lrFamily.mFile == lrRow.mFile) {
                std::cout << "| " << code(lrRow.mOperation) << " | " << lrRow.mWhen << " | " << thrown(lrRow) << " | "
                          << logged(lrRow) << " | " << lrRow.mStays << " | " << code(lrRow.mTest) << " |\n";
                ++lPrinted;
            }
        }
    }
    std::cout << "\n";
    if (outcomeRows().size() != lPrinted) {
        std::cerr << "rows of a family that has no heading\n";
    }
    return outcomeRows().size() == lPrinted;
}

/// \return whether every message has its meaning, and every meaning its message
bool printMessages()
{
    std::map<std::string, std::map<std::string, std::set<std::string>>> lLogged;  // file, message: functions
    for (const OutcomeRow& lrRow : outcomeRows()) {
        for (const Event& lrEvent : lrRow.mEvents) {
            if (Event::Log == lrEvent.mKind) {
                const std::string lText = isWord(lrEvent) ? lrEvent.mArguments[0] : message(lrEvent);
                lLogged[lrEvent.mFile][lrEvent.mTag + " " + lText].insert(lrEvent.mFunction);
            }
        }
    }
    bool lIsComplete = true;
    for (const Family& lrFamily : cFamilies) {
        auto& lrMessages = lLogged[lrFamily.mFile];
        std::cout << (lrFamily.mMeanings.empty()
                          ? ""
                          : std::string("\n## ") + lrFamily.mTitle + ": " + lrFamily.mFile +
                                "\n\n| tag | message | logged by | means |\n|---|---|---|---|\n");
        for (const auto& lrMeaning : lrFamily.mMeanings) {
            std::string lNames;
            for (const std::string& lrName : lrMessages[lrMeaning.first]) {
                lNames += (lNames.empty() ? "" : ", ") + code(lrName);
            }
            if (lNames.empty()) {
                std::cerr << lrFamily.mFile << ": no row logs " << lrMeaning.first << "\n";
                lIsComplete = false;
            }
            std::cout << "| " << code(lrMeaning.first.substr(0, 3)) << " | " << code(lrMeaning.first.substr(4)) << " | "
                      << lNames << " | " << lrMeaning.second << " |\n";
            lrMessages.erase(lrMeaning.first);
        }
    }
    std::cout << "\n";
    for (const auto& lrFile : lLogged) {
        for (const auto& lrMessage : lrFile.second) {
            std::cerr << lrFile.first << ": no meaning for " << lrMessage.first << "\n";
            lIsComplete = false;
        }
    }
    return lIsComplete;
}

}  // namespace

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    const std::string lTask = 1 < argc ? argv[1] : "";
    const std::string lPage = 2 < argc ? argv[2] : "";
    if (lTask.empty()) {
        return RUN_ALL_TESTS();
    }
    if ("--sites" != lTask && ("--print" != lTask || ("failures" != lPage && "messages" != lPage))) {
        std::cerr << "usage: OutcomeTest [--print failures | --print messages | --sites | options of GoogleTest]\n";
        return 2;
    }
    if ("--sites" == lTask) {
        recordSites();
    }
    auto& lrListeners = ::testing::UnitTest::GetInstance()->listeners();
    delete lrListeners.Release(lrListeners.default_result_printer());
    if (0 != RUN_ALL_TESTS()) {
        std::cerr << "a row fails; run OutcomeTest\n";
        return 1;
    }
    if ("--sites" == lTask) {
        return checkSites() ? 0 : 1;
    }
    return ("failures" == lPage ? printFailures() : printMessages()) ? 0 : 1;
}
