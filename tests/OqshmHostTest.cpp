// oqshm without a key looks into every segment of the host, those of other tests included, which take that for a peer.
// This test is a program of its own, because it must run while no other test does.

#include "OqshmKit.h"

namespace
{

typedef OqshmTest OqshmHostTest;

TEST_F(OqshmHostTest, WithoutAKeyEveryChannelIsListedButWhatCannotBeOne)
{
    const auto lServer = side(OQCM_Server);
    EXPECT_TRUE(contains(oqshm({}).mOut, keyText()));
    end(lServer);
    EXPECT_FALSE(contains(oqshm({}).mOut, keyText()));
    for (const auto& acrOther : {std::make_pair(64UL, 0600), std::make_pair(65536UL, 0666)}) {
        const int lId = segment(acrOther.first, acrOther.second, "theirs");
        EXPECT_FALSE(contains(oqshm({}).mOut, keyText()));
        shmctl(lId, IPC_RMID, nullptr);
    }
}

}  // namespace
