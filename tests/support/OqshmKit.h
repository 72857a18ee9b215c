// oqshm as its tests run it, and channels for it to look at.
#ifndef OQ_OQSHM_KIT_H
#define OQ_OQSHM_KIT_H

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "TestKit.h"

inline bool contains(const std::string& acrText, const std::string& acrPart)
{
    return std::string::npos != acrText.find(acrPart);
}

struct Result {
    int mStatus;
    std::string mOut;
};

/// Runs a shell command.
inline Result shell(const std::string& acrCommand)
{
    Result lResult = {-1, ""};
    FILE* const lpOutput = popen(acrCommand.c_str(), "re");
    char lBytes[4096];
    for (size_t lRead; nullptr != lpOutput && 0 < (lRead = fread(lBytes, 1, sizeof lBytes, lpOutput));) {
        lResult.mOut.append(lBytes, lRead);
    }
    const int lStatus = nullptr == lpOutput ? -1 : pclose(lpOutput);
    lResult.mStatus = WIFEXITED(lStatus) ? WEXITSTATUS(lStatus) : -1;
    return lResult;
}

/// For the shell: the path may contain spaces.
const std::string cOqshm = "'" OQSHM "' ";

/// What is on standard error counts as output.
inline Result oqshm(const std::string& acrWords) { return shell(cOqshm + acrWords + " 2>&1"); }

class OqshmTest : public LayerTest
{
protected:
    void TearDown() override
    {
        for (const int lId : mIds) {
            shmctl(lId, IPC_RMID, nullptr);
        }
        LayerTest::TearDown();
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

    /// A process that has the channel open until it is told to close it; it sends the messages before it says so.
    std::unique_ptr<Peer> side(OQEConnectionMode aSide, unsigned int aMessages = 0, bool aHidden = false)
    {
        OQShmDesc lDesc = {mKey, 64, -1, nullptr};
        std::unique_ptr<Peer> lPeer(new Peer([=](Peer& arTest) mutable {
            prctl(PR_SET_DUMPABLE, aHidden ? 0 : 1);
            prctl(PR_SET_NAME, "OqshmTest");  // also where this program is run by another one
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

    /// Shows the key, expects an exit status. \return what is shown below the heading, blanks as one
    std::string shown(int aStatus, const std::string& acrOptions = "") const
    {
        const Result lResult = oqshm(acrOptions + " " + std::to_string(mKey));
        EXPECT_EQ(aStatus, lResult.mStatus) << lResult.mOut;
        std::istringstream lWords(lResult.mOut.substr(lResult.mOut.find('\n') + 1));
        std::string lShown;
        for (std::string lWord; lWords >> lWord;) {
            lShown += (lShown.empty() ? "" : " ") + lWord;
        }
        return lShown;
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
    static std::string creator(const std::unique_ptr<Peer>& acrSide)
    {
        return std::to_string(acrSide->pid()) + " OqshmTest (creator)";
    }

    const int mKey = key(1);
    std::vector<int> mIds;
};

#endif
