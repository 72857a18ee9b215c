// The program of the table of outcomes. It runs the rows as tests, or prints pages from the events of the rows:
//
//     OutcomeTest --print failures|messages   the page
//     OutcomeTest --sites                     looks up the source line of each log call, with addr2line

#include <iostream>
#include <map>

#include "Outcome.h"

namespace
{

std::string code(const std::string& acrText) { return "`" + acrText + "`"; }

/// Returns the format of a log call. For an assertion, returns the text with the condition.
std::string message(const Event& acrEvent)
{
    if ("Assertion [ %s ] failed\n" == acrEvent.mName) {
        return "Assertion [ " + acrEvent.mArguments[0] + " ] failed";
    }
    return acrEvent.mName;
}

bool isWord(const Event& acrEvent) { return "%s" == acrEvent.mName && 1 == acrEvent.mArguments.size(); }

/// Returns the exception, or how the process ended, or how the caller detects the outcome.
std::string thrown(const OutcomeRow& acrRow)
{
    std::string lErrorText;
    std::string lCondition;
    for (const Event& lrEvent : acrRow.mEvents) {
        if (Event::Call == lrEvent.mKind && "ClibStrerror" == lrEvent.mName) {
            lErrorText = lrEvent.mResult;
        } else if (Event::Log == lrEvent.mKind && OQLL_Halt == lrEvent.mLevel && !lrEvent.mArguments.empty()) {
            lCondition = lrEvent.mArguments[0];
        } else if (Event::Throw == lrEvent.mKind && 0 == lrEvent.mLevel) {  // not the layer's
            return code(lrEvent.mName);
        } else if (Event::Throw == lrEvent.mKind) {
            const std::string& lrText = lrEvent.mArguments[0];
            const std::string lText = lrText.size() < 100
                                          ? "\"" + lrText + "\""
                                          : "a text of " + std::to_string(lrText.size()) + " characters";
            return code(lrEvent.mName) + " " + std::to_string(lrEvent.mLevel) + ", " +
                   (lErrorText == lText ? "error text" : lText) +
                   (acrRow.mEvents[0].mProcess == lrEvent.mProcess ? "" : ", in a child; " + acrRow.mTells);
        } else if (Event::End == lrEvent.mKind && !lCondition.empty()) {
            return "assertion " + code(lCondition) + ", " + lrEvent.mName;
        }
    }
    return acrRow.mTells.empty() ? "nothing" : "nothing; " + acrRow.mTells;
}

std::string logged(const OutcomeRow& acrRow)
{
    std::string lLines;
    pid_t lLast = acrRow.mEvents.empty() ? 0 : acrRow.mEvents[0].mProcess;
    for (const Event& lrEvent : acrRow.mEvents) {
        if (Event::Log == lrEvent.mKind) {
            lLines += lLines.empty() ? "" : ", ";
            lLines += lLast == lrEvent.mProcess                        ? ""
                      : acrRow.mEvents[0].mProcess == lrEvent.mProcess ? "in the parent: "
                                                                       : "in the child: ";
            lLast = lrEvent.mProcess;
            lLines += code(isWord(lrEvent) ? lrEvent.mArguments[0] : lrEvent.mTag + " \"" + message(lrEvent) + "\"");
        }
    }
    return lLines.empty() ? "nothing" : lLines;
}

void printFailures()
{
    for (const Family* lpFamily : families()) {
        std::cout << "\n## " << lpFamily->mTitle << "\n\n"
                  << lpFamily->mNote << "\n\n"
                  << "| operation | condition | thrown, or other result | logged, in order | what stays | "
                     "tests |\n|---|---|---|---|---|---|\n";
        for (const OutcomeRow& lrRow : outcomeRows()) {
            if (lpFamily == lrRow.mFamily) {
                std::cout << "| " << code(lrRow.mOperation) << " | " << lrRow.mWhen << " | " << thrown(lrRow) << " | "
                          << logged(lrRow) << " | " << lrRow.mStays << " | " << code(lrRow.mTest) << " |\n";
            }
        }
    }
    std::cout << "\n";
}

/// \return whether every message has a meaning, and every meaning has a message
bool printMessages()
{
    typedef std::pair<std::string, std::string> Message;  // file, tag and text
    std::set<Message> lUnexplained;
    std::map<const Family*, std::map<std::string, std::set<std::string>>> lLogged;  // message to functions
    for (const OutcomeRow& lrRow : outcomeRows()) {
        for (const Event& lrEvent : lrRow.mEvents) {
            if (Event::Log == lrEvent.mKind) {
                const std::string lText =
                    lrEvent.mTag + " " + (isWord(lrEvent) ? lrEvent.mArguments[0] : message(lrEvent));
                lUnexplained.insert({lrEvent.mFile, lText});
                if (lrRow.mFamily->mFile == lrEvent.mFile) {
                    lLogged[lrRow.mFamily][lText].insert(lrEvent.mFunction);
                }
            }
        }
    }
    bool lIsComplete = true;
    for (const Family* lpFamily : families()) {
        if (!lpFamily->mMeanings.empty()) {
            std::cout << "\n## " << lpFamily->mTitle << ": " << lpFamily->mFile
                      << "\n\n| tag | message | logged by | means |\n|---|---|---|---|\n";
        }
        for (const auto& lrMeaning : lpFamily->mMeanings) {
            std::string lNames;
            for (const std::string& lrName : lLogged[lpFamily][lrMeaning.first]) {
                lNames += (lNames.empty() ? "" : ", ") + code(lrName);
            }
            if (lNames.empty()) {
                std::cerr << lpFamily->mTitle << ": no row logs " << lrMeaning.first << "\n";
                lIsComplete = false;
            }
            std::cout << "| " << code(lrMeaning.first.substr(0, 3)) << " | " << code(lrMeaning.first.substr(4)) << " | "
                      << lNames << " | " << lrMeaning.second << " |\n";
            lUnexplained.erase({lpFamily->mFile, lrMeaning.first});
        }
    }
    std::cout << "\n";
    for (const Message& lrMessage : lUnexplained) {
        std::cerr << lrMessage.first << ": no meaning for " << lrMessage.second << "\n";
        lIsComplete = false;
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
    if ("failures" == lPage) {
        printFailures();
        return 0;
    }
    return printMessages() ? 0 : 1;
}
