// oqshm as a maintainer uses it: a command beside real servers and clients.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <thread>
#include <vector>

#include "OqshmKit.h"

namespace
{

bool sFast = false;

}  // namespace

// Where a test says so, messages pass fast. Who yields instead of sleeping comes late on a busy machine.
void ClibSleepMS(unsigned long aMilliseconds) { usleep(sFast ? 50 : static_cast<useconds_t>(aMilliseconds * 1000)); }

namespace
{

typedef std::vector<std::string> Strings;

/// oqshm at work beside the test, its output read by the test or kept in a file.
class Watch
{
public:
    explicit Watch(const Strings& acrWords, const std::string& acrFile = "")
    {
        int lEnds[2];
        if (pipe2(lEnds, O_CLOEXEC) < 0) {
            abort();
        }
        mPid = fork();
        if (0 == mPid) {
            std::vector<char*> lArguments = {const_cast<char*>(OQSHM)};
            for (const std::string& acrWord : acrWords) {
                lArguments.push_back(const_cast<char*>(acrWord.c_str()));
            }
            lArguments.push_back(nullptr);
            dup2(acrFile.empty() ? lEnds[1] : open(acrFile.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600),
                 STDOUT_FILENO);
            execv(OQSHM, lArguments.data());
            _exit(126);
        }
        close(lEnds[1]);
        mOutput = lEnds[0];
    }
    ~Watch()
    {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        close(mOutput);
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    /// Reads on until a line holds a text. \return that line
    std::string lineWith(const std::string& acrText)
    {
        pollfd lOutput = {mOutput, POLLIN, 0};
        for (;;) {
            size_t lEnd;
            while (std::string::npos != (lEnd = mRead.find('\n'))) {
                const std::string lLine = mRead.substr(0, lEnd);
                mRead.erase(0, lEnd + 1);
                if (contains(lLine, acrText)) {
                    return lLine;
                }
            }
            char lBytes[4096];
            const ssize_t lCount = 1 == poll(&lOutput, 1, 30000) ? read(mOutput, lBytes, sizeof lBytes) : 0;
            if (lCount <= 0) {
                ADD_FAILURE() << "no line with " << acrText;
                return "";
            }
            mRead.append(lBytes, static_cast<size_t>(lCount));
        }
    }

private:
    pid_t mPid;
    int mOutput;
    std::string mRead;
};

// ---- What it says ---------------------------------------------------------------------------------------------------

TEST_F(OqshmTest, ALiveChannelIsInOrder)
{
    const auto lServer = side(OQCM_Server);
    EXPECT_EQ(row("64 1 ready no empty - - - " + creator(lServer) +
                  " not ready: no client has opened it, writes are cancelled"),
              shown(0));
    const auto lClient = side(OQCM_Client);
    const std::string lShown = shown(0);
    const std::string lOther = std::to_string(lClient->pid()) + " OqshmTest";
    // Processes come in the order of /proc, which is that of their numbers.
    EXPECT_EQ(
        row("64 2 ready ready empty - - - " +
            (lServer->pid() < lClient->pid() ? creator(lServer) + " " + lOther : lOther + " " + creator(lServer))),
        lShown);
    end(lClient);
    EXPECT_EQ(row("64 1 ready ready empty - - - " + creator(lServer) +
                  " no client: it has closed or died, and its mark stays"),
              shown(0));
    end(lServer);
}

TEST_F(OqshmTest, AWaitingMessageIsShownWithItsLength)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client, 1);
    EXPECT_TRUE(contains(shown(0), row("64 2 ready ready full 12 - - "))) << shown(0);
    end(lClient);
    EXPECT_TRUE(contains(shown(1), "peer gone: the client has closed or died, and a message waits; start the client"));
    end(lServer);
}

TEST_F(OqshmTest, AKilledServerIsMissedByTheClient)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client);
    const std::string lExpected =
        row("64 1 ready ready empty - - - " + std::to_string(lClient->pid()) + " OqshmTest peer gone: process " +
            std::to_string(lServer->pid()) +
            ", which made it, has closed it or died; start the server, unless it is who has it attached");
    kill(lServer);
    EXPECT_EQ(lExpected, shown(1));
    end(lClient);
}

TEST_F(OqshmTest, OfAProcessThatMayNotBeExaminedNothingIsGuessed)
{
    const auto lServer = side(OQCM_Server, 0, true);
    kill(side(OQCM_Client));
    const std::string lAsUser = 0 == geteuid() ? "setpriv --bounding-set=-sys_ptrace --inh-caps=-sys_ptrace " : "";
    const Result lResult = shell(lAsUser + cOqshm + std::to_string(mKey));
    EXPECT_EQ(1, lResult.mStatus);
    EXPECT_TRUE(contains(lResult.mOut,
                         "  1 unseen\n  peer gone: one side has closed or died; for which one look again, as root\n"))
        << lResult.mOut;
    end(lServer);
}

TEST_F(OqshmTest, AStoppedSideIsNamed)
{
    const auto lServer = side(OQCM_Server);
    const std::string lPid = std::to_string(lServer->pid());
    lServer->kill(SIGSTOP);
    int lStatus = 0;
    ASSERT_EQ(lServer->pid(), waitpid(lServer->pid(), &lStatus, WUNTRACED));
    EXPECT_TRUE(contains(shown(1), "stopped: process " + lPid + "; if no debugger holds it: kill -CONT " + lPid));
    lServer->kill(SIGCONT);
    end(lServer);
}

TEST_F(OqshmTest, ASegmentThatOutlivedItsSidesIsStaleAndKeepsTheTimeOfTheLastDetach)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client, 1);
    kill(lClient);
    kill(lServer);
    const int lId = mIds.front();
    shmid_ds lBefore = {}, lAfter = {};
    ASSERT_EQ(0, shmctl(lId, IPC_STAT, &lBefore));
    const std::string lShown = shown(1);
    const std::string lCommand = "ipcrm -m " + std::to_string(lId);
    EXPECT_TRUE(contains(lShown, row("64 0 - - - - "))) << lShown;
    EXPECT_TRUE(contains(lShown, "stale: nobody has it attached; start the server, or remove it: " + lCommand));
    ASSERT_EQ(0, shmctl(lId, IPC_STAT, &lAfter));
    EXPECT_EQ(0, memcmp(&lBefore, &lAfter, sizeof lBefore)) << "the look left a trace";

    EXPECT_TRUE(contains(shown(1, "--attach"), row("64 0 ready ready full 12 ")))
        << "asked for, it is read all the same";
    EXPECT_EQ(0, shell(lCommand).mStatus);
    EXPECT_TRUE(contains(shown(1), "no segment: ")) << "the command does what is said of it";
}

TEST_F(OqshmTest, ASegmentThatTheLookWouldRemoveIsNotRead)
{
    const ChildResult lResult = inChild([&] {
        // In a namespace of its own, where the kernel is told to remove what nobody has attached.
        if (unshare(CLONE_NEWIPC) < 0 || !(std::ofstream("/proc/sys/kernel/shm_rmid_forced") << "1\n").flush()) {
            _exit(77);
        }
        segment(64, 0666, "");
        EXPECT_TRUE(contains(shown(1, "--attach"), row("64 0 - - - - - - stale: ")));
        EXPECT_LE(0, shmget(mKey, 0, 0)) << "the look removed it";
    });
    if (77 == lResult.mExitStatus) {
        GTEST_SKIP() << "no right to make a namespace";
    }
    EXPECT_EQ(0, lResult.mExitStatus);
}

TEST_F(OqshmTest, TellsForHowLongNothingCanHaveChanged)
{
    side(OQCM_Server)->kill(SIGKILL);
    EXPECT_TRUE(contains(shown(1), row("64 0 - - - - ")));
    // Whole seconds of the system: the first certain one comes after two at most.
    std::string lShown;
    EXPECT_TRUE(eventually([&] {
        lShown = shown(1);
        return !contains(lShown, row("64 0 - - - - 0 - stale: "));
    }));
    const std::string lBefore = row("64 0 - - - - ");
    ASSERT_TRUE(contains(lShown, lBefore)) << lShown;
    const std::string lRest = lShown.substr(lShown.find(lBefore) + lBefore.size());
    EXPECT_LE(1, atoi(lRest.c_str())) << lShown;
    EXPECT_TRUE(contains(lRest, " - stale: ")) << lShown;
}

TEST_F(OqshmTest, ASegmentOfAnotherProgramIsNotTouched)
{
    for (const std::pair<unsigned long, int>& acrOther : {std::make_pair(64UL, 0600), std::make_pair(65536UL, 0666)}) {
        const int lId = segment(acrOther.first, acrOther.second, "theirs");
        Peer lOwner([=](Peer& arTest) {  // a command that this process starts could inherit its attachments
            shmat(lId, nullptr, 0);
            arTest.signal();
            arTest.meet();
        });
        lOwner.meet();
        shmid_ds lBefore = {}, lAfter = {};
        shmctl(lId, IPC_STAT, &lBefore);
        EXPECT_TRUE(contains(shown(1, "--attach"), row(std::to_string(acrOther.first) + " 1 - - - - - - ")));
        char lText[128];
        snprintf(lText, sizeof lText,
                 "foreign segment: mode %04o, %lu bytes (a channel: 0666, at most 65535); choose another key",
                 static_cast<unsigned int>(acrOther.second), acrOther.first);
        EXPECT_TRUE(contains(shown(1), lText)) << shown(1);
        shmctl(lId, IPC_STAT, &lAfter);
        EXPECT_EQ(0, memcmp(&lBefore, &lAfter, sizeof lBefore)) << "the look left a trace";
        lOwner.signal();
        EXPECT_EQ(0, lOwner.wait());
        shmctl(lId, IPC_RMID, nullptr);
    }
}

TEST_F(OqshmTest, ContentsThatTheLayerNeverWritesAreNamed)
{
    const struct {
        std::string mHeader, mState, mFinding;
    } cRows[] = {
        {{"\x00\x01\x07\x01\x00\x00", 6}, "ready ready empty - ", "foreign contents: marks 0 1 7 1, length 0"},
        {{"\x01\x00\x01\x00\xff\xff", 6}, "ready no full 65535 ", "foreign contents: marks 1 0 1 0, length 65535"},
        {{"\x01\x00\x01\x00\x3b\x3b", 6}, "ready no full 15163 ", "foreign contents: marks 1 0 1 0, length 15163"},
        {{"\x00\x00\x01\x01\x00\x00", 6}, "ready ready changing - ", ""},
        {{"\x00\x00\x00\x00\x00\x00", 6}, "no no new - ", ""},
    };
    for (const auto& acrRow : cRows) {
        const int lId = segment(64, 0666, acrRow.mHeader);
        const std::string lShown = shown(1, "--attach");
        EXPECT_TRUE(contains(lShown, row("64 0 " + acrRow.mState))) << lShown;
        EXPECT_TRUE(contains(lShown, acrRow.mFinding)) << lShown;
        EXPECT_EQ(acrRow.mFinding.empty(), !contains(lShown, "foreign")) << lShown;
        shmctl(lId, IPC_RMID, nullptr);
    }
    segment(5, 0666);
    EXPECT_TRUE(contains(shown(1, "--attach"), row("5 0 - - - - - - stale")));
    EXPECT_TRUE(contains(shown(1), "too small: the header alone has 6 bytes"));
}

TEST_F(OqshmTest, WhatAServerThatOpensAgainDuringAWriteMakesIsNamed)
{
    const std::string lRemedy = "; open the server again, or read the message and discard it";
    const struct {
        std::string mHeader, mState, mFinding;
    } cRows[] = {
        {{"\x01\x01\x01\x01\x00\x00", 6},
         "ready ready invalid 0 - - ",
         "invalid: full and free at once: a server opened again while a client wrote, or two sides wrote at once"},
        {{"\x01\x00\x01\x01\x00\x00", 6},
         "ready ready full 0 - - ",
         "empty message: full with length 0: a server opened again while a client wrote, or a side wrote 0 bytes"},
    };
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client);
    auto* const lpSegment = static_cast<char*>(shmat(mIds.front(), nullptr, 0));
    for (const auto& acrRow : cRows) {
        memcpy(lpSegment, acrRow.mHeader.data(), acrRow.mHeader.size());
        const std::string lShown = shown(1);
        EXPECT_TRUE(contains(lShown, row("64 3 " + acrRow.mState))) << lShown;
        EXPECT_TRUE(contains(lShown, acrRow.mFinding + lRemedy)) << lShown;
        // Each of the two remedies ends the state.
        OQShmDesc lDesc = {mKey, 64, -1, nullptr};
        if (&acrRow == cRows) {
            OsSharedMemoryOpen(lDesc, OQCM_Server);
        } else {
            OsSharedMemoryOpen(lDesc, OQCM_Client);
            unsigned char lMessage[58];
            unsigned int lLength = 1;
            OsSharedMemoryRead(lDesc, lMessage, sizeof lMessage, lLength);
            EXPECT_EQ(0U, lLength);
        }
        OsSharedMemoryClose(lDesc, OQCM_Client);
        EXPECT_TRUE(contains(shown(0), row("64 3 ready ready empty - - - "))) << shown(0);
    }
    shmdt(lpSegment);
    end(lClient);
    end(lServer);
}

TEST_F(OqshmTest, AProcessThatEndsDuringTheLookIsNotShown)
{
    const auto lServer = side(OQCM_Server);
    kill(side(OQCM_Client));
    // Its map is there, but not its state any more: so it is for a process that ends between the two reads.
    const std::string lState = "/proc/" + std::to_string(lServer->pid()) + "/stat";
    const Result lResult =
        shell("unshare --mount true || exit 77; exec unshare --mount sh -c 'mount --bind /dev/null " + lState +
              " || exit 77; exec \"" OQSHM "\" " + std::to_string(mKey) + "' 2>&1");
    end(lServer);
    if (77 == lResult.mStatus) {
        GTEST_SKIP() << "no right to hide a file";
    }
    EXPECT_EQ(1, lResult.mStatus);
    EXPECT_TRUE(contains(lResult.mOut,
                         "  1 unseen\n  peer gone: one side has closed or died; for which one look again, as root\n"))
        << lResult.mOut;
}

TEST_F(OqshmTest, AnAttachmentFromAnotherNamespaceDoesNotChangeAKey)
{
    const ChildResult lResult = inChild([&] {
        if (unshare(CLONE_NEWIPC) < 0) {
            _exit(77);
        }
        // Both are the first segments of their namespaces and have the same id. The thread's attachment is in the map of
        // the process, whose own namespace is that of the test.
        const auto lServer = side(OQCM_Server);
        const auto lClient = side(OQCM_Client);
        Peer lForger([&](Peer& arTest) {
            std::thread([&] {
                EXPECT_EQ(0, unshare(CLONE_NEWIPC));
                const int lId = shmget(key(2), 64, IPC_CREAT | 0666);
                EXPECT_EQ(mIds.front(), lId);
                EXPECT_NE(reinterpret_cast<void*>(-1), shmat(lId, nullptr, 0));
            }).join();
            arTest.signal();
            arTest.meet();
        });
        lForger.meet();
        const std::string lShown = shown(0);
        EXPECT_TRUE(contains(lShown, row("64 2 ready ready empty - - - "))) << lShown;
        EXPECT_FALSE(contains(lShown, std::to_string(lForger.pid()) + " ")) << lShown;
        end(lServer);  // from now on the kernel's table has no key
        const std::string lRemoved = shown(1);
        EXPECT_TRUE(contains(lRemoved, keyText() + " " + std::to_string(mIds.front()) +
                                           " 64 1 ready ready empty - - - " + std::to_string(lClient->pid()) +
                                           " OqshmTest removed: "))
            << lRemoved;
        EXPECT_FALSE(contains(lRemoved, std::to_string(lForger.pid()) + " ")) << lRemoved;
        lForger.signal();
        EXPECT_EQ(0, lForger.wait());
        end(lClient);
    });
    if (77 == lResult.mExitStatus) {
        GTEST_SKIP() << "no right to make a namespace";
    }
    EXPECT_EQ(0, lResult.mExitStatus);
}

TEST_F(OqshmTest, WithoutASegmentThatIsWhatIsWrong)
{
    EXPECT_EQ(
        keyText() + " - - - - - - - - - no segment: the server has not opened it, or has closed it; start the server",
        shown(1));
}

TEST_F(OqshmTest, WhoStaysOnARemovedSegmentIsTold)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client);
    const std::string lOldId = std::to_string(mIds.front()), lPid = std::to_string(lClient->pid());
    end(lServer);
    const std::string lRemoved = keyText() + " " + lOldId + " 64 1 ready ready empty - - - " + lPid +
                                 " OqshmTest removed: closed by the server; who has it still attached meets nobody and "
                                 "should close it";
    EXPECT_EQ(lRemoved + " " + keyText() +
                  " - - - - - - - - - no segment: the server has not opened it, or has closed it; start the server",
              shown(1));
    const auto lNext = side(OQCM_Server);  // the same key is another segment now
    const std::string lBoth = shown(1);
    EXPECT_TRUE(contains(lBoth, lRemoved)) << lBoth;
    EXPECT_TRUE(contains(lBoth, row("64 1 ready no empty"))) << lBoth;
    end(lNext);
    end(lClient);
}

TEST_F(OqshmTest, JsonIsValidWhateverAProcessIsCalled)
{
    OQShmDesc lDesc = {mKey, 64, -1, nullptr};
    Peer lServer([=](Peer& arTest) mutable {
        prctl(PR_SET_NAME, "a\"b\\c\n) \x1b\xe4");
        OsSharedMemoryOpen(lDesc, OQCM_Server);
        arTest.signal();
        arTest.meet();
        OsSharedMemoryClose(lDesc, OQCM_Server);
    });
    lServer.meet();
    const std::string lWords = "--json " + std::to_string(mKey) + " 0x7ffffffe";
    EXPECT_EQ(0, shell(cOqshm + lWords + " | python3 -m json.tool >/dev/null").mStatus);
    const std::string lJson = oqshm(lWords).mOut;
    EXPECT_EQ(1, std::count(lJson.begin(), lJson.end(), '\n')) << "one line a look";
    EXPECT_TRUE(
        contains(lJson, "\"key\": \"" + keyText() + "\", \"id\": " + std::to_string(shmget(mKey, 0, 0)) +
                            ", \"size\": 64, \"attached\": 1, \"server\": true, \"client\": false, \"mailbox\": "
                            "\"empty\", \"length\": null, \"still\": null, \"same\": null, \"processes\": [\"" +
                            std::to_string(lServer.pid()) +
                            " a\\\"b\\\\c?) ?? (creator)\"], \"wrong\": false, \"findings\": [\"not ready: "))
        << lJson;
    EXPECT_TRUE(contains(lJson, "{\"key\": \"0x7ffffffe\", \"id\": null, ")) << lJson;
    lServer.signal();
    EXPECT_EQ(0, lServer.wait());
}

// ---- Watching -------------------------------------------------------------------------------------------------------

TEST_F(OqshmTest, WatchingShowsEveryChange)
{
    Watch lWatch({"--watch=0.01", std::to_string(mKey)});
    lWatch.lineWith("no segment");
    const auto lServer = side(OQCM_Server);
    lWatch.lineWith(" ready      no     empty");
    const auto lClient = side(OQCM_Client, 1);
    lWatch.lineWith(" ready   ready      full      12");
    OQShmDesc lDesc = {mKey, 64, -1, nullptr};
    OsSharedMemoryOpen(lDesc, OQCM_Client);
    unsigned char lMessage[58];
    unsigned int lDone = 0;
    OsSharedMemoryRead(lDesc, lMessage, sizeof lMessage, lDone);
    lWatch.lineWith(" empty       -");
    const unsigned char cByte = 'a';
    OsSharedMemoryWrite(lDesc, &cByte, 1, lDone);
    lWatch.lineWith(" full       1");
    *reinterpret_cast<unsigned char*>(lDesc.shm_addr + 1) = 'b';  // as if read and written between two looks
    lWatch.lineWith(" full       1        -       -  ");          // shown at once, and not when it is stuck
    OsSharedMemoryRead(lDesc, lMessage, sizeof lMessage, lDone);
    lWatch.lineWith(" empty       -");
    OsSharedMemoryClose(lDesc, OQCM_Client);
    end(lClient);
    end(lServer);
    lWatch.lineWith("no segment");
}

TEST_F(OqshmTest, WatchingFindsAMessageThatNobodyReads)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client, 1);
    const int lOther = shmget(key(2), 64, IPC_CREAT | IPC_EXCL | 0666);  // between two stores for good
    mIds.push_back(lOther);
    auto* const lpOther = static_cast<OQSSharedMemoryHeader*>(shmat(lOther, nullptr, 0));
    lpOther->server_ready = 1;
    Watch lWatch({"-w0.05", "-j", std::to_string(mKey), std::to_string(key(2))});
    const std::string lLine = lWatch.lineWith("stuck: the same bytes wait for 3 seconds and more");
    const char* const lpSame = strstr(lLine.c_str(), "\"same\": ");
    EXPECT_LE(3.0, nullptr == lpSame ? 0 : atof(lpSame + 8)) << lLine;
    EXPECT_TRUE(contains(lLine, "\"wrong\": true")) << lLine;
    if (!contains(lLine, "stuck: a side stands or died between its two stores")) {
        lWatch.lineWith("stuck: a side stands or died between its two stores");
    }
    shmdt(lpOther);
    end(lClient);
    end(lServer);
}

TEST_F(OqshmTest, AnOnlookerAltersNoByte)
{
    const int lId = segment(65535, 0666);
    auto* const lpSegment = static_cast<unsigned char*>(shmat(lId, nullptr, 0));
    std::vector<unsigned char> lBytes(65535);
    for (size_t lAt = 0; lAt < lBytes.size(); ++lAt) {
        lpSegment[lAt] = lBytes[lAt] = static_cast<unsigned char>(lAt < 6 ? lAt % 2 : lAt * 31 + 7);
    }
    shmid_ds lState;
    Watch lWatch({"--watch=0.001", "--attach", std::to_string(mKey)});
    const auto lLastAttach = [&] { return shmctl(lId, IPC_STAT, &lState), lState.shm_lpid; };
    EXPECT_TRUE(eventually([&] { return getpid() != lLastAttach(); })) << "it looks";
    shown(0);
    EXPECT_EQ(0, memcmp(lBytes.data(), lpSegment, lBytes.size()));
    EXPECT_EQ(0, shmdt(lpSegment));
}

TEST_F(OqshmTest, ThousandsOfMessagesPassWholeWhileItWatches)
{
    OQShmDesc lServer = {mKey, 256, -1, nullptr};
    OsSharedMemoryOpen(lServer, OQCM_Server);
    mIds.push_back(lServer.shm_id);
    sFast = true;
    Peer lClient([&](Peer& arServer) {
        OQShmDesc lDesc = {mKey, 256, -1, nullptr};
        OsSharedMemoryOpen(lDesc, OQCM_Client);
        arServer.signal();
        for (unsigned int lNumber = 0;; ++lNumber) {
            clearLog();
            const std::vector<unsigned int> lMessage(1 + lNumber % 62, lNumber);
            unsigned int lWritten = 0;
            OsSharedMemoryWrite(lDesc, reinterpret_cast<const unsigned char*>(lMessage.data()),
                                static_cast<unsigned int>(4 * lMessage.size()), lWritten);
        }
    });
    lClient.meet();
    const std::string lFile = path("looks");
    const off_t cBytes = 20000;  // of what the watch says: some 60 looks that found something else than the one before
    {
        const Watch lWatch({"--watch=0.001", "--json", std::to_string(mKey)}, lFile);
        struct stat lLooks = {};
        for (unsigned int lNumber = 0; lNumber < 3000 || lLooks.st_size < cBytes; ++lNumber) {
            clearLog();
            std::vector<unsigned int> lMessage(62);
            unsigned int lRead = 0;
            OsSharedMemoryWaitForActivity(lServer, 30);
            OsSharedMemoryRead(lServer, reinterpret_cast<unsigned char*>(lMessage.data()), 248, lRead);
            lMessage.resize(lRead / 4);
            ASSERT_EQ(std::vector<unsigned int>(1 + lNumber % 62, lNumber), lMessage);
            stat(lFile.c_str(), &lLooks);
        }
    }
    lClient.kill(SIGKILL);
    EXPECT_EQ(-SIGKILL, lClient.wait());
    sFast = false;
    std::ifstream lLooks(lFile);
    std::string lLook;
    size_t lCount = 0;
    while (std::getline(lLooks, lLook) && !lLooks.eof()) {
        ++lCount;
        EXPECT_TRUE(contains(lLook, "\"wrong\": false")) << lLook;
    }
    EXPECT_LE(20U, lCount);
    unlink(lFile.c_str());
    OsSharedMemoryClose(lServer, OQCM_Server);
}

// ---- The command ----------------------------------------------------------------------------------------------------

TEST_F(OqshmTest, WrongWordsAreRefusedOnStandardError)
{
    for (const char* lpWords : {"0", "-- -1", "0x80000000", "12x", "''", "--watch=0", "--watch=x",
                                "--watch=", "--watch=nan", "--watch=1001", "-x", "--jsonx"}) {
        const Result lResult = oqshm(lpWords);
        EXPECT_EQ(2, lResult.mStatus) << lpWords;
        EXPECT_TRUE(contains(lResult.mOut, "oqshm: ")) << lResult.mOut;
        EXPECT_TRUE(contains(lResult.mOut, "Try 'oqshm --help'.\n")) << lResult.mOut;
        EXPECT_EQ("", shell(cOqshm + lpWords + " 2>/dev/null").mOut) << lpWords;
    }
}

TEST_F(OqshmTest, OutputThatCannotBeWrittenIsAFailure)
{
    for (const char* lpWords : {"1", "--help", "--version"}) {
        const Result lResult = shell(cOqshm + lpWords + " 2>&1 >/dev/full");
        EXPECT_EQ(2, lResult.mStatus) << lpWords;
        EXPECT_EQ("oqshm: cannot write: No space left on device\n", lResult.mOut);
    }
}

TEST_F(OqshmTest, HelpAndManualNameTheSameOptions)
{
    const Result lHelp = oqshm("--help");
    EXPECT_EQ(0, lHelp.mStatus);
    std::ifstream lFile(OQSHM_MANUAL);
    std::string lManual(std::istreambuf_iterator<char>(lFile), {});
    for (size_t lAt; std::string::npos != (lAt = lManual.find("\\-"));) {
        lManual.erase(lAt, 1);  // a hyphen as the typesetter takes it
    }
    for (const char* lpOption : {"--watch", "--json", "--attach", "--help", "--version"}) {
        EXPECT_TRUE(contains(lHelp.mOut, lpOption)) << lpOption;
        EXPECT_TRUE(contains(lManual, lpOption)) << lpOption;
    }
    EXPECT_EQ("oqshm 1.0.0\n", oqshm("--version").mOut);
}

}  // namespace
