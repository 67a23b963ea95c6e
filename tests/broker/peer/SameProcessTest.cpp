// Which connections belong to one process, with identities as arguments. In production, the broker often may
// not look for processes.

#include "broker/peer/SameProcess.h"

#include <array>
#include <gtest/gtest.h>
#include <ostream>
#include <utility>

namespace
{

constexpr uid_t user = 1000;
constexpr uint64_t group = 7;
constexpr pid_t process = 42;

Identity madeBy(const Owner& owner)
{
    Identity identity;
    identity.owner = owner;
    return identity;
}

Identity ofUser(uid_t uid = user, std::optional<uint64_t> cgroup = group)
{
    return madeBy(Owner::known(uid, 1, cgroup));
}

Identity ofNobody()
{
    return madeBy(Owner::unknown(Owner::Knowledge::NoMeans));
}

Identity searched(Identity identity, Identity::Search search = Identity::Search::Over)
{
    identity.search = search;
    return identity;
}

Identity found(Identity identity, pid_t pid = process, const char* program = "net")
{
    identity = searched(std::move(identity));
    identity.pid = pid;
    identity.program = program;
    return identity;
}

Identity shared(Identity identity, pid_t pid = process)
{
    identity = found(std::move(identity), pid);
    identity.isShared = true;
    return identity;
}

enum class Judgement
{
    Same,      // may be, so the broker asks about posts, and waits for them
    Unlikely,  // not asked about, but waited for
    Different, // neither
};

std::ostream& operator<<(std::ostream& stream, Judgement judgement)
{
    constexpr std::array<const char*, 3> names{"Same", "Unlikely", "Different"};
    return stream << names.at(static_cast<std::size_t>(judgement));
}

// Does not depend on the order of the two.
Judgement judge(const Identity& one, const Identity& other)
{
    const bool mayBeSame = mayBeSameProcess(one, other);
    const bool areDifferent = areDifferentProcesses(one, other);
    EXPECT_EQ(mayBeSameProcess(other, one), mayBeSame);
    EXPECT_EQ(areDifferentProcesses(other, one), areDifferent);
    EXPECT_FALSE(mayBeSame && areDifferent);
    if (areDifferent)
        return Judgement::Different;
    return mayBeSame ? Judgement::Same : Judgement::Unlikely;
}

} // namespace

TEST(SameProcessTest, theSameProcessIsTheSameWhoeverMadeItsSockets)
{
    EXPECT_EQ(judge(found(ofUser()), found(ofUser())), Judgement::Same);
    EXPECT_EQ(judge(found(ofUser()), found(ofUser(user + 1, group + 1))), Judgement::Same);
    EXPECT_EQ(judge(found(ofUser()), found(ofNobody())), Judgement::Same);
}

TEST(SameProcessTest, aClientOfAnUnknownUserMayHaveAnyPosterThatIsNotOfAnotherProcess)
{
    EXPECT_TRUE(mayBePosterOf(searched(ofNobody()), searched(ofNobody())));
    EXPECT_TRUE(mayBePosterOf(searched(ofNobody()), found(ofUser())));
    EXPECT_FALSE(mayBePosterOf(found(ofNobody()), found(ofNobody(), process + 1)));
}

TEST(SameProcessTest, aClientOfAKnownUserHasNoPosterOfAnotherUser)
{
    EXPECT_TRUE(mayBePosterOf(searched(ofUser()), searched(ofUser())));
    EXPECT_FALSE(mayBePosterOf(searched(ofUser()), searched(ofUser(user + 1))));
    EXPECT_FALSE(mayBePosterOf(searched(ofUser()), searched(ofNobody())));
}

TEST(SameProcessTest, differentProcessesAreDifferentWhoeverMadeTheirSockets)
{
    EXPECT_EQ(judge(found(ofUser()), found(ofUser(), process + 1)), Judgement::Different);
    EXPECT_EQ(judge(found(ofNobody()), found(ofNobody(), process + 1)), Judgement::Different);
}

// It may have made one socket as another user, and a child may have got it.
TEST(SameProcessTest, aProcessThatSharesASocketIsStillItself)
{
    EXPECT_EQ(judge(shared(ofUser()), found(ofUser(user + 1, group + 1))), Judgement::Same);
    EXPECT_EQ(judge(shared(ofUser()), shared(ofUser(user + 1))), Judgement::Same);
}

// The lowest of the processes that have the socket need not be the one that uses it.
TEST(SameProcessTest, theNumberOfASharedProcessShowsNothing)
{
    EXPECT_EQ(judge(shared(ofUser()), found(ofUser(), process + 1)), Judgement::Same);
    EXPECT_EQ(judge(shared(ofUser()), shared(ofUser(), process + 1)), Judgement::Same);
    EXPECT_EQ(judge(shared(ofUser()), found(ofUser(user + 1), process + 1)), Judgement::Different);
    EXPECT_EQ(judge(shared(ofUser()), shared(ofUser(user, group + 1), process + 1)), Judgement::Different);
}

TEST(SameProcessTest, withoutProcessesTheSameUserAndControlGroupMayBeTheSame)
{
    EXPECT_EQ(judge(searched(ofUser()), searched(ofUser())), Judgement::Same);
}

TEST(SameProcessTest, withoutProcessesAnotherUserIsDifferent)
{
    EXPECT_EQ(judge(searched(ofUser()), searched(ofUser(user + 1))), Judgement::Different);
    EXPECT_EQ(judge(searched(ofUser(0)), searched(ofUser())), Judgement::Different);
}

TEST(SameProcessTest, withoutProcessesAnotherControlGroupIsDifferent)
{
    EXPECT_EQ(judge(searched(ofUser()), searched(ofUser(user, group + 1))), Judgement::Different);
}

// Old kernels do not report control groups.
TEST(SameProcessTest, withoutProcessesAndControlGroupsTheUserDecides)
{
    EXPECT_EQ(judge(searched(ofUser(user, {})), searched(ofUser(user, {}))), Judgement::Same);
    EXPECT_EQ(judge(searched(ofUser(user, {})), searched(ofUser(user + 1, {}))), Judgement::Different);
}

// A process may change its user and control group between making its sockets. The search may still show that
// it is the same.
TEST(SameProcessTest, anotherUserShowsNothingBeforeBothProcessesHaveBeenLookedFor)
{
    using Search = Identity::Search;
    for (const Search search : {Search::None, Search::UnderWay, Search::CutShort})
    {
        const Identity other = searched(ofUser(user + 1, group + 1), search);
        EXPECT_EQ(judge(searched(ofUser()), other), Judgement::Unlikely);
        EXPECT_EQ(judge(found(ofUser()), other), Judgement::Unlikely);
        EXPECT_EQ(judge(searched(ofUser(), search), other), Judgement::Unlikely);
    }
}

TEST(SameProcessTest, theSameUserMayBeTheSameAlsoWhileItsProcessIsLookedFor)
{
    const Identity one = searched(ofUser(), Identity::Search::UnderWay);
    EXPECT_EQ(judge(one, searched(ofUser())), Judgement::Same);
    EXPECT_EQ(judge(one, found(ofUser())), Judgement::Same);
}

TEST(SameProcessTest, anUnknownUserShowsNothing)
{
    EXPECT_EQ(judge(searched(ofNobody()), searched(ofNobody())), Judgement::Unlikely);
    EXPECT_EQ(judge(searched(ofNobody()), searched(ofUser())), Judgement::Unlikely);
    EXPECT_EQ(judge(searched(ofNobody()), found(ofUser())), Judgement::Unlikely);
    EXPECT_EQ(judge(found(ofNobody()), searched(ofUser())), Judgement::Unlikely);
}

// The kernel may know the control group of a socket whose user it does not tell.
TEST(SameProcessTest, theControlGroupOfAnUnknownUserShowsNothing)
{
    const auto withoutUser = [](uint64_t cgroup)
    {
        const Owner owner = Owner::known(user, 1, cgroup);
        return searched(madeBy(owner.withoutUser(Owner::Knowledge::OutsideUserNamespace)));
    };
    EXPECT_EQ(judge(withoutUser(group), withoutUser(group)), Judgement::Unlikely);
    EXPECT_EQ(judge(withoutUser(group), withoutUser(group + 1)), Judgement::Unlikely);
}

// The broker may look at some processes, such as those of its own user, and not at others.
TEST(SameProcessTest, userAndControlGroupDecideIfOnlyOneProcessIsKnown)
{
    EXPECT_EQ(judge(found(ofUser()), searched(ofUser())), Judgement::Same);
    EXPECT_EQ(judge(found(ofUser()), searched(ofUser(user + 1))), Judgement::Different);
    EXPECT_EQ(judge(found(ofUser()), searched(ofUser(user, group + 1))), Judgement::Different);
}

TEST(SameProcessTest, aConnectionIsOfAProcessByItsNumberAndItsProgram)
{
    EXPECT_TRUE(isOfProcess(found(ofUser(), process, "net"), process, "net"));
    EXPECT_FALSE(isOfProcess(found(ofUser(), process, "net"), process + 1, "net"));
    EXPECT_FALSE(isOfProcess(found(ofUser(), process, "net"), process, "cat"))
        << "it has got the number since";
}

TEST(SameProcessTest, noConnectionIsOfAnUnknownProcess)
{
    EXPECT_FALSE(isOfProcess(searched(ofUser()), 0, ""));
}

TEST(ClientKeyTest, isTheSameForOneProcessOfOneUserAndControlGroup)
{
    EXPECT_EQ(clientKeyOf(found(ofUser())), clientKeyOf(found(ofUser())));
    EXPECT_NE(clientKeyOf(found(ofUser())), clientKeyOf(found(ofUser(), process + 1)));
    EXPECT_NE(clientKeyOf(found(ofUser())), clientKeyOf(found(ofUser(user + 1))));
    EXPECT_NE(clientKeyOf(found(ofUser())), clientKeyOf(found(ofUser(user, group + 1))));
}

TEST(ClientKeyTest, isTheSameForAUserAndControlGroupIfTheProcessIsUnknown)
{
    EXPECT_EQ(clientKeyOf(searched(ofUser())), clientKeyOf(searched(ofUser())));
    EXPECT_NE(clientKeyOf(searched(ofUser())), clientKeyOf(searched(ofUser(user + 1))));
    EXPECT_NE(clientKeyOf(searched(ofUser())), clientKeyOf(searched(ofUser(user, group + 1))));
    EXPECT_NE(clientKeyOf(searched(ofUser())), clientKeyOf(found(ofUser())));
}

TEST(ClientKeyTest, ofAnUnknownUserIsItsProcessOrNothing)
{
    EXPECT_EQ(clientKeyOf(found(ofNobody())), clientKeyOf(found(ofNobody())));
    EXPECT_NE(clientKeyOf(found(ofNobody())), clientKeyOf(found(ofNobody(), process + 1)));
    EXPECT_NE(clientKeyOf(found(ofNobody())), std::nullopt);
    EXPECT_EQ(clientKeyOf(searched(ofNobody())), std::nullopt);
}
