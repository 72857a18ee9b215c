#include "Outcome.h"

#include <cxxabi.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

namespace
{

std::vector<OutcomeRow> sRows;

/// Returns the trace without indentation and empty lines.
std::string plain(const std::string& acrTrace)
{
    std::istringstream lLines(acrTrace);
    std::string lPlain;
    std::string lLine;
    while (getline(lLines, lLine)) {
        const size_t lBegin = lLine.find_first_not_of(' ');
        lPlain += std::string::npos == lBegin ? "" : lLine.substr(lBegin) + "\n";
    }
    return lPlain;
}

std::string replaced(std::string aText, const std::string& acrOld, const std::string& acrNew)
{
    for (size_t lAt = aText.find(acrOld); std::string::npos != lAt; lAt = aText.find(acrOld, lAt + acrNew.size())) {
        aText.replace(lAt, acrOld.size(), acrNew);
    }
    return aText;
}

unsigned int sTextCount = 0;
bool sTextIsInBuffer = false;

/// Replaces ClibStrerror() in rows. The text shows the name of errno, how many texts the row has got so far, and whether
/// the text went into another buffer than the first one.
char* textOfErrno(char* apBuffer, unsigned int)
{
    static const char* spFirst = nullptr;
    static char sText[sizeof(Shown) + 64];
    spFirst = 0 == sTextCount ? apBuffer : spFirst;
    strcpy(apBuffer, "the text is elsewhere");
    snprintf(sText, sizeof sText, "%s #%u%s", errorName(errno).mText, ++sTextCount,
             spFirst == apBuffer ? "" : " of another buffer");
    return sTextIsInBuffer ? strcpy(apBuffer, sText) : sText;
}

}  // namespace

Family::Family(const char* acTitle, const char* acFile, const char* acNote,
               const std::vector<std::pair<std::string, std::string>>& acrMeanings)
    : mTitle(acTitle), mFile(acFile), mNote(acNote), mMeanings(acrMeanings)
{
    families().push_back(this);
}

std::vector<const Family*>& families()
{
    static std::vector<const Family*> sFamilies;  // local, because sources add their families before main()
    return sFamilies;
}

const std::vector<OutcomeRow>& outcomeRows() { return sRows; }

std::string failure(const std::string& acrException, const std::string& acrError)
{
    const std::string lText = "\"" + acrError + " #1\"";
    return "ClibStrerror(local, 512) = " + lText + "\nthrows " + acrException + " " + lText;
}

std::string loggedFailure(const std::string& acrLine, const std::string& acrException, const std::string& acrAfterLine,
                          const std::string& acrError)
{
    const std::string lText = "\"" + acrError + " #1\"";
    return "ClibStrerror(local, 512) = " + lText + "\n" + acrLine + lText + "\n" + acrAfterLine +
           replaced(failure(acrException, acrError), "#1", "#2");
}

bool addOutcome(const char* acOperation, const char* acName, const char* acSource, int aLine,
                const std::function<Outcome*()>& acrMake)
{
    ::testing::RegisterTest(acOperation, acName, nullptr, nullptr, acSource, aLine,
                            [acrMake]() -> Outcome* { return acrMake(); });
    return true;
}

void Outcome::TestBody()
{
    if (mAllocationsAreFailing && !FailingMemory::isPossible()) {
        GTEST_SKIP() << "another allocator is in use";
    }
    for (const bool lIsWithoutMemory : {false, true}) {
        if (lIsWithoutMemory && (mNeedsMemory || 0 != mFailingAllocation)) {
            return;
        }
        for (const int lError : mErrors) {
            mError = lError;
            mFailingAllocation = mAllocationsAreFailing ? static_cast<unsigned int>(lError) : 0;
            mIsWithoutMemory = lIsWithoutMemory;
            SCOPED_TRACE((mAllocationsAreFailing ? "allocation " + std::to_string(lError) : errorName(lError).mText) +
                         std::string(lIsWithoutMemory ? ", without memory" : ""));
            SubstituteBase::resetAll();
            clearEvents();
            row();
            if (IsSkipped() || HasFailure()) {
                return;
            }
        }
    }
}

void Outcome::run(const std::function<void()>& acrOperation)
{
    perform(acrOperation);
    compare();
}

void Outcome::runInChild(const std::function<void()>& acrOperation)
{
    fflush(stdout);  // otherwise the child also prints the buffered output
    const pid_t lChild = fork();
    if (0 == lChild) {
        atexit([] {  // further exit handlers are not part of the operation
            Recording::end();
            FailingMemory::end();
        });
        perform(acrOperation);
        endChild();
    }
    int lStatus = 0;
    while (waitpid(lChild, &lStatus, 0) < 0 && EINTR == errno) {
    }
    recordEnd(lStatus);
    compare();
}

void Outcome::perform(const std::function<void()>& acrOperation)
{
    sTextCount = 0;
    sTextIsInBuffer = mTextIsInBuffer;
    substitute::ClibStrerror.instead(textOfErrno);
    const pid_t lProcess = getpid();
    try {
        const Recording lRecording;
        const FailingMemory lFailingMemory(mIsWithoutMemory ? 1 : mFailingAllocation, mIsWithoutMemory);
        errno = EXDEV;
        acrOperation();
    } catch (const abi::__forced_unwind&) {  // the thread is cancelled or ends itself
        throw;
    } catch (...) {
        recordThrow();
    }
    if (getpid() != lProcess) {
        endChild();
    }
}

void Outcome::compare()
{
    const Events lEvents = recorded();
    std::string lTrace = traceOf(lEvents, mOperation, mFamily.mFile);
    if (0 != mError && !mAllocationsAreFailing) {
        lTrace = replaced(lTrace, errorName(mError).mText, "ERROR");
    }
    EXPECT_EQ(plain(mTrace), lTrace);
    if (!mIsKept) {
        const ::testing::TestInfo& lrTest = *::testing::UnitTest::GetInstance()->current_test_info();
        sRows.push_back({&mFamily, mOperation, std::string(lrTest.test_suite_name()) + "." + lrTest.name(), mWhen,
                         mTells, mStays, lEvents});
        mIsKept = true;
    }
}
