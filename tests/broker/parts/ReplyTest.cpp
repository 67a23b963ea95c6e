#include "broker/Reply.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <regex>

#include "protocol/ClientDocuments.h"
#include "tests/protocol/Written.h"
#include "tests/support/LogCapture.h"
#include "tests/support/WireFrames.h"

namespace
{

using Map = std::map<std::string, std::string>;

// Reads it as a client does: a delimiter, then frames that are never empty.
std::string textOf(const std::string& bytes)
{
    const std::vector<WireFrames::Frame> frames = WireFrames::framesIn(bytes);
    if (frames.size() < 2 || !frames.front().body.empty() || frames.front().flags != WireFrames::more)
        return "no delimiter, or nothing behind it";
    std::string text;
    for (std::size_t index = 1; index < frames.size(); ++index)
    {
        const bool isLast = index + 1 == frames.size();
        EXPECT_EQ((frames[index].flags & WireFrames::more) == 0, isLast);
        EXPECT_EQ(frames[index].flags & WireFrames::command, 0U);
        EXPECT_FALSE(frames[index].body.empty()) << "a client takes that for a failure";
        EXPECT_LE(frames[index].body.size(), 512U);
        text += frames[index].body;
    }
    return text;
}

class ReplyTest : public testing::Test
{
protected:
    void post(const Map& values) { state.post(membersIn(values)); }

    // Produces the reply in pieces of about this many bytes.
    std::string produced(Reply reply, std::size_t pieceBytes = 8192)
    {
        std::string bytes;
        while (!reply.produce(state, {}, pieceBytes, bytes))
        {
        }
        return textOf(bytes);
    }

    static Map numbered(std::size_t count, std::size_t valueBytes)
    {
        Map values;
        for (std::size_t number = 0; number < count; ++number)
            values["key" + std::to_string(number)] = std::string(valueBytes, 'v');
        return values;
    }

    const LogCapture log;
    Limits limits;
    Refusals refusals;
    DeviceState state{limits, refusals};
};

} // namespace

TEST_F(ReplyTest, aTextIsSentAsItIs)
{
    EXPECT_EQ(produced(Reply("{}")), "{}");
    EXPECT_EQ(produced(Reply(std::string(5000, 'x'))), std::string(5000, 'x'));
}

TEST_F(ReplyTest, aTextHasAnEmptyLastFrameAtNoLength)
{
    for (std::size_t size = 1; size < 2100; ++size)
        ASSERT_EQ(produced(Reply(std::string(size, 'x'))), std::string(size, 'x'));
}

TEST_F(ReplyTest, ofAllHoldsAllValues)
{
    EXPECT_EQ(produced(Reply::ofAll()), "{}");
    post({{"b", "2"}, {"a", "1"}, {"quote\"", "\xc3\xa4"}});
    EXPECT_EQ(produced(Reply::ofAll()), R"({"a":"1","b":"2","quote\"":"\u00e4"})");
}

TEST_F(ReplyTest, ofSomeHoldsThoseThatAreKnownEachOnceInTheirOrder)
{
    post({{"a", "1"}, {"b", "2"}, {"c", "3"}});
    EXPECT_EQ(produced(Reply::of({"c", "unknown", "a", "c"})), R"({"a":"1","c":"3"})");
    EXPECT_EQ(produced(Reply::of({})), "{}");
    EXPECT_EQ(produced(Reply::of({"unknown"})), "{}");
}

TEST_F(ReplyTest, inPiecesOfAnySizeIsTheSameText)
{
    const Map values = numbered(50, 30);
    post(values);
    const std::string whole = writtenObject(values);
    for (std::size_t pieceBytes = 1; pieceBytes < whole.size() + 600; ++pieceBytes)
        ASSERT_EQ(produced(Reply::ofAll(), pieceBytes), whole) << pieceBytes;
}

TEST_F(ReplyTest, inPiecesHasAnEmptyLastFrameAtNoLength)
{
    for (std::size_t size = 0; size < 1100; ++size)
    {
        post({{"k", std::string(size, 'v')}});
        for (const std::size_t pieceBytes : {1U, 511U, 512U, 513U, 8192U})
            ASSERT_EQ(produced(Reply::ofAll(), pieceBytes), R"({"k":")" + std::string(size, 'v') + "\"}");
    }
}

TEST_F(ReplyTest, isProducedPieceByPiece)
{
    post(numbered(1000, 100));
    constexpr std::size_t pieceBytes = 2000;
    Reply reply = Reply::ofAll();
    std::size_t pieces = 0;
    std::string piece;
    for (bool isLast = false; !isLast; ++pieces)
    {
        piece.clear();
        isLast = reply.produce(state, {}, pieceBytes, piece);
        ASSERT_LT(piece.size(), 2 * pieceBytes);
        ASSERT_LT(reply.heldBytes(), 3 * pieceBytes);
    }
    EXPECT_GT(pieces, 40U);
}

// Hundreds of clients may ask for all values and read nothing.
TEST_F(ReplyTest, holdsLittleBehindALongValue)
{
    Map values = numbered(1000, 100);
    values["first"] = std::string(60000, 'v');
    post(values);
    Reply reply = Reply::ofAll();
    std::string bytes;
    EXPECT_FALSE(reply.produce(state, {}, Reply::pieceBytes, bytes));
    EXPECT_GT(bytes.size(), 60000U);
    EXPECT_LT(reply.heldBytes(), 1000U);
}

TEST_F(ReplyTest, countsTheKeysThatItHolds)
{
    std::vector<std::string> keys;
    for (int number = 0; number < 1000; ++number)
        keys.push_back(std::string(100, 'k') + std::to_string(number));
    const std::size_t bytes = Reply::of({keys.begin(), keys.end()}).heldBytes();
    EXPECT_GT(bytes, 100000U);
    EXPECT_LT(bytes, 120000U) << "little more than the keys themselves";
}

// ------------------------------------------------------------------------------- values changing meanwhile

TEST_F(ReplyTest, aValueIsAsItIsWhenItsTurnComes)
{
    post(numbered(100, 100));
    Reply reply = Reply::ofAll();
    std::string bytes;
    ASSERT_FALSE(reply.produce(state, {}, 1000, bytes));
    post({{"key0", "too late"}, {"key99", "in time"}, {"key0more", "too late"}, {"z", "new"}});
    while (!reply.produce(state, {}, 1000, bytes))
    {
    }
    const std::optional<Map> values = BrokerProtocol::readMapReply(textOf(bytes));
    ASSERT_TRUE(values);
    EXPECT_EQ(values->at("key0"), std::string(100, 'v'));
    EXPECT_EQ(values->at("key99"), "in time");
    EXPECT_EQ(values->count("key0more"), 0U);
    EXPECT_EQ(values->at("z"), "new");
    EXPECT_EQ(values->size(), 101U);
}

TEST_F(ReplyTest, changesBetweenAnyTwoPiecesLeaveItADocument)
{
    post(numbered(100, 10));
    for (std::size_t pieceBytes = 1; pieceBytes < 700; pieceBytes += 13)
    {
        Reply reply = Reply::ofAll();
        std::string bytes;
        for (std::size_t round = 0; !reply.produce(state, {}, pieceBytes, bytes); ++round)
            post({{"key" + std::to_string(round % 100), std::string((round * 37) % 600, 'w')}});
        const std::optional<Map> values = BrokerProtocol::readMapReply(textOf(bytes));
        ASSERT_TRUE(values) << pieceBytes;
        ASSERT_EQ(values->size(), 100U) << pieceBytes;
    }
}

// ------------------------------------------------------------------------------------ timers and counters

TEST_F(ReplyTest, ofTimersHoldsWhatEachHas)
{
    EXPECT_EQ(produced(Reply::ofTimers()), R"({"timers":{}})");
    state.setTimer("b", {5, 1700000000000000, false});
    state.setTimer("a\"", {7, 0, false});
    EXPECT_EQ(produced(Reply::ofTimers()),
              R"({"timers":{"a\"":{"elapsed":7,"lastStarted":0,"running":0},)"
              R"("b":{"elapsed":5,"lastStarted":1700000000000000,"running":0}}})");
    state.startTimer("b");
    EXPECT_NE(produced(Reply::ofTimers()).find(R"("running":1)"), std::string::npos);
}

TEST_F(ReplyTest, ofCountersHoldsEachWithAllThatItCounts)
{
    EXPECT_EQ(produced(Reply::ofCounters()), R"({"counters":{}})");
    state.setCounter("b", 4294967295U);
    state.setCounter("a", 0);
    EXPECT_EQ(produced(Reply::ofCounters()), R"({"counters":{"a":0,"b":4294967295}})");
}

TEST_F(ReplyTest, countersThatAreForgottenBetweenAnyTwoPiecesLeaveItADocument)
{
    const std::regex document(R"(\{"counters":\{("counter\d+":\d+(,"counter\d+":\d+)*)?\}\})");
    for (std::size_t pieceBytes = 1; pieceBytes < 700; pieceBytes += 13)
    {
        for (uint32_t number = 0; number < 100; ++number)
            state.setCounter("counter" + std::to_string(number), number);
        Reply reply = Reply::ofCounters();
        std::string bytes;
        for (std::size_t round = 0; !reply.produce(state, {}, pieceBytes, bytes); ++round)
        {
            const std::string name = "counter" + std::to_string(round * 7 % 100);
            state.forgetCounters({name});
        }
        ASSERT_TRUE(std::regex_match(textOf(bytes), document)) << textOf(bytes);
    }
}

TEST_F(ReplyTest, ofCountersLeavesOutWhatIsNotShown)
{
    state.setCounter("a", 1);
    state.setCounter("b", 2);
    state.setCounter("c", 3);
    const auto shows = [](Reply::Kind kind, std::string_view name)
    { return kind == Reply::Kind::Measure && name == "b"; };
    std::string bytes;
    EXPECT_TRUE(Reply::ofCounters().produce(state, shows, 1000, bytes));
    EXPECT_EQ(textOf(bytes), R"({"counters":{"b":2}})");
}

// A connection holds a piece of it, whatever the number of counters.
TEST_F(ReplyTest, ofCountersIsProducedAsItIsRead)
{
    constexpr std::size_t pieceBytes = 1000;
    for (std::size_t number = 0; number < limits.counters; ++number)
        state.setCounter("counter" + std::to_string(number), 1);
    Reply reply = Reply::ofCounters();
    std::string bytes;
    std::size_t pieces = 0;
    for (bool isLast = false; !isLast; ++pieces)
    {
        const std::size_t before = bytes.size();
        isLast = reply.produce(state, {}, pieceBytes, bytes);
        ASSERT_LT(bytes.size() - before, 4 * pieceBytes);
        ASSERT_LT(reply.heldBytes(), 4 * pieceBytes);
    }
    EXPECT_GT(pieces, 10U);
    const std::string text = textOf(bytes);
    EXPECT_EQ(std::count(text.begin(), text.end(), ':'), static_cast<int>(limits.counters) + 1);
}
