// Without a key, oqshm examines all segments of the host, including those of other tests. Those tests would take its
// attachment for a peer, so this test is a separate program that runs while no other test runs.

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
