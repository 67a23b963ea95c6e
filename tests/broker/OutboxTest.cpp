#include "broker/Outbox.h"

#include <deque>
#include <gtest/gtest.h>
#include <vector>

#include "tests/support/TemporaryFolder.h"
#include "tests/support/Wait.h"
#include "tests/support/ZmtpPeer.h"

namespace
{

constexpr std::size_t muchText = std::size_t{1024} * 1024;

class OutboxTest : public testing::Test
{
protected:
    OutboxTest()
    {
        options.stateFile = folder / "state";
        requests.listen();
    }

    // A client whose first question is read, and whose second one has come.
    RequestConnection& connectClient()
    {
        ZmtpPeer& peer = peers.emplace_back(ZmtpPeer::requestPort);
        const std::string question = ZmtpPeer::request("question");
        EXPECT_TRUE(peer.write(ZmtpPeer::greeting() + ZmtpPeer::ready("REQ") + question + question));
        EXPECT_TRUE(eventually(
            [this]
            {
                requests.accept(1, Clock::now());
                return requests.peers().size() == peers.size();
            }));
        RequestConnection& connection = *requests.peers().back();
        EXPECT_TRUE(eventually(
            [&]
            {
                requests.serve(connection, EPOLLIN, Clock::now());
                return connection.isAsking && !connection.unread.empty();
            }));
        return connection;
    }

    TemporaryFolder folder;
    Options options;
    Refusals refusals;
    MemoryBudget budget{options.limits.memory};
    Poller poller;
    Identities identities;
    Guard guard{identities, refusals, std::make_unique<const Policy>()};
    const PortEnvironment environment{poller, identities, budget, options.limits, refusals, guard};
    DeviceState state{options.limits, refusals};
    NotifyPort notify{environment, state};
    std::vector<RequestConnection*> asked; // in this order
    RequestPort requests{environment, state, [this](RequestConnection& client) { asked.push_back(&client); },
                         [](RequestConnection&) {}};
    std::deque<ZmtpPeer> peers;
};

} // namespace

// A client's next question is taken when its answer has left.
TEST_F(OutboxTest, theAnswersLeaveInTheirOrder)
{
    Outbox outbox(options, state, notify, requests);
    while (peers.size() < 3)
        connectClient();
    const std::vector<RequestConnection*> order = std::exchange(asked, {});
    for (RequestConnection* client : order)
        outbox.reply(*client, Reply("answer"));
    EXPECT_TRUE(asked.empty()) << "nothing leaves before the commit";
    outbox.settle();
    EXPECT_EQ(asked, order);
}

TEST_F(OutboxTest, isFullWhenMuchWaitsForTheCommit)
{
    Outbox outbox(options, state, notify, requests);
    RequestConnection& client = connectClient();
    EXPECT_FALSE(outbox.isFull());
    outbox.reply(client, Reply(std::string(muchText, 'x')));
    EXPECT_TRUE(outbox.isFull());
    outbox.settle();
    EXPECT_FALSE(outbox.isFull());
}

// They are produced when they leave, so each is long.
TEST_F(OutboxTest, isFullWithManyAnswersOfTheWholeState)
{
    Outbox outbox(options, state, notify, requests);
    RequestConnection& client = connectClient();
    for (std::size_t answers = 0; answers < muchText / Reply::pieceBytes; ++answers)
    {
        EXPECT_FALSE(outbox.isFull()) << answers;
        outbox.reply(client, Reply::ofAll());
    }
    EXPECT_TRUE(outbox.isFull());
}

TEST_F(OutboxTest, withoutAStateFileAnswersLeaveAtOnce)
{
    options.stateFile.clear();
    Outbox outbox(options, state, notify, requests);
    RequestConnection& client = connectClient();
    asked.clear();
    outbox.reply(client, Reply("answer"));
    EXPECT_EQ(asked.size(), 1U) << "it has left";
}
