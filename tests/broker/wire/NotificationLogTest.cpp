#include "broker/wire/NotificationLog.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>

#include "tests/support/WireFrames.h"

namespace
{

using Position = NotificationLog::Position;
using Number = NotificationLog::Number;

constexpr std::size_t chunk = NotificationLog::chunkBytes;

std::string framesOf(const std::string& text)
{
    std::vector<std::string> frames;
    for (std::size_t at = 0; at == 0 || at < text.size(); at += 512)
        frames.push_back(text.substr(at, 512));
    return WireFrames::message(frames);
}

class NotificationLogTest : public testing::Test
{
protected:
    // Each text gets a revision of its own.
    void append(const std::string& text, uint64_t events = 0)
    {
        log.append(text, ++revision, events);
        all += framesOf(text);
    }

    std::string appended(Position from, Position until) const
    {
        return all.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(until - from));
    }

    // Fills the log to exactly this position with one message.
    void fillTo(Position end)
    {
        const auto size = static_cast<std::size_t>(end - log.end());
        std::size_t textSize = size;
        while (framesOf(std::string(textSize, 'x')).size() > size)
            --textSize;
        append(std::string(textSize, 'x'));
        ASSERT_EQ(log.end(), end) << "no text has so many bytes in frames";
    }

    std::string copied(Position from, Position until) const
    {
        std::string bytes;
        log.copy(from, until, bytes);
        return bytes;
    }

    std::string beginning(Position message, std::size_t most) const
    {
        std::string copied;
        return std::string(log.beginning(message, most, copied));
    }

    // Where the message after a position ends; 0 if there is none.
    Position endBehind(Position position) const
    {
        Number number = 0;
        const NotificationLog::Message* message = log.messageBehind(position, number);
        return message == nullptr ? 0 : message->end;
    }

    // Keeps a reader at the end of the message in the middle. Returns the end of each message.
    std::vector<Position> appendUntilTrimmed(std::size_t count)
    {
        std::vector<Position> ends;
        while (ends.size() < count)
        {
            append(std::string(1000, 'x'));
            ends.push_back(log.end());
            if (ends.size() == count / 2)
                log.enter(log.end());
        }
        log.trim();
        return ends;
    }

    // The first message whose end is still held.
    std::size_t firstHeld(const std::vector<Position>& ends) const
    {
        const Position begin = log.endOfOldest() - chunk;
        return static_cast<std::size_t>(std::lower_bound(ends.begin(), ends.end(), begin) - ends.begin());
    }

    NotificationLog log;
    uint64_t revision = 0;
    std::string all; // bytes of the wire since the beginning
};

} // namespace

TEST_F(NotificationLogTest, holdsTheFramesOfItsMessagesBehindEachOther)
{
    append("one");
    append("");
    append(std::string(512, 'x'));
    append(std::string(1300, 'y'));
    EXPECT_EQ(log.end(), all.size());
    EXPECT_EQ(copied(0, log.end()), all);
    for (Position from = 0; from < log.end(); from += 7)
        ASSERT_EQ(copied(from, log.end() - 1), appended(from, log.end() - 1));
}

TEST_F(NotificationLogTest, messagesLieAcrossChunks)
{
    for (int count = 0; count < 300; ++count)
        append(std::to_string(count) + std::string(997, 'x'));
    append(std::string(3 * chunk, 'y'));
    ASSERT_GT(log.end(), 7 * chunk);
    EXPECT_EQ(copied(0, log.end()), all);
}

TEST_F(NotificationLogTest, piecesReachAsFarAsThereAreSome)
{
    append(std::string(3 * chunk, 'x'));
    std::array<iovec, 16> pieces{};
    const Position from = 100;
    ASSERT_EQ(log.pieces(from, log.end(), pieces.data(), pieces.size()), 4U);
    std::string bytes;
    for (std::size_t index = 0; index < 4; ++index)
        bytes.append(static_cast<const char*>(pieces[index].iov_base), pieces[index].iov_len);
    EXPECT_EQ(bytes, all.substr(from));
    EXPECT_EQ(log.pieces(from, log.end(), pieces.data(), 2), 2U);
    EXPECT_EQ(pieces[0].iov_len, chunk - from);
    EXPECT_EQ(pieces[1].iov_len, chunk);
    EXPECT_EQ(log.pieces(log.end(), log.end(), pieces.data(), pieces.size()), 0U);
}

// ----------------------------------------------------------------------------------------------- positions

TEST_F(NotificationLogTest, aPositionInAMessageOrAtItsEndIsThatMessages)
{
    append("first", 2);
    const Position first = log.end();
    append("second", 3);
    const Position second = log.end();
    EXPECT_EQ(log.messageAt(1).end, first);
    EXPECT_EQ(log.messageAt(first).end, first) << "it has been read";
    EXPECT_EQ(log.messageAt(first).revision, 1U);
    EXPECT_EQ(log.messageAt(first).eventsUpTo, 2U);
    EXPECT_EQ(log.messageAt(first + 1).end, second);
    EXPECT_EQ(log.messageAt(second).end, second);
    EXPECT_EQ(log.messageAt(second).revision, 2U);
    EXPECT_EQ(log.messageAt(second).eventsUpTo, 5U);
}

TEST_F(NotificationLogTest, theMessageBehindAPositionBeginsThere)
{
    append("first");
    const Position first = log.end();
    append("second");
    EXPECT_EQ(endBehind(0), first);
    EXPECT_EQ(endBehind(first - 1), first);
    EXPECT_EQ(endBehind(first), log.end());
    EXPECT_EQ(endBehind(log.end()), 0U);
}

TEST_F(NotificationLogTest, theMessageBehindAPositionIsFoundWhateverNumberIsSupposed)
{
    const std::vector<Position> ends = appendUntilTrimmed(300);
    const std::size_t first = firstHeld(ends);
    ASSERT_GT(first, 0U);
    for (std::size_t index = first; index < ends.size(); ++index)
        for (const Number supposed : {Number{0}, Number{index - 1}, Number{index}, Number{index + 1},
                                      Number{index + 2}, Number{ends.size()}, Number{1} << 40})
        {
            Number number = supposed;
            ASSERT_EQ(log.messageBehind(ends[index] - 1, number)->end, ends[index])
                << index << ' ' << supposed;
            ASSERT_EQ(number, index);
            number = supposed;
            const NotificationLog::Message* next = log.messageBehind(ends[index], number);
            ASSERT_EQ(number, index + 1) << supposed;
            ASSERT_EQ(next == nullptr ? 0 : next->end, index + 1 == ends.size() ? 0 : ends[index + 1]);
        }
}

TEST_F(NotificationLogTest, theNumberAtTheEndIsThatOfTheNextMessage)
{
    Number number = 0;
    EXPECT_EQ(log.messageBehind(0, number), nullptr);
    append("first");
    const Position first = log.end();
    EXPECT_EQ(log.messageBehind(0, number)->end, first);
    EXPECT_EQ(number, 0U);
    EXPECT_EQ(log.messageBehind(first, number), nullptr);
    append("second");
    EXPECT_EQ(log.messageBehind(first, number)->end, log.end());
    EXPECT_EQ(number, 1U);
}

TEST_F(NotificationLogTest, anEmptyLogHasNoMessages)
{
    EXPECT_EQ(log.end(), 0U);
    EXPECT_EQ(log.messageAt(0).end, 0U);
    EXPECT_EQ(log.messageAt(0).revision, 0U);
    EXPECT_EQ(endBehind(0), 0U);
    EXPECT_EQ(log.endOfOldest(), 0U);
}

TEST_F(NotificationLogTest, eventsAreCountedUpToEachMessage)
{
    append("status");
    EXPECT_EQ(log.eventsSoFar(), 0U);
    append("event", 1);
    append("events", 4);
    EXPECT_EQ(log.eventsSoFar(), 5U);
}

TEST_F(NotificationLogTest, theBeginningOfAMessageIsOfItsTextAlone)
{
    append("short");
    const Position first = log.end();
    append(std::string(300, 'l'));
    const Position second = log.end();
    append(std::string(2000, 'm'));
    EXPECT_EQ(beginning(0, 3), "sho");
    EXPECT_EQ(beginning(0, 5), "short");
    EXPECT_EQ(beginning(0, 255), "short") << "nothing of the next message";
    EXPECT_EQ(beginning(first, 255), std::string(255, 'l'));
    EXPECT_EQ(beginning(second, 255), std::string(255, 'm'));
}

TEST_F(NotificationLogTest, theTextOfAMessageIsThatOfAllItsFrames)
{
    append("");
    const Position first = log.end();
    append(std::string(300, 'l'));
    const Position second = log.end();
    append(std::string(512, 'm') + std::string(512, 'n') + "o");
    fillTo(chunk - 10);
    const Position last = log.end();
    append("0123456789");
    EXPECT_EQ(log.text(0, first), "");
    EXPECT_EQ(log.text(first, second), std::string(300, 'l'));
    EXPECT_EQ(log.text(second, endBehind(second)), std::string(512, 'm') + std::string(512, 'n') + "o");
    EXPECT_EQ(log.text(last, log.end()), "0123456789");
}

TEST_F(NotificationLogTest, theBeginningOfAMessageMayLieAcrossTwoChunks)
{
    for (std::size_t before = 1; before < 20; ++before)
    {
        NotificationLog another;
        std::swap(log, another);
        fillTo(chunk - before);
        const Position message = log.end();
        append("{\"statusUpdate\":{\"k\":\"v\"}}");
        EXPECT_EQ(beginning(message, 16), "{\"statusUpdate\":") << before;
    }
}

TEST_F(NotificationLogTest, theBeginningOfAMessageIsCopiedOnlyWhereItLiesAcrossTwoChunks)
{
    std::string copied = "as before";
    append("short");
    EXPECT_EQ(log.beginning(0, 255, copied), "short");
    EXPECT_EQ(copied, "as before");
    fillTo(chunk - 10);
    const Position message = log.end();
    append("0123456789");
    EXPECT_EQ(log.beginning(message, 255, copied), "0123456789") << "and nothing of what was there";
    EXPECT_FALSE(copied.empty());
}

TEST_F(NotificationLogTest, theBeginningOfALastMessageThatIsShortIsAllOfIt)
{
    append("");
    EXPECT_EQ(beginning(0, 255), "");
    const Position message = log.end();
    append("x");
    EXPECT_EQ(beginning(message, 255), "x");
}

// ------------------------------------------------------------------------------------------------- readers

TEST_F(NotificationLogTest, whatNobodyReadsIsFreed)
{
    append(std::string(5 * chunk, 'x'));
    const std::size_t before = log.heldBytes();
    log.trim();
    EXPECT_LT(log.heldBytes(), before - 4 * chunk);
    EXPECT_EQ(log.endOfOldest(), 0U) << "there is only the chunk that is being written";
    append("more");
    EXPECT_EQ(copied(log.end() - 6, log.end()), framesOf("more"));
}

TEST_F(NotificationLogTest, whatSomebodyIsInIsKeptUntilItLeaves)
{
    append("first");
    const Position reader = log.end();
    log.enter(reader);
    append(std::string(3 * chunk, 'x'));
    log.trim();
    EXPECT_EQ(copied(0, log.end()), all);
    EXPECT_EQ(log.endOfOldest(), chunk);
    log.leave(reader);
    log.trim();
    EXPECT_EQ(log.endOfOldest(), 0U);
}

TEST_F(NotificationLogTest, aReaderThatReadsOnFreesWhatIsBehindIt)
{
    log.enter(0);
    append(std::string(3 * chunk, 'x'));
    Position at = 0;
    for (const Position to : {Position{100}, Position{chunk - 1}, Position{chunk}, Position{chunk + 1}})
    {
        log.advance(at, to);
        at = to;
        log.trim();
        EXPECT_EQ(log.endOfOldest(), to < chunk ? chunk : 2 * chunk) << to;
        EXPECT_EQ(copied(at, log.end()), appended(at, log.end()));
    }
    log.advance(at, log.end());
    log.trim();
    EXPECT_EQ(log.endOfOldest(), 0U);
}

TEST_F(NotificationLogTest, theSlowestReaderCounts)
{
    log.enter(0);
    log.enter(0);
    append(std::string(2 * chunk, 'x'));
    log.advance(0, log.end());
    log.trim();
    EXPECT_EQ(log.endOfOldest(), chunk);
    log.advance(0, log.end());
    log.trim();
    EXPECT_EQ(log.endOfOldest(), 0U);
}

TEST_F(NotificationLogTest, aReaderMayStandAtTheEndOfAChunkThatIsExactlyFull)
{
    log.enter(0);
    fillTo(chunk);
    log.advance(0, log.end());
    log.trim();
    EXPECT_EQ(log.endOfOldest(), 0U);
    append("next");
    EXPECT_EQ(copied(chunk, log.end()), framesOf("next"));
    log.leave(chunk);
    log.enter(log.end());
    log.trim();
    EXPECT_EQ(log.messageAt(log.end()).revision, revision);
}

TEST_F(NotificationLogTest, theMessageAtAReadersPositionIsKnownAsLongAsItsChunkIsThere)
{
    append("first");
    const Position reader = log.end();
    log.enter(reader);
    for (int count = 0; count < 200; ++count)
    {
        append(std::string(1000, 'x'));
        log.trim();
    }
    EXPECT_EQ(log.messageAt(reader).end, reader);
    EXPECT_EQ(log.messageAt(reader).revision, 1U);
}

TEST_F(NotificationLogTest, aMessageThatBeganInAChunkThatIsGoneIsStillKnown)
{
    append(std::string(chunk + 100, 'x'));
    const Position inside = chunk + 50;
    log.enter(inside);
    append("next");
    log.trim();
    EXPECT_EQ(log.messageAt(inside).revision, 1U);
    const Position end = log.messageAt(inside).end;
    EXPECT_EQ(copied(inside, end), appended(inside, end));
}

// -------------------------------------------------------------------------------------------------- memory

TEST_F(NotificationLogTest, alsoManySmallMessagesAreCounted)
{
    log.enter(0);
    const std::size_t before = log.heldBytes();
    for (int count = 0; count < 10000; ++count)
        append("x");
    EXPECT_GE(log.heldBytes() - before, 10000 * sizeof(NotificationLog::Message));
}

TEST_F(NotificationLogTest, ofWhatIsBehindAPositionChunksAndMessagesAreCounted)
{
    constexpr std::size_t perMessage = sizeof(NotificationLog::Message);
    append("x");
    EXPECT_EQ(log.heldBytes(log.end()), chunk + perMessage) << "with the message that ends there";
    append(std::string(3 * chunk, 'x'));
    const Position last = log.end();
    append("x");
    append("x");
    EXPECT_EQ(log.heldBytes(0), 4 * chunk + 4 * perMessage);
    EXPECT_EQ(log.heldBytes(0), log.heldBytes());
    EXPECT_EQ(log.heldBytes(last), chunk + 3 * perMessage);
}

TEST_F(NotificationLogTest, withoutReadersItStaysShortWhateverIsPublished)
{
    for (int count = 0; count < 100000; ++count)
    {
        append("0123456789");
        log.trim();
        ASSERT_LT(log.heldBytes(), 8 * chunk);
    }
}
