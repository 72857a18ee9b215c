// How OsExecute and OsBreak end.

#include <string.h>

#include "Outcome.h"

namespace
{

const Family cFamily(
    "Commands", ".//MiscLinux",
    "After each read, `OsExecute` calls `OsBreak`. The sequence contains the lines of both. Only `ClibFread` throws a "
    "read failure. `OsExecute` never examines the exit status of the command.",
    {{"-T- Calling popen", "before the shell is started"},
     {"-T- Failed in popen", "no pipe or no process; the list is unchanged and nothing is thrown"},
     {"-T- Buffer got = %s", "what one read returned, newlines included"},
     {"-T- Fread returned ERROR. lLength = %d",
      "the output has ended, despite the word, or a line of 3999 bytes or more ends the reading; the number is 0"},
     {"-T- Failed to read - %s", "the read failed; a throw follows"},
     {"-T- Number of lines in output: %u", "the number of lines in the list, including earlier entries"},
     {"-T- Line: %s", "a complete line, which is appended next"},
     {"-T- Incomplete line: %s", "the line is kept for the next read, or dropped if there is no next read"},
     {"-T- End of popened Buffer", "the text ends with a complete line"},
     {"-T- Entered", "the operation begins"},
     {"-T- Left", "the operation returns; after a read failure: a throw follows"}});

const std::string cLong(50, 'l');  // a text whose characters need an allocation

const std::string cOpened = R"(
    Entered
    -T- "Calling popen"
    popen("true", "r") = stream
)";
const std::string cClosed = R"(
    -T- "Fread returned ERROR. lLength = %d" "0"
    pclose(stream) = 0
    -T- "Number of lines in output: %u" "2"
    Left
)";

/// A command that has been started, so that popen() allocates nothing in the operation, and a list with one entry. The
/// command's stream is shown as "stream", the start of the read buffer as "buffer".
class Command
{
public:
    explicit Command(const char* acCommand) : mStream(popen(acCommand, "r"))
    {
        followMemory(0, nullptr);
        followMemory(1, nullptr);
        mLines.append("old");
        nameObject("stream", mStream);
        watchObject("list", &mLines, sizeof mLines);
        substitute::popen.instead([this](const char*, const char*) { return mStream; });
        substitute::pclose.instead([this](FILE* apClosed) {
            mStream = nullptr;
            return substitute::pclose.real(apClosed);
        });
        substitute::ClibMemset.instead([this](void* apMemory, int aValue, unsigned int aCount) {
            noteBuffer(static_cast<char*>(apMemory));
            return substitute::ClibMemset.real(apMemory, aValue, aCount);
        });
    }
    /// The reads return these texts. After them, a read returns the result of acrAtEnd.
    explicit Command(
        const Texts& acrTexts, const std::function<unsigned int()>& acrAtEnd = [] { return 0U; })
        : Command(":")
    {
        substitute::ClibFread.instead(
            [acrTexts, acrAtEnd, lNext = 0U](char* apBuffer, unsigned int, unsigned int aCount, FILE*) mutable {
                if (acrTexts.size() == lNext) {
                    return acrAtEnd();
                }
                const std::string& lrText = acrTexts[lNext++];
                EXPECT_LE(lrText.size(), aCount);
                memset(apBuffer, '#', aCount);  // the operation itself ends the text
                memcpy(apBuffer, lrText.data(), lrText.size());
                return static_cast<unsigned int>(lrText.size());
            });
    }
    ~Command()
    {
        EXPECT_EQ(nullptr, mStream);
        EXPECT_TRUE(!FailingMemory::isPossible() || nullptr == mpReadBuffer || isFreed(0));
        EXPECT_TRUE(!FailingMemory::isPossible() || nullptr == mpLineBuffer || isFreed(1));
    }
    /// Expects that the operation has left the buffers and the stream, and releases them.
    void expectLeft()
    {
        EXPECT_FALSE(FailingMemory::isPossible() && (isFreed(0) || isFreed(1)));
        free(mpReadBuffer);
        free(mpLineBuffer);
        pclose(mStream);
        mStream = nullptr;
    }
    /// The entries that the operation has appended.
    Texts appended() const
    {
        const Texts lTexts = textsOf(mLines);
        return Texts(lTexts.begin() + 1, lTexts.end());
    }

    OQCList<OQCString> mLines;

private:
    void noteBuffer(char* apMemory)
    {
        if (nullptr == mpReadBuffer) {
            mpReadBuffer = apMemory;
            nameObject("buffer", apMemory);
            followMemory(0, apMemory);
        } else if (apMemory < mpReadBuffer || mpReadBuffer + 4000 <= apMemory) {
            mpLineBuffer = apMemory;
            followMemory(1, apMemory);
        }
    }

    FILE* mStream;
    char* mpReadBuffer = nullptr;
    char* mpLineBuffer = nullptr;
};

OUTCOME(OsExecute, AppendsEachLineOfTheOutput)
{
    Command lCommand("printf 'a\\nb\\n'");
    mNeedsMemory = true;
    mWhen = "succeeds";
    mTrace = R"(
        Entered
        -T- "Calling popen"
        popen("printf 'a\nb\n'", "r") = stream
        ClibFread(buffer, 1, 3999, stream) = 4
        -T- "Buffer got = %s" "a\nb\n"
        OsBreak: Entered
        OsBreak: -T- "Line: %s" "a"
        list changes
        OsBreak: -T- "Line: %s" "b"
        list changes
        OsBreak: -T- "End of popened Buffer"
        OsBreak: Left
        ClibFread(buffer, 1, 3999, stream) = 0
        -T- "Fread returned ERROR. lLength = %d" "0"
        pclose(stream) = 0
        -T- "Number of lines in output: %u" "3"
        Left
    )";
    mStays = "the entries that the list had";
    run([&] { OsExecute("printf 'a\\nb\\n'", lCommand.mLines); });
    EXPECT_EQ((Texts{"a", "b"}), lCommand.appended());
}

OUTCOME(OsExecute, DropsALastLineWithoutANewline)
{
    Command lCommand(Texts{"a\nb"});
    substitute::ClibMemset.show();
    mNeedsMemory = true;
    mWhen = "the last line has no newline";
    mTrace = cOpened + R"(
        ClibMemset(memory, 0, 4000) = buffer
        ClibMemset(buffer, 0, 4000) = buffer
        ClibFread(buffer, 1, 3999, stream) = 3
        -T- "Buffer got = %s" "a\nb"
        OsBreak: Entered
        ClibMemset(memory, 0, 4000) = memory
        OsBreak: -T- "Line: %s" "a"
        list changes
        OsBreak: -T- "Incomplete line: %s" "b"
        OsBreak: Left
        ClibMemset(memory, 0, 3999) = memory
        ClibFread(memory, 1, 3998, stream) = 0
    )" + cClosed;
    mTells = "the line is dropped";
    run([&] { OsExecute("true", lCommand.mLines); });
    EXPECT_EQ((Texts{"a"}), lCommand.appended());
}

OUTCOME(OsExecute, IgnoresTheStatusOfTheCommand)
{
    Command lCommand("exec 2>/dev/null; /nonexistent/program");
    mNeedsMemory = true;
    mWhen = "the shell cannot run the command, or the command fails";
    mTrace = R"(
        Entered
        -T- "Calling popen"
        popen("/nonexistent/program", "r") = stream
        ClibFread(buffer, 1, 3999, stream) = 0
        -T- "Fread returned ERROR. lLength = %d" "0"
        pclose(stream) = 32512
        -T- "Number of lines in output: %u" "1"
        Left
    )";
    mTells = "`OsExecute` does not examine the exit status";
    mStays = "lines that it printed are in the list";
    run([&] { OsExecute("/nonexistent/program", lCommand.mLines); });
    EXPECT_EQ(Texts(), lCommand.appended());
}

OUTCOME(OsExecute, EndsWithALineThatFillsTheBuffer)
{
    const std::string cMost = "a\n" + std::string(3997, 'x');
    Command lCommand(Texts{cMost, "xx"});
    nameText("a line and 3997 bytes", cMost);
    nameText("3997 bytes", cMost.substr(2));
    nameText("3999 bytes", cMost.substr(2) + "xx");
    mNeedsMemory = true;
    mWhen = "a line of 3999 bytes or more";
    mTrace = cOpened + R"(
        ClibFread(buffer, 1, 3999, stream) = 3999
        -T- "Buffer got = %s" a line and 3997 bytes
        OsBreak: Entered
        OsBreak: -T- "Line: %s" "a"
        list changes
        OsBreak: -T- "Incomplete line: %s" 3997 bytes
        OsBreak: Left
        ClibFread(memory, 1, 2, stream) = 2
        -T- "Buffer got = %s" "xx"
        OsBreak: Entered
        OsBreak: -T- "Incomplete line: %s" 3999 bytes
        OsBreak: Left
        ClibFread(memory, 1, 0, stream) = 0
    )" + cClosed;
    mTells = "that line and all later lines are lost";
    mStays = "earlier lines are in the list";
    run([&] { OsExecute("true", lCommand.mLines); });
    EXPECT_EQ((Texts{"a"}), lCommand.appended());
}

OUTCOME(OsExecute, LosesTheRestOfAReadAfterAZeroByte)
{
    Command lCommand(Texts{std::string("a\n\0b\nc\n", 7)});
    mNeedsMemory = true;
    mWhen = "a zero byte in the output";
    mTrace = cOpened + R"(
        ClibFread(buffer, 1, 3999, stream) = 7
        -T- "Buffer got = %s" "a\n"
        OsBreak: Entered
        OsBreak: -T- "Line: %s" "a"
        list changes
        OsBreak: -T- "End of popened Buffer"
        OsBreak: Left
        ClibFread(buffer, 1, 3999, stream) = 0
    )" + cClosed;
    mTells = "the rest of that read is lost";
    run([&] { OsExecute("true", lCommand.mLines); });
    EXPECT_EQ((Texts{"a"}), lCommand.appended());
}

OUTCOME_OF_ERRORS(OsExecute, ReturnsWhenPopenFails, EAGAIN, EMFILE, ENFILE, ENOMEM, EINVAL)
{
    OQCList<OQCString> lLines;
    substitute::popen.fail(nullptr, error());
    mWhen = "`popen` fails";
    mTrace = R"(
        Entered
        -T- "Calling popen"
        popen("true", "r") = null
        -T- "Failed in popen"
        Left
    )";
    mTells = "only the log reports the failure";
    mStays = "the list";
    run([&] { OsExecute("true", lLines); });
    EXPECT_EQ(0, lLines.size());
}

OUTCOME(OsExecute, ThrowsAReadFailureAgain)
{
    Command lCommand({"a\nb"}, []() -> unsigned int { throw OQCReadFailedEx("Input/output error", 328); });
    mNeedsMemory = true;
    mWhen =
        "`ClibFread` throws a read failure, here with the error text of `EIO`; `OsExecute` rethrows the same object";
    mTrace = cOpened + R"(
        ClibFread(buffer, 1, 3999, stream) = 3
        -T- "Buffer got = %s" "a\nb"
        OsBreak: Entered
        OsBreak: -T- "Line: %s" "a"
        list changes
        OsBreak: -T- "Incomplete line: %s" "b"
        OsBreak: Left
        ClibFread(memory, 1, 3998, stream)
        -T- "Failed to read - %s" "Input/output error"
        pclose(stream) = 0
        Left
        throws OQCReadFailedEx 328 "Input/output error"
    )";
    mStays =
        "stream and buffers are released; lines of earlier reads stay in the list, the output of the failed read is "
        "lost";
    run([&] { OsExecute("true", lCommand.mLines); });
    EXPECT_EQ((Texts{"a"}), lCommand.appended());
}

OUTCOME(OsExecute, PassesAnyOtherExceptionOfTheRead)
{
    Command lCommand({}, []() -> unsigned int { throw OQCOpenFailedEx("another failure", 326); });
    mNeedsMemory = true;
    mWhen = "the read throws another exception, which passes unchanged";
    mTrace = cOpened + "ClibFread(buffer, 1, 3999, stream)\nthrows OQCOpenFailedEx 326 \"another failure\"";
    mStays = "the stream and the read buffer stay";
    run([&] { OsExecute("true", lCommand.mLines); });
    lCommand.expectLeft();
}

OUTCOME_OF_ALLOCATIONS(OsExecute, ThrowsWithoutMemoryForTheReadBuffer, 1)
{
    Command lCommand(Texts{});
    mWhen = "no memory for the read buffer";
    mTrace = cOpened + R"(throws OQCNoMemoryEx 2 "Out of Memory")";
    mStays = "the stream stays open; the list";
    run([&] { OsExecute("true", lCommand.mLines); });
    lCommand.expectLeft();
}

// The allocations: the line buffer; object, characters and counter of a line; the list node of
// the line; object, characters and counter of the copy in that node.
OUTCOME_OF_ALLOCATIONS(OsExecute, ThrowsWithoutMemoryToBreakTheText, 2, 3, 4, 5, 6, 7, 8, 9)
{
    Command lCommand(Texts{cLong + "\n"});
    mWhen = "no memory in `OsBreak`, as its rows show";
    mTrace = cOpened + "ClibFread(buffer, 1, 3999, stream) = 51\n-T- \"Buffer got = %s\" \"" + cLong +
             "\\n\"\nOsBreak: Entered\n" + (error() < 6 ? "" : "OsBreak: -T- \"Line: %s\" \"" + cLong + "\"\n") +
             "throws OQCNoMemoryEx 2 \"Out of Memory\"";
    mStays = "the stream and both buffers stay; earlier lines stay in the list";
    run([&] { OsExecute("true", lCommand.mLines); });
    EXPECT_EQ(Texts(), lCommand.appended());
    lCommand.expectLeft();
}

/// A buffer, shown as "buffer", and a list with one entry.
struct Text {
    explicit Text(const std::string& acrText)
    {
        memset(mBuffer, '#', sizeof mBuffer);
        strcpy(mBuffer, acrText.c_str());
        mLines.append("old");
        nameObject("buffer", mBuffer);
        watchObject("list", &mLines, sizeof mLines);
        substitute::ClibMemset.instead([this](void* apMemory, int aValue, unsigned int aCount) {
            followMemory(0, mpLineBuffer = apMemory);
            return substitute::ClibMemset.real(apMemory, aValue, aCount);
        });
    }
    ~Text() { EXPECT_TRUE(!FailingMemory::isPossible() || nullptr == mpLineBuffer || isFreed(0)); }
    void expectLeft() const
    {
        EXPECT_FALSE(nullptr != mpLineBuffer && isFreed(0));
        free(mpLineBuffer);
    }

    char mBuffer[4000];
    OQCList<OQCString> mLines;
    void* mpLineBuffer = nullptr;
};

OUTCOME(OsBreak, AppendsEachLineOfATextThatEndsWithANewline)
{
    Text lText("one\ntwo \n");
    char* lpNext = nullptr;
    substitute::ClibMemset.show();
    substitute::ClibStrcpy.show();
    mNeedsMemory = true;
    mWhen = "the text ends with a newline";
    mTrace = R"(
        Entered
        ClibMemset(memory, 0, 4000) = memory
        ClibStrcpy(memory, buffer) = memory
        -T- "Line: %s" "one"
        list changes
        ClibStrcpy(memory, memory) = memory
        -T- "Line: %s" "two "
        list changes
        -T- "End of popened Buffer"
        Left
    )";
    mTells = "the next read is stored at the start of the buffer";
    mStays = "the entries that the list had";
    run([&] { lpNext = OsBreak(lText.mBuffer, lText.mLines); });
    EXPECT_EQ(lText.mBuffer, lpNext);
    EXPECT_EQ((Texts{"old", "one", "two "}), textsOf(lText.mLines));
    EXPECT_EQ(0, memcmp("one\0two \0\0#", lText.mBuffer, 11));  // each newline became a zero; the rest is unchanged
}

OUTCOME(OsBreak, MovesAnUnfinishedLineToTheStart)
{
    Text lText("a\n\nbcdefgh");
    char* lpNext = nullptr;
    substitute::ClibStrcpy.show();
    mNeedsMemory = true;
    mWhen = "the text ends without a newline";
    mTrace = R"(
        Entered
        ClibStrcpy(memory, buffer) = memory
        -T- "Line: %s" "a"
        list changes
        ClibStrcpy(memory, memory) = memory
        -T- "Line: %s" ""
        list changes
        ClibStrcpy(memory, memory) = memory
        -T- "Incomplete line: %s" "bcdefgh"
        ClibStrcpy(buffer, memory) = buffer
        Left
    )";
    mTells = "the unfinished line moves to the start of the buffer; the next read is stored after it";
    run([&] { lpNext = OsBreak(lText.mBuffer, lText.mLines); });
    EXPECT_EQ(lText.mBuffer + 7, lpNext);
    EXPECT_STREQ("bcdefgh", lText.mBuffer);
    EXPECT_EQ((Texts{"old", "a", ""}), textsOf(lText.mLines));
}

OUTCOME_OF_ALLOCATIONS(OsBreak, ThrowsWithoutMemoryForTheLineBufferOrALine, 1, 2, 3, 4)
{
    Text lText(cLong + "\n");
    mWhen = "no memory for the line buffer or for a line";
    mTrace = "Entered\nthrows OQCNoMemoryEx 2 \"Out of Memory\"";
    mStays = "the line buffer, if there is one, stays; earlier lines stay in the list";
    run([&] { OsBreak(lText.mBuffer, lText.mLines); });
    lText.expectLeft();
}

// After the line buffer, the five allocations of the first line and its entry, and the three of the second line.
OUTCOME_OF_ALLOCATIONS(OsBreak, ThrowsWithoutMemoryForAnEntryOfTheList, 10, 11, 12, 13)
{
    Text lText("one\n" + cLong + "\n");
    mWhen = "no memory for a line's entry in the list";
    mTrace = R"(
        Entered
        -T- "Line: %s" "one"
        list changes
        -T- "Line: %s" ")" +
             cLong + R"("
        throws OQCNoMemoryEx 2 "Out of Memory"
    )";
    mStays = "the line buffer stays; earlier lines stay in the list";
    run([&] { OsBreak(lText.mBuffer, lText.mLines); });
    EXPECT_EQ((Texts{"old", "one"}), textsOf(lText.mLines));
    lText.expectLeft();
}

}  // namespace
