#include "broker/state/Posters.h"

#include <gtest/gtest.h>

#include "tests/broker/PosterOf.h"

TEST(Posters, areTheyThatWereAdded)
{
    Posters posters;
    const Posters::Id one = posters.add(posterOf("net.service", 1));
    const Posters::Id other = posters.add(posterOf("wifi.service", 2));
    EXPECT_EQ(posters.at(one), posterOf("net.service", 1));
    EXPECT_EQ(posters.at(other), posterOf("wifi.service", 2));
    EXPECT_EQ(posters.at(Posters::nobody), BrokerProtocol::Poster());
}

TEST(Posters, areThereAsLongAsTheyAreHeld)
{
    Posters posters;
    const Posters::Id id = posters.add(posterOf("net.service", 1));
    posters.hold(id);
    posters.release(id);
    EXPECT_EQ(posters.count(), 1U);
    posters.release(id);
    EXPECT_EQ(posters.count(), 0U);
}

TEST(Posters, thatComeAndGoTakeNoMemory)
{
    Posters posters;
    const Posters::Id kept = posters.add(posterOf("kept.service", 1));
    for (uint32_t pid = 2; pid < 1000; ++pid)
    {
        const Posters::Id id = posters.add(posterOf("net.service", pid));
        EXPECT_LE(id, 2U);
        posters.release(id);
    }
    EXPECT_EQ(posters.at(kept), posterOf("kept.service", 1));
}

TEST(Posters, getTheirProcessAndServiceWhenTheyAreFound)
{
    Posters posters;
    BrokerProtocol::Poster unknown = posterOf("", 0);
    unknown.program.clear();
    const Posters::Id id = posters.add(unknown);
    const Posters::Id same = posters.add(unknown);
    posters.describe(id, posterOf("net.service", 9));
    EXPECT_EQ(posters.at(id), posterOf("net.service", 9));
    EXPECT_EQ(posters.at(same), unknown);
}

TEST(Posters, nobodyIsNeitherHeldNorFound)
{
    Posters posters;
    posters.hold(Posters::nobody);
    posters.release(Posters::nobody);
    posters.describe(Posters::nobody, posterOf("net.service", 9));
    EXPECT_EQ(posters.count(), 0U);
}
