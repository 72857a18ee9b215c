// oqshm without a key looks into every segment of the host, those of other tests included, which take that for a peer.
// These tests are a program of their own, because each must run while no other test does.

#include <utility>

#include "OqshmKit.h"

namespace
{

typedef OqshmTest OqshmHostTest;

TEST_F(OqshmHostTest, WithoutAKeyEveryChannelIsListed)
{
    const auto lServer = side(OQCM_Server);
    EXPECT_TRUE(contains(oqshm("").mOut, keyText()));
    end(lServer);
    EXPECT_FALSE(contains(oqshm("").mOut, keyText()));
}

TEST_F(OqshmHostTest, WithoutAKeyEveryChannelIsListedButWhatCannotBeOne)
{
    for (const std::pair<unsigned long, int>& acrOther : {std::make_pair(64UL, 0600), std::make_pair(65536UL, 0666)}) {
        const int lId = segment(acrOther.first, acrOther.second, "theirs");
        EXPECT_FALSE(contains(oqshm("").mOut, keyText()));
        shmctl(lId, IPC_RMID, nullptr);
    }
}

}  // namespace
