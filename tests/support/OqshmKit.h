/// \file
/// Runs oqshm for its tests, and makes channels for oqshm to show.
#ifndef OQ_OQSHM_KIT_H
#define OQ_OQSHM_KIT_H

#include <sched.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <unistd.h>

#include <sstream>

#include "Command.h"

inline Result oqshm(Strings aWords, const std::function<void()>& acrPrepare = {})
{
    aWords.insert(aWords.begin(), OQSHM);
    return resultOf(aWords, acrPrepare);
}

/// Runs a test in its own IPC namespace.
inline void inNamespace(const std::function<void()>& acrRun)
{
    const int lStatus = inChild([&] {
        if (unshare(CLONE_NEWIPC) < 0) {
            _exit(77);
        }
        acrRun();
    });
    if (77 == lStatus) {
        GTEST_SKIP() << "no right to make a namespace";
    }
    EXPECT_EQ(0, lStatus);
}

class OqshmTest : public RecordedTest
{
protected:
    void SetUp() override
    {
        RecordedTest::SetUp();
        keepNoEvents();
    }
    void TearDown() override
    {
        for (const int lId : mIds) {
            shmctl(lId, IPC_RMID, nullptr);
        }
        RecordedTest::TearDown();
    }

    /// A segment that is removed after the test.
    int segment(unsigned long aSize, int aMode, const std::string& acrContents = "")
    {
        const int lId = shmget(mKey, aSize, IPC_CREAT | IPC_EXCL | aMode);
        EXPECT_LE(0, lId);
        mIds.push_back(lId);
        if (!acrContents.empty()) {
            void* const lpSegment = shmat(lId, nullptr, 0);
            memcpy(lpSegment, acrContents.data(), acrContents.size());
            shmdt(lpSegment);
        }
        return lId;
    }

    /// Starts a process that opens the channel, sends the messages, signals, and closes the channel after end().
    std::unique_ptr<Peer> side(OQEConnectionMode aSide, unsigned int aMessages = 0,
                               const std::function<void()>& acrPrepare = {})
    {
        OQShmDesc lDesc = {mKey, 64, -1, nullptr};
        std::unique_ptr<Peer> lPeer(new Peer([&](Peer& arTest) {
            prctl(PR_SET_DUMPABLE, 1);
            prctl(PR_SET_NAME, "OqshmTest");  // another program, such as Valgrind, may run this one
            if (acrPrepare) {
                acrPrepare();
            }
            OsSharedMemoryOpen(lDesc, aSide);
            for (unsigned int lMessage = 0; lMessage < aMessages; ++lMessage) {
                unsigned int lWritten = 0;
                OsSharedMemoryWrite(lDesc, reinterpret_cast<const unsigned char*>("twelve bytes"), 12, lWritten);
            }
            arTest.signal();
            arTest.meet();
            OsSharedMemoryClose(lDesc, aSide);
        }));
        lPeer->meet();
        mIds.push_back(shmget(mKey, 0, 0));
        return lPeer;
    }
    static void end(const std::unique_ptr<Peer>& acrSide)
    {
        acrSide->signal();
        EXPECT_EQ(0, acrSide->wait());
    }
    static void kill(const std::unique_ptr<Peer>& acrSide)
    {
        acrSide->kill(SIGKILL);
        EXPECT_EQ(-SIGKILL, acrSide->wait());
    }

    /// Runs oqshm with the key and expects an exit status. \return the output below the heading, with single blanks
    std::string shown(int aStatus, const Strings& acrOptions = {}) const
    {
        Strings lWords = acrOptions;
        lWords.push_back(std::to_string(mKey));
        const Result lResult = oqshm(lWords);
        EXPECT_EQ(aStatus, lResult.mStatus) << lResult.mOut << lResult.mError;
        std::istringstream lText(lResult.mOut.substr(lResult.mOut.find('\n') + 1));
        std::string lShown;
        for (std::string lWord; lText >> lWord;) {
            lShown += (lShown.empty() ? "" : " ") + lWord;
        }
        return lShown;
    }
    /// The same, and expects that the output contains these parts in this order.
    void expectShown(int aStatus, const Strings& acrParts, const Strings& acrOptions = {}) const
    {
        const std::string lShown = shown(aStatus, acrOptions);
        size_t lAt = 0;
        for (const std::string& lrPart : acrParts) {
            lAt = lShown.find(lrPart, lAt);
            EXPECT_NE(std::string::npos, lAt) << lrPart << "\n" << lShown;
        }
    }
    std::string keyText() const
    {
        char lText[16];
        snprintf(lText, sizeof lText, "0x%08x", static_cast<unsigned int>(mKey));
        return lText;
    }
    std::string row(const std::string& acrRest) const
    {
        return keyText() + " " + std::to_string(shmget(mKey, 0, 0)) + " " + acrRest;
    }
    static std::string nameOf(const std::unique_ptr<Peer>& acrSide)
    {
        return std::to_string(acrSide->pid()) + " OqshmTest";
    }

    const int mKey = key(1);
    std::vector<int> mIds;
};

#endif
