#include <gtest/gtest.h>

#include "broker/state/DeviceState.h"

namespace
{

constexpr uint32_t web = 33;
constexpr uint32_t net = 44;

// A device on which each user may have two keys and 20 bytes.
class SharesTest : public testing::Test
{
protected:
    SharesTest() { limit(); }

    void limit()
    {
        state.setShares(
            [](Shares::User, const Shares::Share& before, const Shares::Share& after)
            {
                constexpr std::size_t keys = 2;
                constexpr std::size_t bytes = 20;
                return (after.keys <= keys || after.keys <= before.keys) &&
                       (after.bytes <= bytes || after.bytes <= before.bytes);
            });
    }

    Posters::Id client(uint32_t user)
    {
        BrokerProtocol::Poster poster;
        poster.uid = user;
        return state.posters().add(poster);
    }

    bool post(Posters::Id by, std::string_view key, std::string_view text)
    {
        state.post({{key, text}}, by);
        return state.valueOf(key) == text;
    }

    Limits limits;
    Refusals refusals;
    DeviceState state{limits, refusals};
    const Posters::Id webClient = client(web);
    const Posters::Id netClient = client(net);
};

} // namespace

TEST_F(SharesTest, aUserMayHaveSoManyKeysAndOthersTheirs)
{
    EXPECT_TRUE(post(webClient, "a", "1"));
    EXPECT_TRUE(post(webClient, "b", "1"));
    EXPECT_FALSE(post(webClient, "c", "1"));
    EXPECT_TRUE(post(netClient, "c", "1"));
}

TEST_F(SharesTest, aUserMayHaveSoManyBytes)
{
    EXPECT_TRUE(post(webClient, "a", std::string(19, 'x')));
    EXPECT_FALSE(post(webClient, "a", std::string(20, 'x')));
    EXPECT_FALSE(post(webClient, "b", "x"));
}

TEST_F(SharesTest, allClientsOfAUserHaveOneShare)
{
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    EXPECT_FALSE(post(client(web), "c", "1"));
}

TEST_F(SharesTest, aUserThatHasAllMayChangeItsValues)
{
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    EXPECT_TRUE(post(webClient, "a", "2"));
}

TEST_F(SharesTest, aValueBelongsToTheShareOfTheUserThatPostsItLast)
{
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    EXPECT_TRUE(post(netClient, "a", "2"));
    EXPECT_TRUE(post(webClient, "c", "1"));
    EXPECT_FALSE(post(webClient, "a", "3"));
}

TEST_F(SharesTest, postingTheSameTextTakesTheValueOver)
{
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    post(netClient, "a", "1");
    EXPECT_TRUE(post(webClient, "c", "1"));
}

TEST_F(SharesTest, aUserThatHasAllDoesNotTakeOver)
{
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    post(netClient, "c", "1");
    post(webClient, "c", "1");
    EXPECT_EQ(state.details(*state.find("c")).poster.uid, net);
}

TEST_F(SharesTest, resettingAValueLeavesItsKeyInTheShare)
{
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    state.reset({"a"}, webClient);
    EXPECT_FALSE(post(webClient, "c", "1"));
}

// Otherwise a user could fill the device with forgotten names that a slow subscriber still has to learn of.
TEST_F(SharesTest, aForgottenKeyStaysInTheShareUntilItIsDropped)
{
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    state.forgetValues({"a"});
    EXPECT_FALSE(post(webClient, "c", "1"));
    EXPECT_EQ(state.dropForgotten(state.revision()), 1U);
    EXPECT_TRUE(post(webClient, "c", "1"));
    EXPECT_FALSE(post(webClient, "a", "1"));
}

TEST_F(SharesTest, aForgottenKeyThatIsPostedAgainBelongsToTheOneThatPostsIt)
{
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    state.forgetValues({"a"});
    EXPECT_TRUE(post(netClient, "a", "1"));
    EXPECT_TRUE(post(webClient, "c", "1"));
    EXPECT_EQ(state.posters().count(), 2U);
}

TEST_F(SharesTest, aDroppedKeyLetsItsPosterGo)
{
    const Posters::Id passing = client(web);
    post(passing, "a", "1");
    state.posters().release(passing); // its connection
    state.forgetValues({"a"});
    state.dropForgotten(state.revision());
    EXPECT_EQ(state.posters().count(), 2U);
}

// Otherwise a user whose values end with it could fill the device with names.
TEST_F(SharesTest, aValueThatHasEndedStaysInTheShareOfItsOwner)
{
    const Posters::Id broker = client(0);
    post(webClient, "a", "1");
    post(webClient, "b", "1");
    state.end({{"a", "offline"}}, broker);
    EXPECT_EQ(state.valueOf("a"), "offline");
    EXPECT_EQ(state.details(*state.find("a")).poster.uid, web);
    EXPECT_EQ(state.details(*state.find("a")).changer.uid, 0U);
    EXPECT_FALSE(post(webClient, "c", "1"));
}

TEST_F(SharesTest, endingAValueIsNotRefused)
{
    post(webClient, "a", std::string(19, 'x'));
    state.end({{"a", std::string(30, 'x')}}, client(0));
    EXPECT_EQ(state.valueOf("a"), std::string(30, 'x'));
}

TEST_F(SharesTest, areCountedAnewWhereTheyBegin)
{
    state.setShares({});
    for (const char* key : {"a", "b", "c"})
        EXPECT_TRUE(post(webClient, key, "1"));
    limit();
    EXPECT_FALSE(post(webClient, "d", "1"));
    EXPECT_TRUE(post(webClient, "c", "2"));
}

TEST_F(SharesTest, aPostThatALimitRefusesTakesNothing)
{
    limits.keyBytes = 3;
    EXPECT_FALSE(post(webClient, "long", "1"));
    EXPECT_TRUE(post(webClient, "a", "1"));
    EXPECT_TRUE(post(webClient, "b", "1"));
}
