/// \file
/// The table of outcomes: one row for each way in which an operation can end. A row is a test. The pages of failures
/// and messages are printed from the events of the rows.
#ifndef OQ_TESTS_OUTCOME_H
#define OQ_TESTS_OUTCOME_H

#include <functional>
#include <string>
#include <vector>

#include "Substitutes.h"

/// A section of the pages. Each source of rows defines one, named cFamily. The sections of the pages have the order of
/// the sources in CMakeLists.txt.
struct Family {
    /// Adds itself to families().
    Family(const char* acTitle, const char* acFile, const char* acNote,
           const std::vector<std::pair<std::string, std::string>>& acrMeanings);

    const char* const mTitle;
    const char* const mFile;                                           ///< the file's name in the log
    const char* const mNote;                                           ///< the text above the table of failures
    const std::vector<std::pair<std::string, std::string>> mMeanings;  ///< each message after its tag, and its meaning
};
std::vector<const Family*>& families();

class Outcome : public RecordedTest
{
public:
    /// \param[in] acrErrors            the row runs once for each error; {0} if no error is planned
    /// \param[in] aAllocationsAreFailing whether acrErrors are the numbers of failing allocations
    Outcome(const char* acOperation, const Family& acrFamily, const std::vector<int>& acrErrors,
            bool aAllocationsAreFailing = false)
        : mOperation(acOperation),
          mFamily(acrFamily),
          mErrors(acrErrors),
          mAllocationsAreFailing(aAllocationsAreFailing)
    {
    }
    /// Runs the row for each error, first with memory, then without.
    void TestBody() override;

protected:
    /// The row: plans failures, sets the fields, runs the operation and checks the state after it.
    virtual void row() = 0;

    // Public, because functions that several rows share use the following members.
public:
    std::string mOperation;  ///< its name in log and pages; set by a row if it is no identifier: "Pointer::operator*"
    std::string mWhen;       ///< the condition, for the page
    std::string mTrace;      ///< every event; indentation is ignored, ERROR represents error()
    std::string mTells;      ///< how the caller detects this outcome if nothing is thrown; for the page
    /// The values that stay unchanged and the resources that remain; for the page.
    std::string mStays = "-";
    unsigned int mFailingAllocation =
        0;  ///< this allocation fails, counted from 1; skip the row if !FailingMemory::isPossible()
    bool mTextIsInBuffer = false;  ///< ClibStrerror() stores the text in the buffer, for callers in the companion
    bool mNeedsMemory = false;     ///< this outcome does not occur when every allocation fails

    /// The error of this pass.
    int error() const { return mError; }

    /// Runs the operation with errno EXDEV and compares its events with mTrace. ClibStrerror() returns the name of errno
    /// and the number of the text, as in "EINTR #1", in memory outside of the caller's buffer. If the operation makes a
    /// child, the child ends with status 0 when the operation returns or throws there.
    void run(const std::function<void()>& acrOperation);
    /// The same in a child, for an operation that ends its process.
    void runInChild(const std::function<void()>& acrOperation);

private:
    void perform(const std::function<void()>& acrOperation);
    void compare();

    const Family& mFamily;
    const std::vector<int> mErrors;
    const bool mAllocationsAreFailing;
    int mError = 0;
    bool mIsWithoutMemory = false;
    bool mIsKept = false;
};

/// The data of a row that the pages use.
struct OutcomeRow {
    const Family* mFamily;
    std::string mOperation;
    std::string mTest;
    std::string mWhen;
    std::string mTells;
    std::string mStays;
    Events mEvents;
};
/// Returns all rows that have run.
const std::vector<OutcomeRow>& outcomeRows();

/// Returns whether each log call of the rows reported its own line. Prints the calls that did not.
bool checkSites();

/// The end of a trace: the text of this error, and the exception with this class and code that has the text.
std::string failure(const std::string& acrException, const std::string& acrError = "ERROR");
/// The same for an operation that logs the text before it throws. The line is given without the text, its last argument.
std::string loggedFailure(const std::string& acrLine, const std::string& acrException,
                          const std::string& acrAfterLine = "Left\n", const std::string& acrError = "ERROR");

bool addOutcome(const char* acOperation, const char* acName, const char* acSource, int aLine,
                const std::function<Outcome*()>& acrMake);

/// Defines a row of the table. The source defines cFamily, the section to which its rows belong.
#define OUTCOME(operation, name) OUTCOME_OF_ERRORS(operation, name, 0)

/// The same for a row that runs once for each of these errors.
#define OUTCOME_OF_ERRORS(operation, name, ...) DEFINE_OUTCOME(operation, name, false, __VA_ARGS__)

/// The same for a row that runs once for each failing allocation. The numbers count from 1. The row is skipped if
/// allocations cannot be made to fail.
#define OUTCOME_OF_ALLOCATIONS(operation, name, ...) DEFINE_OUTCOME(operation, name, true, __VA_ARGS__)

#define DEFINE_OUTCOME(operation, name, allocationsAreFailing, ...)                                                  \
    struct operation##_##name : Outcome {                                                                            \
        operation##_##name() : Outcome(#operation, cFamily, std::vector<int>{__VA_ARGS__}, allocationsAreFailing) {} \
        void row() override;                                                                                         \
    };                                                                                                               \
    [[maybe_unused]] const bool s##operation##_##name =                                                              \
        addOutcome(#operation, #name, __FILE__, __LINE__, [] { return new operation##_##name; });                    \
    void operation##_##name::row()

#endif
