#include "broker/OwnedValues.h"

#include <gtest/gtest.h>

#include "tests/broker/policy/PolicyFixture.h"

using namespace std::chrono_literals;

namespace
{

using Marked = std::vector<std::pair<std::string, std::string>>; // the key, and its new value

class OwnedValuesTest : public testing::Test
{
protected:
    OwnedValuesTest() { use("[[owned]]\nkeys = \"net.*\"\nbecomes = \"offline\"\ngrace = \"2s\"\n"); }

    void use(const std::string& policyText)
    {
        const PolicyPointer before = std::exchange(policy, policyOf(policyText));
        values.setPolicy(*policy, now);
    }

    Posters::Id client()
    {
        const Posters::Id id = state.posters().add({});
        here.insert(id);
        return id;
    }

    void post(Posters::Id by, std::string_view key, std::string_view text = "up")
    {
        state.post({{key, text}}, by);
        values.posted(by, {{key, text}});
    }

    void go(Posters::Id client, bool canComeBack = true)
    {
        here.erase(client);
        values.gone(client, canComeBack, now - unread, now);
        state.posters().release(client);
    }

    void pass(std::chrono::milliseconds time)
    {
        now += time;
        while (values.due() <= now)
            values.doWhatIsDue(now);
    }

    TimePoint now = Clock::now();
    Limits limits;
    Refusals refusals;
    DeviceState state{limits, refusals};
    PolicyPointer policy;
    std::set<Posters::Id> here;
    std::optional<Posters::Id> successor = Posters::nobody;
    std::chrono::milliseconds unread{0}; // how long ago a client that goes may have ended
    TimePoint successorSince;            // the time after which the last successor was looked for
    Marked marked;
    OwnedValues values{state,
                       {[this](Posters::Id id) { return here.count(id) != 0; },
                        [this](Posters::Id, TimePoint since)
                        {
                            successorSince = since;
                            return successor;
                        },
                        [this](Posters::Id, const PolicyTie& rule, const std::vector<std::string_view>& keys)
                        {
                            for (const std::string_view key : keys)
                                marked.emplace_back(key, rule.becomes);
                        }}};
};

} // namespace

TEST_F(OwnedValuesTest, areMarkedWhenTheGraceTimeOfTheirOwnerIsOver)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    post(owner, "net.b");
    post(owner, "other");
    pass(10s);
    go(owner);
    pass(1999ms);
    EXPECT_EQ(marked, Marked());
    pass(1ms);
    EXPECT_EQ(marked, (Marked{{"net.a", "offline"}, {"net.b", "offline"}}));
}

TEST_F(OwnedValuesTest, goToAClientThatCameSinceTheirOwnerMayHaveEnded)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    unread = 700ms;
    const TimePoint end = now - unread;
    go(owner);
    pass(1s);
    EXPECT_EQ(successorSince, end);
}

TEST_F(OwnedValuesTest, areMarkedOnce)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    go(owner);
    pass(2s);
    marked.clear();
    pass(1h);
    EXPECT_EQ(marked, Marked());
    EXPECT_EQ(values.due(), TimePoint::max());
}

TEST_F(OwnedValuesTest, belongToTheClientThatPostedThemLast)
{
    const Posters::Id first = client();
    const Posters::Id last = client();
    post(first, "net.a");
    post(last, "net.a");
    go(first);
    pass(2s);
    EXPECT_EQ(marked, Marked());
    go(last);
    pass(2s);
    EXPECT_EQ(marked, (Marked{{"net.a", "offline"}}));
}

TEST_F(OwnedValuesTest, belongToAnotherThatPostsThemWithinTheGraceTime)
{
    const Posters::Id first = client();
    post(first, "net.a");
    go(first);
    pass(1s);
    post(client(), "net.a");
    pass(10s);
    EXPECT_EQ(marked, Marked());
}

TEST_F(OwnedValuesTest, goOnWithTheSuccessorOfTheirOwnerAndEndWithIt)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    go(owner);
    successor = client();
    pass(10s);
    EXPECT_EQ(marked, Marked());
    go(*std::exchange(successor, Posters::nobody));
    pass(2s);
    EXPECT_EQ(marked, (Marked{{"net.a", "offline"}}));
}

TEST_F(OwnedValuesTest, areMarkedLaterWhileItIsNotKnownWhoHasComeBack)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    go(owner);
    successor = std::nullopt;
    pass(2s);
    EXPECT_EQ(marked, Marked());
    pass(10ms);
    successor = client();
    pass(1s);
    EXPECT_EQ(marked, Marked());
}

TEST_F(OwnedValuesTest, doNotWaitForAnAnswerThatDoesNotCome)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    go(owner);
    successor = std::nullopt;
    pass(2s);
    pass(OwnedValues::longestSearch);
    EXPECT_EQ(marked, (Marked{{"net.a", "offline"}}));
}

TEST_F(OwnedValuesTest, doNotGoOnIfTheirOwnerCannotComeBack)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    go(owner, false);
    successor = client();
    pass(2s);
    EXPECT_EQ(marked, (Marked{{"net.a", "offline"}}));
}

TEST_F(OwnedValuesTest, areNobodysWhenTheyAreReset)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    state.reset({"net.a"}, owner);
    values.reset(owner, {"net.a"});
    go(owner);
    EXPECT_EQ(values.due(), TimePoint::max());
}

TEST_F(OwnedValuesTest, doNotBelongToAClientWhosePostIsRefused)
{
    limits.valueBytes = 2;
    const Posters::Id owner = client();
    const Posters::Id other = client();
    post(owner, "net.a", "up");
    post(other, "net.a", "too long");
    go(other);
    EXPECT_EQ(values.due(), TimePoint::max());
}

TEST_F(OwnedValuesTest, doNotBelongToAUserBeyondItsShareThatPostsTheSame)
{
    const Posters::Id owner = client();
    const Posters::Id other = client();
    post(owner, "net.a");
    state.setShares([](Shares::User, const Shares::Share&, const Shares::Share&) { return false; });
    post(other, "net.a");
    go(other);
    EXPECT_EQ(values.due(), TimePoint::max());
}

TEST_F(OwnedValuesTest, keepTheirOwnerWhenAResetIsRefused)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    values.reset(client(), {"net.a"});
    go(owner);
    pass(2s);
    EXPECT_EQ(marked, (Marked{{"net.a", "offline"}}));
}

// Limits may be lowered while longer keys exist.
TEST_F(OwnedValuesTest, areNotThoseOfOtherNamesWhoseResetIsRefused)
{
    const Posters::Id owner = client();
    post(owner, "door.of.the.garage");
    limits.keyBytes = 4;
    state.reset({"door.of.the.garage"}, owner);
    values.reset(owner, {"door.of.the.garage"});
    go(owner);
    EXPECT_EQ(values.due(), TimePoint::max());
}

TEST_F(OwnedValuesTest, areNobodysWhenTheyAreForgotten)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    values.forget({"net.a"});
    go(owner);
    EXPECT_EQ(values.due(), TimePoint::max());
}

TEST_F(OwnedValuesTest, thatAreEmptyAreNobodys)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    post(owner, "net.a", "");
    use("[[owned]]\nkeys = \"net.*\"\nbecomes = \"offline\"\n");
    go(owner);
    EXPECT_EQ(values.due(), TimePoint::max());
}

TEST_F(OwnedValuesTest, haveTheGraceTimeOfTheirRule)
{
    use("[[owned]]\nkeys = \"a\"\ngrace = \"1s\"\n[[owned]]\nkeys = \"b\"\nbecomes = \"-\"\ngrace = "
        "\"3s\"\n");
    const Posters::Id owner = client();
    post(owner, "a");
    post(owner, "b");
    go(owner);
    pass(1s);
    EXPECT_EQ(marked, (Marked{{"a", ""}}));
    pass(2s);
    EXPECT_EQ(marked, (Marked{{"a", ""}, {"b", "-"}}));
}

TEST_F(OwnedValuesTest, ofAnotherPolicyBelongToTheirLastPosters)
{
    const Posters::Id owner = client();
    post(owner, "door");
    use("[[owned]]\nkeys = \"door\"\ngrace = \"1s\"\n");
    pass(10s);
    EXPECT_EQ(marked, Marked());
    go(owner);
    pass(1s);
    EXPECT_EQ(marked, (Marked{{"door", ""}}));
}

TEST_F(OwnedValuesTest, ofAnotherPolicyWhosePostersHaveGoneAreMarkedAfterTheGraceTime)
{
    const Posters::Id owner = client();
    post(owner, "door");
    go(owner);
    use("[[owned]]\nkeys = \"door\"\ngrace = \"1s\"\n");
    pass(999ms);
    EXPECT_EQ(marked, Marked());
    pass(1ms);
    EXPECT_EQ(marked, (Marked{{"door", ""}}));
}

TEST_F(OwnedValuesTest, thatAnotherPolicyDoesNotNameStay)
{
    const Posters::Id owner = client();
    post(owner, "net.a");
    go(owner);
    use("");
    pass(10s);
    EXPECT_EQ(marked, Marked());
    EXPECT_FALSE(values.isUsed());
}

TEST_F(OwnedValuesTest, ofUnknownPostersStay)
{
    SavedState saved;
    saved.values["door"] = "open";
    state.restore(saved);
    use("[[owned]]\nkeys = \"door\"\n");
    EXPECT_EQ(values.due(), TimePoint::max());
}

// Others need not wait until a thousand owners that end together are handled.
TEST_F(OwnedValuesTest, ofManyOwnersAreMarkedInTurns)
{
    constexpr std::size_t owners = 1000;
    for (std::size_t number = 0; number < owners; ++number)
    {
        const Posters::Id owner = client();
        post(owner, "net." + std::to_string(number));
        go(owner);
    }
    now += 2s;
    values.doWhatIsDue(now);
    EXPECT_LT(marked.size(), owners / 10);
    EXPECT_LE(values.due(), now);
    pass(0s);
    EXPECT_EQ(marked.size(), owners);
}

TEST_F(OwnedValuesTest, doNotKeepTheirOwnersInMind)
{
    const std::size_t before = state.posters().count();
    for (int number = 0; number < 100; ++number)
    {
        const Posters::Id owner = client();
        post(owner, "net.a", std::to_string(number));
        go(owner);
        pass(2s);
    }
    EXPECT_EQ(state.posters().count(), before + 1); // the value's last poster
}
