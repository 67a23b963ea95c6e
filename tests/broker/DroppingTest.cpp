// When forgotten keys are dropped. The notification port runs in this process, and time is an argument.

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>

#include "broker/Forgetting.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

class DroppingTest : public testing::Test
{
protected:
    DroppingTest() { notify.listen(); }

    std::unique_ptr<ZmtpPeer> subscribe(const std::string& prefix = "")
    {
        constexpr int smallBuffer = 16 * 1024;
        auto peer = std::make_unique<ZmtpPeer>(ZmtpPeer::notifyPort, smallBuffer);
        peer->write(ZmtpPeer::greeting() + ZmtpPeer::ready("SUB") + ZmtpPeer::subscribe(prefix));
        notify.accept(1, Clock::now());
        EXPECT_TRUE(eventually(
            [&]
            {
                serve();
                return notify.peers().back()->state == NotifyConnection::State::Following;
            }));
        peer->read(ZmtpPeer::openingOf(ZmtpPeer::notifyPort).size());
        return peer;
    }

    // One round of the broker's loop.
    void serve()
    {
        const TimePoint now = Clock::now() + ahead;
        const std::size_t events = poller.wait(std::chrono::microseconds(0));
        for (std::size_t index = 0; index < events; ++index)
        {
            const Poller::Event event = poller.event(index);
            if (event.owner->pollableKind() == Pollable::Kind::Connection)
                notify.serve(static_cast<NotifyConnection&>(*event.owner), event.what, now);
        }
        notify.flush(now);
        forgetting.dropWhatAllKnow(now);
    }

    void post(const std::string& key, const std::string& value)
    {
        const DeviceState::Members changed = state.post({{key, value}});
        std::string text;
        BrokerProtocol::appendUpdate(text, BrokerProtocol::Key::statusUpdate, changed);
        outbox.publish(text, 0);
    }

    std::string forget(const std::string& keys)
    {
        const Connection client(Descriptor(), Handshake::Kind::Request, Clock::now());
        guard.admit(const_cast<Connection&>(client));
        const std::string request = R"({"forgetStatus":[)" + keys + "]}";
        EXPECT_TRUE(command.readRequest(request));
        return forgetting.forget(client, command);
    }

    // Publishes more than the kernel holds for a subscriber that does not read, so that it falls behind.
    void overflow()
    {
        for (int number = 0; number < 200; ++number)
        {
            post("much" + std::to_string(number % 60), std::to_string(number) + std::string(30000, 'x'));
            serve();
        }
        notify.shortenLog(1, Clock::now());
        ASSERT_EQ(notify.peers().back()->state, NotifyConnection::State::Behind);
    }

    bool isDropped()
    {
        return eventually(
            [&]
            {
                ahead += std::chrono::seconds(1);
                serve();
                return state.forgotten() == 0;
            });
    }

    // However much time passes.
    bool isKept()
    {
        for (int hour = 0; hour < 24; ++hour)
        {
            ahead += std::chrono::hours(1);
            serve();
        }
        return state.forgotten() != 0;
    }

    // Reads until this text arrives.
    bool reads(ZmtpPeer& peer, const std::string& text)
    {
        return eventually(
            [&]
            {
                serve();
                return readsNow(peer, text);
            });
    }

    // Reads only what has arrived already.
    bool readsNow(ZmtpPeer& peer, const std::string& text)
    {
        while (const auto frame = peer.readFrame(std::chrono::milliseconds(0)))
        {
            if ((frame->flags & WireFrames::command) != 0)
                continue;
            mMessage += frame->body;
            if ((frame->flags & WireFrames::more) == 0 &&
                std::exchange(mMessage, {}).find(text) != std::string::npos)
                return true;
        }
        return false;
    }

    std::chrono::seconds ahead{0}; // added to the clock
    Options options;
    Limits limits;
    Refusals refusals;
    MemoryBudget budget{limits.memory};
    Poller poller;
    Identities identities;
    Guard guard{identities, refusals, std::make_unique<const Policy>()};
    const PortEnvironment environment{poller, identities, budget, limits, refusals, guard};
    DeviceState state{limits, refusals};
    RequestPort requests{environment, state, [](RequestConnection&) {}, [](RequestConnection&) {}};
    NotifyPort notify{environment, state};
    Outbox outbox{options, state, notify, requests};
    OwnedValues ownedValues{state, {}};
    Forgetting forgetting{guard, refusals, state, ownedValues, outbox, notify};
    BrokerProtocol::Command command;

private:
    std::string mMessage; // the part that has arrived
};

} // namespace

TEST_F(DroppingTest, withoutSubscribersAForgottenKeyIsDroppedAtOnce)
{
    post("a", "1");
    EXPECT_EQ(forget(R"("a","b")"), R"({"forgotten":["a"]})");
    EXPECT_EQ(state.forgotten(), 1U);
    serve();
    EXPECT_EQ(state.forgotten(), 0U);
    EXPECT_EQ(forgetting.due(), TimePoint::max());
}

TEST_F(DroppingTest, withAHealthySubscriberItIsDroppedSoon)
{
    const auto peer = subscribe();
    post("a", "1");
    forget(R"("a")");
    EXPECT_TRUE(reads(*peer, R"({"statusUpdate":{"a":""}})"));
    EXPECT_TRUE(isDropped());
}

TEST_F(DroppingTest, aSubscriberThatWantsNothingOfItDoesNotKeepIt)
{
    const auto peer = subscribe("something else");
    post("a", "1");
    forget(R"("a")");
    EXPECT_TRUE(isDropped());
}

TEST_F(DroppingTest, oneThatIsBehindKeepsItAndIsToldOfTheReset)
{
    post("a", "1");
    const auto peer = subscribe();
    overflow();
    forget(R"("a")");
    EXPECT_TRUE(isKept());
    EXPECT_TRUE(reads(*peer, R"("a":"")"));
    EXPECT_TRUE(isDropped());
}

TEST_F(DroppingTest, aKeyThatWasEmptyAlreadyIsKeptForOneThatIsBehind)
{
    post("a", "1");
    const auto peer = subscribe();
    overflow();
    post("a", "");
    serve();
    notify.shortenLog(1, Clock::now());
    forget(R"("a")");
    EXPECT_TRUE(isKept());
    EXPECT_TRUE(reads(*peer, R"("a":"")"));
    EXPECT_TRUE(isDropped());
}

TEST_F(DroppingTest, oneThatMayStillFallBehindKeepsIt)
{
    const auto peer = subscribe();
    for (int number = 0; number < 60; ++number)
        post("much" + std::to_string(number), std::string(30000, 'x'));
    serve();
    ASSERT_EQ(notify.peers().back()->state, NotifyConnection::State::Following);
    forget(R"("much0")");
    EXPECT_TRUE(isKept());
    EXPECT_TRUE(reads(*peer, R"({"statusUpdate":{"much0":""}})"));
    EXPECT_TRUE(isDropped());
}

// The kernel's output buffer is lost when a subscriber is closed for lack of memory.
TEST_F(DroppingTest, bytesThatOnlyOurKernelHoldsKeepIt)
{
    const auto peer = subscribe();
    for (int number = 0; number < 4; ++number)
        post("much" + std::to_string(number), std::string(30000, 'x'));
    forget(R"("much0")");
    serve();
    ASSERT_FALSE(notify.hasOutput()) << "the kernel holds all of it";
    EXPECT_TRUE(isKept());
    notify.closeForMemory(*notify.peers().back(), Clock::now() + ahead);
    const auto again = subscribe();
    EXPECT_TRUE(reads(*again, R"("much0":"")"));
}

TEST_F(DroppingTest, aClientThatIsAboutToSubscribeKeepsIt)
{
    post("a", "1");
    notify.catchUp().acknowledged(state.revision(), Clock::now());
    forget(R"("a")");
    ahead = CatchUp::longestWait / 2;
    serve();
    EXPECT_EQ(state.forgotten(), 1U);
    ahead = 2 * CatchUp::longestWait;
    serve();
    EXPECT_EQ(state.forgotten(), 0U);
}

// The value at which the subscriber continues must stay, or the broker would read freed memory.
TEST_F(DroppingTest, oneThatIsToldAllAgainKeepsTheValueItGoesOnWith)
{
    const auto peer = subscribe();
    // Three long values fill the message for the gap. The fourth, an empty value, begins the next message.
    std::string keys;
    for (int number = 0; number < 100; ++number)
    {
        const bool isLong = number % 4 != 3;
        post("k" + std::to_string(number), isLong ? std::string(30000, 'x') : "");
        if (!isLong)
            keys += (keys.empty() ? "\"k" : ",\"k") + std::to_string(number) + '"';
    }
    post("m", std::string(30000, 'x'));
    EXPECT_TRUE(reads(*peer, R"("m":)"));
    post("n", "1");
    forget(R"("n")");
    EXPECT_TRUE(reads(*peer, R"("n":"")"));
    EXPECT_TRUE(isDropped()) << "it has received everything";

    NotifyConnection& connection = *notify.peers().back();
    connection.isFiltered = true; // as if its rights had changed
    notify.takeOverRights(true, Clock::now());
    serve();
    ASSERT_EQ(connection.state, NotifyConnection::State::Behind);
    ASSERT_NE(connection.nextValue, nullptr);
    ASSERT_TRUE(connection.nextValue->text.empty());
    forget(keys);
    EXPECT_TRUE(isKept());
    EXPECT_TRUE(reads(*peer, R"("k99":"")"));
    EXPECT_TRUE(isDropped());
}
