#include "common/Calls.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "common/EventThread.h"
#include "tests/support/Wait.h"

using namespace Orvane;

namespace
{

// An argument whose copying throws on demand.
struct Fragile
{
    explicit Fragile(bool breaks) : mBreaks(breaks) {}
    Fragile(const Fragile& other) : mBreaks(other.mBreaks)
    {
        if (mBreaks)
            throw std::runtime_error("broken copy");
    }
    bool mBreaks;
};

class Receiver
{
public:
    virtual ~Receiver() = default;

    void take(std::string text)
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        mTaken.push_back(std::move(text));
    }
    void take(std::string text, uint32_t number) { take(text + std::to_string(number)); }
    void takeReference(const std::string& text) { address = &text; }
    void takeFragile(Fragile) {}
    void hold(Gate* reached, Gate* end)
    {
        reached->open();
        end->wait();
    }
    void note() { thread = std::this_thread::get_id(); }
    void fail() { throw std::runtime_error("broken call"); }

    int answer() { return 42; }
    std::string repeat(const std::string& text, int times)
    {
        return times == 0 ? std::string() : text + repeat(text, times - 1);
    }
    int failToAnswer() { throw std::runtime_error("no answer"); }
    virtual std::string kind() { return "base"; }

    std::vector<std::string> taken()
    {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mTaken;
    }

    const std::string* address = nullptr;
    std::thread::id thread;

private:
    std::mutex mMutex;
    std::vector<std::string> mTaken;
};

class DerivedReceiver : public Receiver
{
public:
    std::string kind() override { return "derived"; }
};

using Texts = std::vector<std::string>;

const AllocationSite* siteAt(int line)
{
    for (const AllocationSite* site = AllocationSite::first(); site != nullptr; site = site->next())
    {
        if (site->line() == line && std::string(site->file()) == __FILE__)
            return site;
    }
    return nullptr;
}

unsigned allocatedAt(int line)
{
    const AllocationSite* site = siteAt(line);
    return site == nullptr ? 0 : site->allocated();
}

bool isSiteIn(const std::string& ending)
{
    for (const AllocationSite* site = AllocationSite::first(); site != nullptr; site = site->next())
    {
        const std::string file = site->file();
        if (file.size() >= ending.size() && file.substr(file.size() - ending.size()) == ending)
            return true;
    }
    return false;
}

class CallsTest : public testing::Test
{
protected:
    ~CallsTest() override
    {
        gate.open();
        thread.stop();
    }

    // Occupies the thread until the gate opens.
    void block()
    {
        Gate reached;
        postCall(OV_SITE, thread, &blocker, &Receiver::hold, &reached, &gate);
        reached.wait();
    }

    // Returns when everything queued before is delivered.
    void drain() { callAndWait(OV_SITE, thread, &blocker, &Receiver::note); }

    Receiver receiver;
    Receiver blocker;
    Gate gate;
    EventThread thread{"calls", 0};
};

} // namespace

// ------------------------------------------------------------------------------- the line of the caller

TEST_F(CallsTest, aPostedCallIsCountedAtTheLineOfItsCaller)
{
    block();
    const int line = __LINE__ + 2;
    const unsigned before = allocatedAt(line);
    postCall(OV_SITE, thread, &receiver, overload<std::string>(&Receiver::take), "text");
    ASSERT_NE(siteAt(line), nullptr);
    EXPECT_EQ(siteAt(line)->live(), 1U);
    gate.open();
    EXPECT_TRUE(eventually([&] { return siteAt(line)->live() == 0; }));
    EXPECT_EQ(siteAt(line)->allocated(), before + 1);
}

TEST_F(CallsTest, aDelayedCallIsCountedAtTheLineOfItsCaller)
{
    const int line = __LINE__ + 1;
    postCallDelayed(OV_SITE, thread, 3600000, &receiver, overload<std::string>(&Receiver::take), "text");
    ASSERT_NE(siteAt(line), nullptr);
    EXPECT_EQ(siteAt(line)->live(), 1U);
    thread.removeAgentsByReceiver(&receiver);
    EXPECT_EQ(siteAt(line)->live(), 0U);
}

TEST_F(CallsTest, aCallThatIsWaitedForIsCountedAtTheLineOfItsCaller)
{
    const int line = __LINE__ + 2;
    const unsigned before = allocatedAt(line);
    callAndWait(OV_SITE, thread, &receiver, &Receiver::answer);
    ASSERT_NE(siteAt(line), nullptr);
    EXPECT_EQ(siteAt(line)->allocated(), before + 1);
    EXPECT_EQ(siteAt(line)->live(), 0U);
}

TEST_F(CallsTest, noCallIsCountedInTheHeader)
{
    postCall(OV_SITE, thread, &receiver, &Receiver::note);
    callAndWait(OV_SITE, thread, &receiver, &Receiver::answer);
    EXPECT_FALSE(isSiteIn("Calls.h"));
    EXPECT_TRUE(isSiteIn("CallsTest.cpp"));
}

// ------------------------------------------------------------------------------------ calls that are queued

TEST_F(CallsTest, aPostedCallIsMadeOnTheDispatchersThreadAfterThePostHasReturned)
{
    block();
    postCall(OV_SITE, thread, &receiver, &Receiver::note);
    EXPECT_EQ(thread.getPendingCount(), 1U);
    gate.open();
    drain();
    EXPECT_EQ(receiver.thread, blocker.thread);
    EXPECT_NE(receiver.thread, std::this_thread::get_id());
}

TEST_F(CallsTest, postedCallsKeepTheirOrder)
{
    Texts expected;
    for (int index = 0; index < 100; ++index)
    {
        postCall(OV_SITE, thread, &receiver, overload<std::string>(&Receiver::take), std::to_string(index));
        expected.push_back(std::to_string(index));
    }
    drain();
    EXPECT_EQ(receiver.taken(), expected);
}

TEST_F(CallsTest, argumentsAreConvertedToTheParameterTypes)
{
    const char* const text = "number ";
    const uint8_t number = 7;
    postCall(OV_SITE, thread, &receiver, overload<std::string, uint32_t>(&Receiver::take), text, number);
    drain();
    EXPECT_EQ(receiver.taken(), Texts{"number 7"});
}

TEST_F(CallsTest, argumentsAreCopiesOfTheCallersObjects)
{
    block();
    std::string text = "before";
    postCall(OV_SITE, thread, &receiver, overload<std::string>(&Receiver::take), text);
    text = "after";
    gate.open();
    drain();
    EXPECT_EQ(receiver.taken(), Texts{"before"});
}

TEST_F(CallsTest, anArgumentThatIsMovedInIsNotCopied)
{
    std::string text(100, 't');
    block();
    postCall(OV_SITE, thread, &receiver, overload<std::string>(&Receiver::take), std::move(text));
    EXPECT_TRUE(text.empty()); // NOLINT(bugprone-use-after-move): shows whether it was moved
    gate.open();
    drain();
    EXPECT_EQ(receiver.taken(), Texts{std::string(100, 't')});
}

TEST_F(CallsTest, anArgumentThatCannotBeCopiedSendsNothingAndLeavesNothing)
{
    const Fragile fragile(true);
    block();
    const int line = __LINE__ + 1;
    EXPECT_THROW(postCall(OV_SITE, thread, &receiver, &Receiver::takeFragile, fragile), std::runtime_error);
    EXPECT_EQ(thread.getPendingCount(), 0U);
    EXPECT_TRUE(siteAt(line) == nullptr || siteAt(line)->live() == 0);
}

TEST_F(CallsTest, aDelayedCallIsMadeWhenItsTimeHasCome)
{
    const auto start = std::chrono::steady_clock::now();
    postCallDelayed(OV_SITE, thread, 30, &receiver, overload<std::string>(&Receiver::take), "late");
    EXPECT_TRUE(eventually([&] { return receiver.taken() == Texts{"late"}; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST_F(CallsTest, aDelayedCallDoesNotHoldUpLaterOnes)
{
    postCallDelayed(OV_SITE, thread, 3600000, &receiver, overload<std::string>(&Receiver::take), "late");
    postCall(OV_SITE, thread, &receiver, overload<std::string>(&Receiver::take), "at once");
    drain();
    EXPECT_EQ(receiver.taken(), Texts{"at once"});
    EXPECT_EQ(thread.getPendingCount(), 1U);
}

TEST_F(CallsTest, callsThatDoNotWaitAreFoundByTheirReceiver)
{
    block();
    postCall(OV_SITE, thread, &receiver, &Receiver::note);
    postCallDelayed(OV_SITE, thread, 3600000, &receiver, &Receiver::note);
    thread.removeAgentsByReceiver(&receiver);
    EXPECT_EQ(thread.getPendingCount(), 0U);
}

// -------------------------------------------------------------------------------- calls that are waited for

TEST_F(CallsTest, aCallThatIsWaitedForReturnsItsResult)
{
    EXPECT_EQ(callAndWait(OV_SITE, thread, &receiver, &Receiver::answer), 42);
    const std::string text = "ab";
    EXPECT_EQ(callAndWait(OV_SITE, thread, &receiver, &Receiver::repeat, text, 3), "ababab");
}

TEST_F(CallsTest, aCallWithoutResultIsWaitedFor)
{
    callAndWait(OV_SITE, thread, &receiver, overload<std::string>(&Receiver::take), "made");
    EXPECT_EQ(receiver.taken(), Texts{"made"});
}

TEST_F(CallsTest, aReferenceIsTheCallersOwnObject)
{
    const std::string text = "text";
    callAndWait(OV_SITE, thread, &receiver, &Receiver::takeReference, text);
    EXPECT_EQ(receiver.address, &text);
}

TEST_F(CallsTest, onTheDispatchersThreadACallIsMadeInPlace)
{
    struct Caller
    {
        int call() { return callAndWait(OV_SITE, *dispatcher, receiver, &Receiver::answer); }
        Receiver* receiver;
        EventThread* dispatcher;
    } caller{&receiver, &thread};
    EXPECT_EQ(callAndWait(OV_SITE, thread, &caller, &Caller::call), 42);
}

TEST_F(CallsTest, anExceptionOfACallThatIsWaitedForReachesTheCallerAndLeavesNothing)
{
    const int line = __LINE__ + 1;
    EXPECT_THROW(callAndWait(OV_SITE, thread, &receiver, &Receiver::fail), std::runtime_error);
    EXPECT_EQ(siteAt(line)->live(), 0U);
    EXPECT_THROW(callAndWait(OV_SITE, thread, &receiver, &Receiver::failToAnswer), std::runtime_error);
    EXPECT_EQ(callAndWait(OV_SITE, thread, &receiver, &Receiver::answer), 42);
}

TEST_F(CallsTest, aCallThatIsDroppedYieldsTheDefaultResult)
{
    block();
    int result = -1;
    std::thread caller([&] { result = callAndWait(OV_SITE, thread, &receiver, &Receiver::answer); });
    EXPECT_TRUE(eventually([&] { return thread.getPendingCount() == 1; }));
    thread.removeAgentsByReceiver(&receiver);
    caller.join();
    EXPECT_EQ(result, 0);
}

// ------------------------------------------------------------------------------------- the member function

TEST_F(CallsTest, aVirtualMemberReachesTheReceiversOverride)
{
    DerivedReceiver derived;
    Receiver* const base = &derived;
    EXPECT_EQ(callAndWait(OV_SITE, thread, base, &Receiver::kind), "derived");
}

TEST_F(CallsTest, anOverloadIsChosenByItsParameterTypes)
{
    constexpr auto ofOne = overload<std::string>(&Receiver::take);
    constexpr auto ofTwo = overload<std::string, uint32_t>(&Receiver::take);
    static_assert(std::is_same_v<decltype(ofOne), void (Receiver::*const)(std::string)>);
    static_assert(std::is_same_v<decltype(ofTwo), void (Receiver::*const)(std::string, uint32_t)>);
    (receiver.*ofOne)("one");
    (receiver.*ofTwo)("two", 2);
    EXPECT_EQ(receiver.taken(), (Texts{"one", "two2"}));
}

// The agent's name contains kind, receiver, result and argument types.
TEST_F(CallsTest, theAgentsTypeFollowsFromTheMemberFunction)
{
    AllocationSite site(__FILE__, __LINE__);
    using Async = decltype(makeCall<AsyncEventAgent>(site, &receiver, &Receiver::note));
    static_assert(std::is_same_v<Async, MemberCall<AsyncEventAgent, Receiver, void>*>);
    using Reference =
        decltype(makeCall<SyncEventAgent>(site, &receiver, &Receiver::takeReference, std::string()));
    static_assert(std::is_same_v<Reference, SyncEventAgent1<Receiver, const std::string&>*>);
    using Result = decltype(makeCall<SyncRetEventAgent<int>>(site, &receiver, &Receiver::answer));
    static_assert(std::is_same_v<Result, SyncRetEventAgent0<Receiver, int>*>);
    EXPECT_EQ(site.allocated(), 0U);
}
