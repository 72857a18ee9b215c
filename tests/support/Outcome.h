/// \file
/// The table of outcomes: one row for each way in which an operation can end. A row is a test; the pages of failures and
/// messages are printed from what the rows recorded.
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
    const char* const mNote;                                           ///< stands above the table of failures
    const std::vector<std::pair<std::string, std::string>> mMeanings;  ///< each message behind its tag, and its meaning
};
const std::vector<const Family*>& families();

class Outcome : public RecordedTest
{
public:
    /// \param[in] acrErrors            the row runs once for each; {0} where no error is planned
    /// \param[in] aAllocationsAreFailing they are numbers of allocations that fail
    Outcome(const char* acOperation, const Family& acrFamily, const std::vector<int>& acrErrors,
            bool aAllocationsAreFailing = false)
        : mOperation(acOperation),
          mFamily(acrFamily),
          mErrors(acrErrors),
          mAllocationsAreFailing(aAllocationsAreFailing)
    {
    }
    /// Runs the row for each error, with memory and then without.
    void TestBody() override;

protected:
    /// The row: plans what fails, fills the fields, runs the operation and looks at what is left.
    virtual void row() = 0;

    // The rest is public for functions that several rows share.
public:
    std::string mOperation;  ///< for log and pages; the row sets it where it is no identifier: "Pointer::operator*"
    std::string mWhen;       ///< the condition, for the page
    std::string mTrace;      ///< every event; indentation is ignored, ERROR stands for error()
    std::string mTells;      ///< how the caller can tell, where nothing is thrown; for the page
    /// What keeps its value and what is left behind; for the page.
    std::string mStays = "-";
    unsigned int mFailingAllocation =
        0;                      ///< this allocation fails, counted from 1; skip where !FailingMemory::isPossible()
    bool mNeedsMemory = false;  ///< the operation does not end like this when every allocation fails

    /// The error of this pass.
    int error() const { return mError; }

    /// Performs the operation and compares what it did with mTrace. ClibStrerror() returns the name of errno and the
    /// number of the text, as in "EINTR #1", in a place outside of the caller's buffer. A child that the operation has
    /// made ends with status 0 when the operation ends in it.
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

/// What the pages need of a row.
struct OutcomeRow {
    const Family* mFamily;
    std::string mOperation;
    std::string mTest;
    std::string mWhen;
    std::string mTells;
    std::string mStays;
    Events mEvents;
};
/// All rows that have run.
const std::vector<OutcomeRow>& outcomeRows();

/// Whether each log call of the rows reported its own line; prints those that did not.
bool checkSites();

bool addOutcome(const char* acOperation, const char* acName, const char* acSource, int aLine,
                const std::function<Outcome*()>& acrMake);

/// Defines a row of the table. The source defines cFamily, the section to which its rows belong.
#define OUTCOME(operation, name) OUTCOME_OF_ERRORS(operation, name, 0)

/// The same for a row that runs once for each of these errors.
#define OUTCOME_OF_ERRORS(operation, name, ...) DEFINE_OUTCOME(operation, name, false, __VA_ARGS__)

/// The same for a row that runs once for each of these numbers of a failing allocation, counted from 1. It is skipped
/// where another allocator is in use.
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
