// How the operations of named pipes end.

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "Outcome.h"

namespace
{

const Family cFamily(
    "Named pipes", ".//NamedPipeLinux",
    "`OsNamedPipeWaitForActivity` logs the first `Entered`. When it returns, it logs the last `Left`. "
    "`OsWaitForActivity` logs the lines between.",
    {{"-E- Failed to create fifo file %s. Error: '%s' ", "the path cannot be written, or has no directory"},
     {"-E- Invalid flags %d passed to open file", "the caller's file mode is not 1, 2, 3 or 4"},
     {"-T- Creating linux named pipe...", "before the attempt"},
     {"-T- Fifo file %s already exists", "a file of any kind exists and is accepted"},
     {"-T- Destroying linux named pipe...", "before the attempt; a failure is not logged"},
     {"-T- Opening %s with %d flags", "before the attempt, with the flags of `open`; a failure is not logged"},
     {"-T- Reading %u bytes", "the number of bytes to read; the number that arrived is not logged"},
     {"-T- Writing %u bytes", "the number of bytes to write; the number that was written is not logged"},
     {"-T- Closing linux named pipe. pipe desc: %u", "the descriptor; 4294967295 is -1"},
     {"-T- Entered", "the operation begins"},
     {"-T- Left", "the operation returns; after an error line: a throw follows"}});

/// A path, shown as FILE, and a watched descriptor variable with the value 77. The destructor removes the file.
class File
{
public:
    explicit File(const std::string& acrPath) : mPath(acrPath.c_str())
    {
        nameText("FILE", acrPath);
        watchObject("descriptor", &mDescriptor, sizeof mDescriptor);
    }
    ~File() { unlink(mPath.get()); }

    const OQCString mPath;
    int mDescriptor = 77;
};

/// Both ends of a pipe that contains the given number of bytes, and a watched count with the value 4242. Rows use
/// lengths of at least three digits: events would show a number that equals a descriptor under the descriptor's name.
class Pipe
{
public:
    explicit Pipe(unsigned int aBytes, int aFlags = 0)
    {
        EXPECT_EQ(0, pipe2(mEnds, aFlags));
        EXPECT_EQ(aBytes, write(mEnds[1], mBytes, aBytes));
        nameNumber("reader", &mEnds[0]);
        nameNumber("writer", &mEnds[1]);
        nameObject("bytes", mBytes);
        watchObject("count", &mCount, sizeof mCount);
    }
    ~Pipe()
    {
        close(mEnds[0]);
        close(mEnds[1]);
    }

    int mEnds[2];
    unsigned char mBytes[1600] = {};
    unsigned int mCount = 4242;
};

const std::string cCreating = "Entered\n-T- \"Creating linux named pipe...\"\nmknod(FILE, 010660, 0) = ";

OUTCOME_OF_ERRORS(OsNamedPipeCreate, Succeeds, 0, 7)
{
    File lFile(path("fifo"));
    substitute::mknod.fail(error(), EEXIST);
    mWhen = "succeeds, for any `errno`";
    mTrace = cCreating + std::to_string(error()) + "\nLeft";
    mStays = "the descriptor";
    run([&] { OsNamedPipeCreate(lFile.mPath, lFile.mDescriptor); });
}

OUTCOME(OsNamedPipeCreate, AcceptsAFileThatExists)
{
    File lFile(path("file"));
    close(creat(lFile.mPath.get(), 0600));
    mWhen = "a file of any kind exists (`EEXIST`)";
    mTrace = cCreating + "-1 EEXIST\n-T- \"Fifo file %s already exists\" FILE\nLeft";
    mStays = "the file; the descriptor";
    run([&] { OsNamedPipeCreate(lFile.mPath, lFile.mDescriptor); });
    EXPECT_EQ(0, access(lFile.mPath.get(), W_OK));
}

OUTCOME_OF_ERRORS(OsNamedPipeCreate, ThrowsWhenTheFileCannotBeMade, EACCES, EBADF, EDQUOT, EFAULT, EINVAL, ELOOP,
                  ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS)
{
    File lFile(path("fifo"));
    substitute::mknod.fail(-2, error());
    mWhen = "`mknod` fails in another way";
    mTrace = cCreating + R"(-2 ERROR
    )" + loggedFailure(R"(-E- "Failed to create fifo file %s. Error: '%s' " FILE, )", "OQCCreateFailedEx 324");
    mStays = "the descriptor";
    run([&] { OsNamedPipeCreate(lFile.mPath, lFile.mDescriptor); });
}

const std::string cDestroying = "Entered\n-T- \"Destroying linux named pipe...\"\nClibUnlink(FILE) = ";

OUTCOME(OsNamedPipeDestroy, RemovesTheFile)
{
    File lFile(path("file"));
    lFile.mDescriptor = creat(lFile.mPath.get(), 0600);
    mWhen = "succeeds";
    mTrace = cDestroying + "0\nLeft";
    mStays = "the descriptor stays open";
    run([&] { OsNamedPipeDestroy(lFile.mPath, lFile.mDescriptor); });
    EXPECT_EQ(0, close(lFile.mDescriptor));
}

OUTCOME_OF_ERRORS(OsNamedPipeDestroy, IgnoresThatTheFileCannotBeRemoved, EACCES, EBADF, EBUSY, EFAULT, EINVAL, EIO,
                  EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS)
{
    File lFile(path("fifo"));
    substitute::ClibUnlink.fail(-1, error());
    mWhen = "the file is missing or cannot be removed";
    mTrace = cDestroying + "-1 ERROR\nLeft";
    mStays = "the file; the descriptor";
    run([&] { OsNamedPipeDestroy(lFile.mPath, lFile.mDescriptor); });
}

const std::string cOpening =
    "Entered\n-T- \"Opening %s with %d flags\" FILE, \"6146\"\nClibOpen(FILE, O_RDWR|O_NONBLOCK|010000, 0) = ";

OUTCOME(OsNamedPipeOpen, StoresTheDescriptor)
{
    File lFile(path("fifo"));
    substitute::ClibOpen.fail(0, EACCES);
    mWhen = "succeeds";
    mTrace = cOpening + "0\ndescriptor changes\nLeft";
    mTells = "the descriptor is not negative";
    run([&] { OsNamedPipeOpen(lFile.mDescriptor, lFile.mPath, OQFM_Mode3, OQPS_NonBlocking, OQCM_Client); });
    EXPECT_EQ(0, lFile.mDescriptor);
}

OUTCOME_OF_ERRORS(OsNamedPipeOpen, KeepsTheDescriptorWhenTheFileCannotBeOpened, EACCES, EBADF, EBUSY, EDQUOT, EEXIST,
                  EFAULT, EFBIG, EINTR, EINVAL, EISDIR, ELOOP, EMFILE, ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM,
                  ENOSPC, ENOTDIR, ENXIO, EOPNOTSUPP, EOVERFLOW, EPERM, EROFS, ETXTBSY, EWOULDBLOCK)
{
    File lFile(path("fifo"));
    substitute::ClibOpen.fail(-2, error());
    mWhen = "`ClibOpen` fails";
    mTrace = cOpening + "-2 ERROR\nLeft";
    mTells = "the descriptor keeps its value";
    mStays = "the descriptor";
    run([&] { OsNamedPipeOpen(lFile.mDescriptor, lFile.mPath, OQFM_Mode3, OQPS_NonBlocking, OQCM_Client); });
}

OUTCOME(OsNamedPipeOpen, ThrowsWhenTheModeIsInvalid)
{
    File lFile(path("fifo"));
    mWhen = "file mode other than 1 to 4";
    mTrace = R"(
        Entered
        -E- "Invalid flags %d passed to open file" "5"
        Left
        throws OQCInvalidEx 6 "Invalid flags passed to open pipe"
    )";
    mStays = "the descriptor; nothing is opened";
    run([&] {
        OsNamedPipeOpen(lFile.mDescriptor, lFile.mPath, static_cast<OQEFileMode>(5), OQPS_Blocking, OQCM_Server);
    });
}

void onlyTraces(Outcome& arRow, const std::function<void()>& acrOperation)
{
    arRow.mWhen = "always";
    arRow.mTrace = "Entered\nLeft";
    arRow.mStays = "everything";
    arRow.run(acrOperation);
}

OUTCOME(OsNamedPipeConnect, OnlyTraces)
{
    File lFile(path("fifo"));
    onlyTraces(*this, [&] { OsNamedPipeConnect(lFile.mDescriptor, lFile.mPath, OQFM_Mode1, OQPS_Blocking); });
}

OUTCOME(OsNamedPipeAccept, OnlyTraces)
{
    onlyTraces(*this, [] { OsNamedPipeAccept(-1); });
}

struct Read {
    const char* mCall;
    void (*mRun)(int, unsigned char*, unsigned int, unsigned int&);
};
const Read cRead = {"ClibRead", OsNamedPipeRead};
const Read cBlockRead = {"ClibBlockRead", OsNamedPipeBlockRead};

/// The count is cleared after "Entered" and, unless it stays 0, set before "Left".
void read(Outcome& arRow, const Read& acrRead, Pipe& arPipe, const std::string& acrResult, unsigned int aCount,
          unsigned int aLength = 1000)
{
    const std::string lLength = std::to_string(aLength);
    arRow.mTrace = "Entered\ncount changes\n-T- \"Reading %u bytes\" \"" + lLength + "\"\n" + acrRead.mCall +
                   "(reader, bytes, " + lLength + ") = " + acrResult +
                   (0 == aCount ? "\nLeft" : "\ncount changes\nLeft");
    arRow.run([&] { acrRead.mRun(arPipe.mEnds[0], arPipe.mBytes, aLength, arPipe.mCount); });
    EXPECT_EQ(aCount, arPipe.mCount);
}

void readSucceeds(Outcome& arRow, const Read& acrRead)
{
    Pipe lPipe(1600);
    arRow.mWhen = "the pipe holds at least that number of bytes";
    arRow.mTells = "the count is the length";
    arRow.mStays = "further bytes stay in the pipe";
    read(arRow, acrRead, lPipe, "1000", 1000);
}

void readFails(Outcome& arRow, const Read& acrRead)
{
    Pipe lPipe(0);
    arRow.mWhen = "the read fails; `EAGAIN`: a non-blocking pipe is empty";
    arRow.mTells = "the count is 0";
    arRow.mStays = "the buffer as the read left it";
    read(arRow, acrRead, lPipe, "-2 ERROR", 0, 4294967295U);
}

OUTCOME(OsNamedPipeRead, ReadsTheLength) { readSucceeds(*this, cRead); }
OUTCOME(OsNamedPipeBlockRead, ReadsTheLength) { readSucceeds(*this, cBlockRead); }

OUTCOME(OsNamedPipeRead, GivesZeroAtEndOfData)
{
    Pipe lPipe(0);
    close(std::exchange(lPipe.mEnds[1], -1));
    mWhen = "end of data";
    mTells = "the count is 0";
    mStays = "the buffer";
    read(*this, cRead, lPipe, "0", 0);
}

OUTCOME_OF_ERRORS(OsNamedPipeRead, GivesZeroWhenTheReadFails, EAGAIN, EBADF, EFAULT, EINVAL, EIO, EISDIR, EINTR)
{
    substitute::ClibRead.fail(-2, error());
    readFails(*this, cRead);
}

OUTCOME_OF_ERRORS(OsNamedPipeBlockRead, GivesZeroWhenTheReadFails, EAGAIN, EBADF, EFAULT, EINVAL, EIO, EISDIR)
{
    substitute::ClibBlockRead.fail(-2, error());
    readFails(*this, cBlockRead);
}

OUTCOME(OsNamedPipeRead, GivesWhatThePipeHolds)
{
    Pipe lPipe(600);
    mWhen = "the pipe holds fewer bytes than the length";
    mTells = "the count is the number of bytes that the pipe held";
    read(*this, cRead, lPipe, "600", 600);
}

OUTCOME(OsNamedPipeBlockRead, GivesWhatHadArrivedAtEndOfData)
{
    Pipe lPipe(600);
    close(std::exchange(lPipe.mEnds[1], -1));
    mWhen = "the data ends before the length is reached";
    mTells = "the count is the number of bytes that had arrived";
    mStays = "the rest of the buffer";
    read(*this, cBlockRead, lPipe, "600", 600);
}

OUTCOME(OsNamedPipeBlockRead, LosesTheBytesOfANonBlockingPipeThatHoldsFewer)
{
    Pipe lPipe(600, O_NONBLOCK);
    mWhen = "a non-blocking pipe holds fewer bytes than the length";
    mTells = "the count is 0";
    mStays = "the bytes are lost";
    read(*this, cBlockRead, lPipe, "-1 EAGAIN", 0);
}

OUTCOME(OsNamedPipeWrite, GivesHowManyBytesWereWritten)
{
    mWhen = "succeeds; a non-blocking pipe may have room for a part only";
    mTells = "the count is the number of bytes that were written";
    for (const unsigned int lWritten : {600U, 0U}) {
        clearEvents();
        Pipe lPipe(0);
        substitute::ClibWrite.fail(lWritten, EAGAIN);
        mTrace = R"(
            Entered
            -T- "Writing %u bytes" "1000"
            ClibWrite(writer, bytes, 1000) = )" +
                 std::to_string(lWritten) + "\ncount changes\nLeft";
        run([&] { OsNamedPipeWrite(lPipe.mEnds[1], lPipe.mBytes, 1000, lPipe.mCount); });
        EXPECT_EQ(lWritten, lPipe.mCount);
    }
}

OUTCOME_OF_ERRORS(OsNamedPipeWrite, KeepsTheCountWhenTheWriteFails, EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG,
                  EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE)
{
    Pipe lPipe(0);
    substitute::ClibWrite.fail(-2, error());
    mWhen = "the write fails; `EAGAIN`: a non-blocking pipe is full; `EBADF`: the pipe was opened with `OQFM_Append`";
    mTrace = R"(
        Entered
        -T- "Writing %u bytes" "4294967295"
        ClibWrite(writer, bytes, 4294967295) = -2 ERROR
        Left
    )";
    mTells = "the count keeps its value";
    mStays = "the count";
    run([&] { OsNamedPipeWrite(lPipe.mEnds[1], lPipe.mBytes, 4294967295U, lPipe.mCount); });
}

const std::string cWait = ".//MiscLinux OsWaitForActivity: ";
const std::string cWaiting = "Entered\n" + cWait + "Entered\nselect(38, local 37, null, null, 30.000000) = ";
const std::string cReady = "1\n" + cWait + "-T- \"Data is available now.\"\n" + cWait + "Left\nLeft";

OUTCOME(OsNamedPipeWaitForActivity, ReturnsWhenThereIsSomethingToRead)
{
    substitute::select.fail(1, 0);
    mWhen = "data, or the end of the data";
    mTrace = cWaiting + cReady;
    mStays = "the data";
    run([] { OsNamedPipeWaitForActivity(37, 30); });
}

OUTCOME_OF_ERRORS(OsNamedPipeWaitForActivity, GoesOnWhenSignalsInterruptIt, EINTR, 514)
{
    int lResult = 0;
    substitute::select.instead([this, &lResult](int, fd_set*, fd_set*, fd_set*, timeval*) {
        errno = error();
        return lResult = 0 == lResult ? -1 : 1;
    });
    mWhen = "signals interrupt the wait (`EINTR`, 514)";
    mTrace = cWaiting + "-1 ERROR\n" + cWait + "-I- \"The select() call was interrupted.. Ignoring\"\n" +
             "select(38, local 37, null, null, 30.000000) = " + cReady;
    mTells = "the wait continues; it ends as another row says";
    mStays = "the data";
    run([] { OsNamedPipeWaitForActivity(37, 30); });
}

OUTCOME(OsNamedPipeWaitForActivity, ThrowsATimeOutWhenThereIsNothingToRead)
{
    substitute::select.fail(0, 0);
    mWhen = "nothing to read within the seconds, or a pipe that was not opened (-1)";
    mTrace = cWaiting + "0\n" + cWait + "-T- \"No data within %u seconds.\" \"30\"\n" + cWait +
             "Left\nthrows OQCTimeOutEx 323 \"Timed out\"";
    mStays = "the pipe";
    run([] { OsNamedPipeWaitForActivity(37, 30); });
}

OUTCOME_OF_ERRORS(OsNamedPipeWaitForActivity, ThrowsWhenTheWaitFails, EBADF, EINVAL, ENOMEM)
{
    substitute::select.fail(-1, error());
    mWhen = "the wait fails";
    mTrace = cWaiting + "-1 ERROR\n" +
             loggedFailure(cWait + R"(-E- "Error waiting on Named Pipe: %u, Error : %s" "37", )",
                           "OQCPipeWaitFailedEx 332", cWait + "Left\n");
    mStays = "the pipe";
    run([] { OsNamedPipeWaitForActivity(37, 30); });
}

const std::string cClosing = "Entered\n-T- \"Closing linux named pipe. pipe desc: %u\" ";

OUTCOME(OsNamedPipeClose, KeepsTheNumber)
{
    Pipe lPipe(0);
    watchObject("descriptor", &lPipe.mEnds[1], sizeof(int));
    mWhen = "succeeds";
    mTrace = cClosing + "writer\nClibClose(writer) = 0\nLeft";
    mStays = "the variable keeps the number; a second close would use it again";
    run([&] { OsNamedPipeClose(lPipe.mEnds[1], OQCM_Server); });
    EXPECT_EQ(-1, close(lPipe.mEnds[1]));
}

OUTCOME_OF_ERRORS(OsNamedPipeClose, IgnoresThatTheCloseFails, EBADF, EINTR, EIO, ENOSPC, EDQUOT)
{
    int lPipe = -1;
    watchObject("descriptor", &lPipe, sizeof lPipe);
    substitute::ClibClose.fail(-1, error());
    mWhen = "`ClibClose` fails, also because the number is stale";
    mTrace = cClosing + "\"4294967295\"\nClibClose(-1) = -1 ERROR\nLeft";
    mStays = "the variable keeps the number";
    run([&] { OsNamedPipeClose(lPipe, OQCM_Client); });
}

}  // namespace
