// oqshm as a maintainer uses it: a command that shows real servers and clients.

#include "OqshmKit.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

namespace
{

const char* const cNoSegment =
    " - - - - - - - - - no segment: the server has not opened it, or has closed it; start the server";
const char* const cUnseen = "  1 unseen\n  peer gone: one side has closed or died; for which one look again, as root\n";

/// Reads the output of a watching oqshm until a line contains the text. \return that line
std::string lineWith(Command& arWatch, size_t& arSeen, const std::string& acrText)
{
    std::string lLine;
    EXPECT_TRUE(arWatch.readUntil([&] {
        for (size_t lEnd; std::string::npos != (lEnd = arWatch.out().find('\n', arSeen)); arSeen = lEnd + 1) {
            lLine = arWatch.out().substr(arSeen, lEnd - arSeen);
            if (contains(lLine, acrText)) {
                arSeen = lEnd + 1;
                return true;
            }
        }
        return false;
    })) << "no line with "
        << acrText;
    return lLine;
}

shmid_ds stateOf(int aId)
{
    shmid_ds lState = {};
    EXPECT_EQ(0, shmctl(aId, IPC_STAT, &lState));
    return lState;
}

// ---- Output ---------------------------------------------------------------------------------------------------------

TEST_F(OqshmTest, EachStateOfAChannelIsShownInARow)
{
    EXPECT_EQ(keyText() + cNoSegment, shown(1));
    const auto lServer = side(OQCM_Server);
    const std::string lCreator = nameOf(lServer) + " (creator)";
    EXPECT_EQ(
        row("64 1 ready no empty - - - " + lCreator + " not ready: no client has opened it, writes are cancelled"),
        shown(0));
    const auto lClient = side(OQCM_Client);
    // Processes are shown in the order of /proc, which is the order of their ids.
    EXPECT_EQ(
        row("64 2 ready ready empty - - - " +
            (lServer->pid() < lClient->pid() ? lCreator + " " + nameOf(lClient) : nameOf(lClient) + " " + lCreator)),
        shown(0));
    end(lClient);
    EXPECT_EQ(row("64 1 ready ready empty - - - " + lCreator + " no client: it has closed or died, and its mark stays"),
              shown(0));
    const auto lNext = side(OQCM_Client, 1);
    expectShown(0, {row("64 2 ready ready full 12 - - ")});
    end(lNext);
    expectShown(1, {"peer gone: the client has closed or died, and a message waits; start the client"});
    end(lServer);
}

TEST_F(OqshmTest, AKilledServerIsMissedByTheClient)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client);
    const std::string lExpected = row(
        "64 1 ready ready empty - - - " + nameOf(lClient) + " peer gone: process " + std::to_string(lServer->pid()) +
        ", which made it, has closed it or died; start the server, unless it is who has it attached");
    kill(lServer);
    EXPECT_EQ(lExpected, shown(1));
    end(lClient);
}

TEST_F(OqshmTest, OfAProcessThatMayNotBeExaminedNothingIsGuessed)
{
    const auto lServer = side(OQCM_Server, 0, [] { prctl(PR_SET_DUMPABLE, 0); });
    kill(side(OQCM_Client));
    Strings lWords = {OQSHM, std::to_string(mKey)};
    if (0 == geteuid()) {
        lWords.insert(lWords.begin(), {"setpriv", "--bounding-set=-sys_ptrace", "--inh-caps=-sys_ptrace"});
    }
    const Result lResult = resultOf(lWords);
    EXPECT_EQ(1, lResult.mStatus);
    EXPECT_TRUE(contains(lResult.mOut, cUnseen)) << lResult.mOut;
    end(lServer);
}

TEST_F(OqshmTest, AStoppedSideIsNamed)
{
    const auto lServer = side(OQCM_Server);
    const std::string lPid = std::to_string(lServer->pid());
    lServer->kill(SIGSTOP);
    int lStatus = 0;
    ASSERT_EQ(lServer->pid(), waitpid(lServer->pid(), &lStatus, WUNTRACED));
    expectShown(1, {"stopped: process " + lPid + "; if no debugger holds it: kill -CONT " + lPid});
    lServer->kill(SIGCONT);
    end(lServer);
}

TEST_F(OqshmTest, ASegmentThatOutlivedItsSidesIsStaleAndKeepsTheTimeOfTheLastDetach)
{
    const auto lServer = side(OQCM_Server);
    kill(side(OQCM_Client, 1));
    kill(lServer);
    const std::string lId = std::to_string(mIds.front());
    const shmid_ds lBefore = stateOf(mIds.front());
    expectShown(
        1, {row("64 0 - - - - "), "stale: nobody has it attached; start the server, or remove it: ipcrm -m " + lId});
    // The system's times are whole seconds, so oqshm shows at least 1 only after up to two seconds.
    std::string lShown;
    EXPECT_TRUE(eventually([&] { return lShown = shown(1), !contains(lShown, row("64 0 - - - - 0 - stale: ")); }));
    int lStill = 0;
    EXPECT_EQ(1, sscanf(lShown.c_str(), (row("64 0 - - - - ") + "%d - stale: ").c_str(), &lStill)) << lShown;
    EXPECT_LE(1, lStill);
    const shmid_ds lAfter = stateOf(mIds.front());
    EXPECT_EQ(0, memcmp(&lBefore, &lAfter, sizeof lBefore)) << "the look left a trace";

    expectShown(1, {row("64 0 ready ready full 12 ")}, {"--attach"});
    EXPECT_EQ(0, resultOf({"ipcrm", "-m", lId}).mStatus);
    expectShown(1, {"no segment: "});
}

TEST_F(OqshmTest, ASegmentThatTheLookWouldRemoveIsNotRead)
{
    inNamespace([&] {
        // With this setting the kernel removes every segment that no process has attached.
        if (!(std::ofstream("/proc/sys/kernel/shm_rmid_forced") << "1\n").flush()) {
            _exit(77);
        }
        segment(64, 0666);
        expectShown(1, {row("64 0 - - - - - - stale: ")}, {"--attach"});
        EXPECT_LE(0, shmget(mKey, 0, 0)) << "the look removed it";
    });
}

TEST_F(OqshmTest, ASegmentOfAnotherProgramIsNotTouched)
{
    for (const std::pair<unsigned long, int>& acrOther : {std::make_pair(64UL, 0600), std::make_pair(65536UL, 0666)}) {
        const int lId = segment(acrOther.first, acrOther.second, "theirs");
        const std::unique_ptr<Peer> lOwner(new Peer([=](Peer& arTest) {  // children of the test inherit its own
            shmat(lId, nullptr, 0);
            arTest.signal();
            arTest.meet();
        }));
        lOwner->meet();
        const shmid_ds lBefore = stateOf(lId);
        char lText[128];
        snprintf(lText, sizeof lText,
                 "foreign segment: mode %04o, %lu bytes (a channel: 0666, at most 65535); choose another key",
                 static_cast<unsigned int>(acrOther.second), acrOther.first);
        for (const Strings& acrOptions : {Strings{"--attach"}, Strings{}}) {
            expectShown(1, {row(std::to_string(acrOther.first) + " 1 - - - - - - "), lText}, acrOptions);
        }
        const shmid_ds lAfter = stateOf(lId);
        EXPECT_EQ(0, memcmp(&lBefore, &lAfter, sizeof lBefore)) << "the look left a trace";
        end(lOwner);
        shmctl(lId, IPC_RMID, nullptr);
    }
}

TEST_F(OqshmTest, ContentsThatTheLayerNeverWritesAreNamed)
{
    const std::pair<std::string, std::string> cRows[] = {
        {{"\x00\x01\x07\x01\x00\x00", 6}, "ready ready empty - |foreign contents: marks 0 1 7 1, length 0"},
        {{"\x01\x00\x01\x00\xff\xff", 6}, "ready no full 65535 |foreign contents: marks 1 0 1 0, length 65535"},
        {{"\x01\x00\x01\x00\x3b\x3b", 6}, "ready no full 15163 |foreign contents: marks 1 0 1 0, length 15163"},
        {{"\x00\x00\x01\x01\x00\x00", 6}, "ready ready changing - "},
        {{"\x00\x00\x00\x00\x00\x00", 6}, "no no new - "},
    };
    for (const auto& acrRow : cRows) {
        const int lId = segment(64, 0666, acrRow.first);
        const size_t lBar = acrRow.second.find('|');
        const std::string lFinding = std::string::npos == lBar ? "" : acrRow.second.substr(lBar + 1);
        expectShown(1, {row("64 0 " + acrRow.second.substr(0, lBar)), lFinding}, {"--attach"});
        EXPECT_EQ(lFinding.empty(), !contains(shown(1, {"--attach"}), "foreign")) << acrRow.second;
        shmctl(lId, IPC_RMID, nullptr);
    }
    segment(5, 0666);
    expectShown(1, {row("5 0 - - - - - - stale"), "too small: the header alone has 6 bytes"}, {"--attach"});
}

TEST_F(OqshmTest, WhatAServerThatOpensAgainDuringAWriteMakesIsNamed)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client);
    auto* const lpSegment = static_cast<char*>(shmat(mIds.front(), nullptr, 0));
    const std::string lRemedy = "; open the server again, or read the message and discard it";
    OQShmDesc lDesc = {mKey, 64, -1, nullptr};
    memcpy(lpSegment, "\x01\x01\x01\x01\x00\x00", 6);
    expectShown(
        1, {row("64 3 ready ready invalid 0 - - "),
            "invalid: full and free at once: a server opened again while a client wrote, or two sides wrote at once" +
                lRemedy});
    OsSharedMemoryOpen(lDesc, OQCM_Server);  // each of the two remedies works: open or read
    OsSharedMemoryClose(lDesc, OQCM_Client);
    expectShown(0, {row("64 3 ready ready empty - - - ")});

    memcpy(lpSegment, "\x01\x00\x01\x01\x00\x00", 6);
    expectShown(
        1, {row("64 3 ready ready full 0 - - "),
            "empty message: full with length 0: a server opened again while a client wrote, or a side wrote 0 bytes" +
                lRemedy});
    OsSharedMemoryOpen(lDesc, OQCM_Client);
    unsigned char lMessage[58];
    unsigned int lLength = 1;
    OsSharedMemoryRead(lDesc, lMessage, sizeof lMessage, lLength);
    EXPECT_EQ(0U, lLength);
    OsSharedMemoryClose(lDesc, OQCM_Client);
    expectShown(0, {row("64 3 ready ready empty - - - ")});
    shmdt(lpSegment);
    end(lClient);
    end(lServer);
}

TEST_F(OqshmTest, AProcessThatEndsDuringTheLookIsNotShown)
{
    const auto lServer = side(OQCM_Server);
    kill(side(OQCM_Client));
    // The server's map exists but its state is empty, as for a process that ends between the two reads of oqshm.
    const std::string lState = "/proc/" + std::to_string(lServer->pid()) + "/stat";
    const Result lResult =
        resultOf({"sh", "-c",
                  "unshare --mount true || exit 77; exec unshare --mount sh -c 'mount --bind /dev/null " + lState +
                      " || exit 77; exec \"" OQSHM "\" " + std::to_string(mKey) + "'"});
    end(lServer);
    if (77 == lResult.mStatus) {
        GTEST_SKIP() << "no right to hide a file";
    }
    EXPECT_EQ(1, lResult.mStatus);
    EXPECT_TRUE(contains(lResult.mOut, cUnseen)) << lResult.mOut;
}

TEST_F(OqshmTest, AnAttachmentFromAnotherNamespaceDoesNotChangeAKey)
{
    inNamespace([&] {
        // Two segments are the first in their namespaces and have the same id. The map of the child contains the
        // attachment of its thread, but the child itself is in the namespace of the test.
        const auto lServer = side(OQCM_Server);
        const auto lClient = side(OQCM_Client);
        const std::unique_ptr<Peer> lForger(new Peer([&](Peer& arTest) {
            std::thread([&] {
                EXPECT_EQ(0, unshare(CLONE_NEWIPC));
                const int lId = shmget(key(2), 64, IPC_CREAT | 0666);
                EXPECT_EQ(mIds.front(), lId);
                EXPECT_NE(reinterpret_cast<void*>(-1), shmat(lId, nullptr, 0));
            }).join();
            arTest.signal();
            arTest.meet();
        }));
        lForger->meet();
        expectShown(0, {row("64 2 ready ready empty - - - ")});
        EXPECT_FALSE(contains(shown(0), std::to_string(lForger->pid()) + " "));
        end(lServer);  // marks the segment for removal: the kernel's table no longer contains its key
        expectShown(1, {keyText() + " " + std::to_string(mIds.front()) + " 64 1 ready ready empty - - - " +
                        nameOf(lClient) + " removed: "});
        EXPECT_FALSE(contains(shown(1), std::to_string(lForger->pid()) + " "));
        end(lForger);
        end(lClient);
    });
}

TEST_F(OqshmTest, WhoStaysOnARemovedSegmentIsTold)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client);
    end(lServer);
    const std::string lRemoved =
        keyText() + " " + std::to_string(mIds.front()) + " 64 1 ready ready empty - - - " + nameOf(lClient) +
        " removed: closed by the server; who has it still attached meets nobody and should close it";
    EXPECT_EQ(lRemoved + " " + keyText() + cNoSegment, shown(1));
    const auto lNext = side(OQCM_Server);  // the key now identifies another segment
    expectShown(1, {lRemoved});
    expectShown(1, {row("64 1 ready no empty")});
    end(lNext);
    end(lClient);
}

TEST_F(OqshmTest, JsonIsValidWhateverAProcessIsCalled)
{
    const auto lServer = side(OQCM_Server, 0, [] { prctl(PR_SET_NAME, "a\"b\\c\n) \x1b\xe4"); });
    const std::string lJson = oqshm({"--json", std::to_string(mKey), "0x7ffffffe"}).mOut;
    std::ofstream(path("json")) << lJson;
    EXPECT_EQ(0, resultOf({"python3", "-m", "json.tool", path("json")}).mStatus);
    unlink(path("json").c_str());
    EXPECT_EQ(1U, countOf(lJson, "\n")) << "one line a look";
    EXPECT_TRUE(
        contains(lJson, "\"key\": \"" + keyText() + "\", \"id\": " + std::to_string(shmget(mKey, 0, 0)) +
                            ", \"size\": 64, \"attached\": 1, \"server\": true, \"client\": false, \"mailbox\": "
                            "\"empty\", \"length\": null, \"still\": null, \"same\": null, \"processes\": [\"" +
                            std::to_string(lServer->pid()) +
                            " a\\\"b\\\\c?) ?? (creator)\"], \"wrong\": false, \"findings\": [\"not ready: no client "
                            "has opened it, writes are cancelled\"], \"ids\": [\"not-ready\"]}"))
        << lJson;
    EXPECT_TRUE(contains(lJson, "{\"key\": \"0x7ffffffe\", \"id\": null, ")) << lJson;
    end(lServer);
}

// ---- Watching -------------------------------------------------------------------------------------------------------

TEST_F(OqshmTest, WatchingShowsEveryChange)
{
    Command lWatch({OQSHM, "--watch=0.01", std::to_string(mKey)});
    size_t lSeen = 0;
    lineWith(lWatch, lSeen, "no segment");
    const auto lServer = side(OQCM_Server);
    lineWith(lWatch, lSeen, " ready      no     empty");
    const auto lClient = side(OQCM_Client, 1);
    lineWith(lWatch, lSeen, " ready   ready      full      12");
    OQShmDesc lDesc = {mKey, 64, -1, nullptr};
    OsSharedMemoryOpen(lDesc, OQCM_Client);
    unsigned char lMessage[58] = "a";
    unsigned int lDone = 0;
    OsSharedMemoryRead(lDesc, lMessage, sizeof lMessage, lDone);
    lineWith(lWatch, lSeen, " empty       -");
    OsSharedMemoryWrite(lDesc, lMessage, 1, lDone);
    lineWith(lWatch, lSeen, " full       1");
    ++*reinterpret_cast<unsigned char*>(lDesc.shm_addr + 1);      // like another message between two looks
    lineWith(lWatch, lSeen, " full       1        -       -  ");  // shown at once, not only when the message is stuck
    OsSharedMemoryRead(lDesc, lMessage, sizeof lMessage, lDone);
    lineWith(lWatch, lSeen, " empty       -");
    OsSharedMemoryClose(lDesc, OQCM_Client);
    end(lClient);
    end(lServer);
    lineWith(lWatch, lSeen, "no segment");
}

TEST_F(OqshmTest, WatchingFindsAMessageThatNobodyReads)
{
    const auto lServer = side(OQCM_Server);
    const auto lClient = side(OQCM_Client, 1);
    const int lOther = shmget(key(2), 64, IPC_CREAT | IPC_EXCL | 0666);  // stays between the two stores
    mIds.push_back(lOther);
    auto* const lpOther = static_cast<OQSSharedMemoryHeader*>(shmat(lOther, nullptr, 0));
    lpOther->server_ready = 1;
    Command lWatch({OQSHM, "-w0.05", "-j", std::to_string(mKey), std::to_string(key(2))});
    size_t lSeen = 0;
    const std::string lLine = lineWith(lWatch, lSeen, "stuck: the same bytes wait for 3 seconds and more");
    const char* const lpSame = strstr(lLine.c_str(), "\"same\": ");
    EXPECT_LE(3.0, nullptr == lpSame ? 0 : atof(lpSame + 8)) << lLine;
    EXPECT_TRUE(contains(lLine, "\"wrong\": true")) << lLine;
    lSeen = 0;
    lineWith(lWatch, lSeen, "stuck: a side stands or died between its two stores");
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
    const Command lWatch({OQSHM, "--watch=0.001", "--attach", std::to_string(mKey)});
    EXPECT_TRUE(eventually([&] { return getpid() != stateOf(lId).shm_lpid; })) << "it looks";
    shown(0);
    EXPECT_EQ(0, memcmp(lBytes.data(), lpSegment, lBytes.size()));
    EXPECT_EQ(0, shmdt(lpSegment));
}

TEST_F(OqshmTest, ThousandsOfMessagesPassWholeWhileItWatches)
{
    // A short sleep makes messages pass fast. A side that only yields would wait too long on a busy machine.
    substitute::ClibSleepMS.instead([](unsigned long) { usleep(50); });
    const Recording lRecording;
    OQShmDesc lDesc = {mKey, 256, -1, nullptr};
    OsSharedMemoryOpen(lDesc, OQCM_Server);
    mIds.push_back(lDesc.shm_id);
    Peer lClient([&](Peer& arServer) {
        OsSharedMemoryOpen(lDesc, OQCM_Client);
        arServer.signal();
        for (unsigned int lNumber = 0;; ++lNumber) {
            const std::vector<unsigned int> lMessage(1 + lNumber % 62, lNumber);
            unsigned int lWritten = 0;
            OsSharedMemoryWrite(lDesc, reinterpret_cast<const unsigned char*>(lMessage.data()),
                                static_cast<unsigned int>(4 * lMessage.size()), lWritten);
        }
    });
    lClient.meet();
    const off_t cBytes = 20000;  // output of the watch: about 60 looks that each found a change
    {
        const Command lWatch({OQSHM, "--watch=0.001", "--json", std::to_string(mKey)}, outputTo(path("looks")));
        struct stat lLooks = {};
        for (unsigned int lNumber = 0; lNumber < 3000 || lLooks.st_size < cBytes; ++lNumber) {
            std::vector<unsigned int> lMessage(62);
            unsigned int lRead = 0;
            OsSharedMemoryWaitForActivity(lDesc, 30);
            OsSharedMemoryRead(lDesc, reinterpret_cast<unsigned char*>(lMessage.data()), 248, lRead);
            lMessage.resize(lRead / 4);
            ASSERT_EQ(std::vector<unsigned int>(1 + lNumber % 62, lNumber), lMessage);
            stat(path("looks").c_str(), &lLooks);
        }
    }
    lClient.kill(SIGKILL);
    EXPECT_EQ(-SIGKILL, lClient.wait());
    const std::string lLooks = contentOf(path("looks"));
    EXPECT_LE(20U, countOf(lLooks, "\n"));
    EXPECT_EQ(countOf(lLooks, "\n"), countOf(lLooks.substr(0, lLooks.rfind('\n')), "\"wrong\": false")) << lLooks;
    unlink(path("looks").c_str());
    OsSharedMemoryClose(lDesc, OQCM_Server);
}

// ---- The command ----------------------------------------------------------------------------------------------------

TEST_F(OqshmTest, WrongWordsAreRefusedOnStandardError)
{
    const Strings cRows[] = {{"0"},         {"--", "-1"}, {"0x80000000"},  {"12x"},          {""},   {"--watch=0"},
                             {"--watch=x"}, {"--watch="}, {"--watch=nan"}, {"--watch=1001"}, {"-x"}, {"--jsonx"}};
    for (const Strings& acrWords : cRows) {
        const Result lResult = oqshm(acrWords);
        EXPECT_EQ(2, lResult.mStatus) << acrWords[0];
        EXPECT_EQ("", lResult.mOut);
        EXPECT_TRUE(contains(lResult.mError, "oqshm: ")) << lResult.mError;
        EXPECT_TRUE(contains(lResult.mError, "Try 'oqshm --help'.\n")) << lResult.mError;
    }
}

TEST_F(OqshmTest, OutputThatCannotBeWrittenIsAFailure)
{
    for (const char* lpWord : {"1", "--help", "--version"}) {
        const Result lResult = oqshm({lpWord}, outputTo("/dev/full"));
        EXPECT_EQ(2, lResult.mStatus) << lpWord;
        EXPECT_EQ("oqshm: cannot write: No space left on device\n", lResult.mError);
    }
}

TEST_F(OqshmTest, TheManualListsEveryIdentifier)
{
    const std::string lManual = OQSHM_MANUAL;
    const Result lUsed = resultOf({"sh", "-c",
                                   "cd \"$(dirname \"$0\")\" && cat oqshm.cpp OpenPrediction.cpp | tr -d ' \\n' | "
                                   "grep -oE '(wrong|note)\\(\"[^\"]+|mpReason=\"[^\"]+' | cut -d'\"' -f2 | sort -u",
                                   lManual});
    const Result lListed = resultOf({"sh", "-c",
                                     "sed -n '/^.SH FINDINGS/,/^.SH NOTES/p' \"$0\" | sed -n '/^\\.TP/{n;s/^.B //p}' | "
                                     "tr -d '\\\\,' | tr ' ' '\\n' | sort -u",
                                     lManual});
    EXPECT_EQ(lUsed.mOut, lListed.mOut);
    EXPECT_LE(20U, countOf(lUsed.mOut, "\n"));
}

TEST_F(OqshmTest, HelpAndManualNameTheSameOptions)
{
    const Result lHelp = oqshm({"--help"});
    EXPECT_EQ(0, lHelp.mStatus);
    std::string lManual = contentOf(OQSHM_MANUAL);
    for (size_t lAt; std::string::npos != (lAt = lManual.find("\\-"));) {
        lManual.erase(lAt, 1);  // the manual page writes "\-" for a hyphen
    }
    for (const char* lpOption : {"--size", "--as", "--watch", "--json", "--attach", "--help", "--version"}) {
        EXPECT_TRUE(contains(lHelp.mOut, lpOption)) << lpOption;
        EXPECT_TRUE(contains(lManual, lpOption)) << lpOption;
    }
    EXPECT_EQ("oqshm 1.0.0\n", oqshm({"--version"}).mOut);
}

}  // namespace
