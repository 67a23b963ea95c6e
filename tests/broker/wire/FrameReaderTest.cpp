#include "broker/wire/FrameReader.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "tests/support/WireFrames.h"

namespace
{

using Result = FrameReader::Result;
using namespace WireFrames;

constexpr std::size_t limit = 1000;

// The most bytes that a message over the limit may take on the wire.
constexpr std::uint64_t endless = 2 * limit + 16384;

/// A result of the reader.
struct Found
{
    Result result;
    std::string body;
    std::size_t frames;
    bool firstIsEmpty;

    bool operator==(const Found& other) const
    {
        return result == other.result && body == other.body && frames == other.frames &&
               firstIsEmpty == other.firstIsEmpty;
    }
};

Found message(const std::string& body, std::size_t frames = 1, bool firstIsEmpty = false)
{
    return {Result::Message, body, frames, firstIsEmpty};
}

Found commandOf(const std::string& body)
{
    return {Result::Command, body, 0, false};
}

const Found tooLong{Result::TooLong, "", 0, false};
const Found endlessMessage{Result::Endless, "", 0, false};
const Found violation{Result::Violation, "", 0, false};

std::ostream& operator<<(std::ostream& stream, const Found& found)
{
    return stream << static_cast<int>(found.result) << " [" << found.body.substr(0, 40) << "] of "
                  << found.body.size() << " bytes in " << found.frames << " frames, " << found.firstIsEmpty;
}

class Reading
{
public:
    explicit Reading(std::size_t most = limit) : mMost(most) {}

    /// Takes all bytes, from a buffer that does not outlive the call, like a receive buffer.
    void read(const std::string& piece)
    {
        std::string buffer = piece;
        std::string_view bytes = buffer;
        FrameReader::Item item;
        for (;;)
        {
            const Result result = reader.next(bytes, mMost, item);
            if (result == Result::NeedsMore)
                break;
            add(result, item);
            if (result == Result::Violation || result == Result::Endless)
                return;
        }
        EXPECT_TRUE(bytes.empty()) << "all bytes are taken before more are needed";
        std::fill(buffer.begin(), buffer.end(), '!');
    }

    bool isOver() const
    {
        return !found.empty() &&
               (found.back().result == Result::Violation || found.back().result == Result::Endless);
    }

    FrameReader reader;
    std::vector<Found> found;

private:
    void add(Result result, const FrameReader::Item& item)
    {
        if (result == Result::Message)
            found.push_back({result, std::string(item.body), item.frames, item.firstIsEmpty});
        else if (result == Result::Command)
            found.push_back(commandOf(std::string(item.body)));
        else
            found.push_back({result, "", 0, false});
    }

    std::size_t mMost;
};

std::vector<Found> whatIsIn(const std::string& bytes)
{
    Reading reading;
    reading.read(bytes);
    return reading.found;
}

std::vector<Found> whatIsInPieces(const std::string& bytes, std::size_t pieceBytes)
{
    Reading reading;
    for (std::size_t at = 0; at < bytes.size() && !reading.isOver(); at += pieceBytes)
        reading.read(bytes.substr(at, pieceBytes));
    return reading.found;
}

std::vector<Found> whatIsInTwoPieces(const std::string& bytes, std::size_t split)
{
    Reading reading;
    reading.read(bytes.substr(0, split));
    if (!reading.isOver())
        reading.read(bytes.substr(split));
    return reading.found;
}

// Frames of every kind.
std::string allKinds()
{
    const std::string tooMuch(limit - 100, 'x');
    return frame("one") + frame("") + WireFrames::message({"", "request"}) + frame(std::string(300, 'l')) +
           frame("PING", command) + frame(std::string(512, 'a'), more) + frame("between", command) +
           frame("", more) + frame("\x05READY", command) + frame(std::string(88, 'b')) +
           WireFrames::message({tooMuch, tooMuch}) + frame("short, but spelt as long", isLong) +
           frame("command, too", command | isLong) + WireFrames::message({"a", "b", "c", ""}) +
           frame(std::string(limit + 1, 'y')) + frame("end");
}

std::vector<Found> foundInAllKinds()
{
    return {message("one"),
            message("", 1, true),
            message("request", 2, true),
            message(std::string(300, 'l')),
            commandOf("PING"),
            commandOf("between"),
            commandOf("\x05READY"),
            message(std::string(512, 'a') + std::string(88, 'b'), 3),
            tooLong,
            message("short, but spelt as long"),
            commandOf("command, too"),
            message("abc", 4),
            tooLong,
            message("end")};
}

} // namespace

TEST(FrameReaderTest, findsMessagesAndCommands)
{
    EXPECT_EQ(whatIsIn(allKinds()), foundInAllKinds());
}

TEST(FrameReaderTest, findsTheSameWhereverTheBytesAreSplit)
{
    const std::string bytes = allKinds();
    const std::vector<Found> expected = foundInAllKinds();
    for (std::size_t split = 0; split <= bytes.size(); ++split)
        ASSERT_EQ(whatIsInTwoPieces(bytes, split), expected) << "split at " << split;
}

TEST(FrameReaderTest, findsTheSameInPiecesOfAnySize)
{
    const std::string bytes = allKinds();
    const std::vector<Found> expected = foundInAllKinds();
    for (std::size_t size = 1; size <= 600; ++size)
        ASSERT_EQ(whatIsInPieces(bytes, size), expected) << "pieces of " << size;
}

TEST(FrameReaderTest, refusesTheSameWhereverTheBytesAreSplit)
{
    const std::vector<std::pair<std::string, std::vector<Found>>> ends{
        {frame("x") + "\x08\x01y", {message("x"), violation}},
        {frame("x", more) + frame("c", command) + "\x05\x01y", {commandOf("c"), violation}},
        {frame("x") + header(3000, command) + std::string(3000, 'y'), {message("x"), violation}},
        {frame("x") + header(endless, 0) + "yyyy", {message("x"), endlessMessage}},
        {frame("x", more) + header(std::uint64_t(-1), 0) + "yyyy", {endlessMessage}}};
    for (const auto& [bytes, expected] : ends)
    {
        for (std::size_t split = 0; split <= bytes.size(); ++split)
            ASSERT_EQ(whatIsInTwoPieces(bytes, split), expected) << "split at " << split;
        EXPECT_EQ(whatIsInPieces(bytes, 1), expected);
    }
}

TEST(FrameReaderTest, needsMoreUntilAMessageIsComplete)
{
    const std::string bytes = WireFrames::message({"first", std::string(300, 'x')});
    Reading reading;
    for (const char byte : bytes)
    {
        ASSERT_TRUE(reading.found.empty());
        reading.read(std::string(1, byte));
        ASSERT_EQ(reading.reader.isUnfinished(), reading.found.empty());
    }
    EXPECT_EQ(reading.found.size(), 1U);
}

TEST(FrameReaderTest, isUnfinishedBehindACommandInTheMiddleOfAMessage)
{
    Reading reading;
    EXPECT_FALSE(reading.reader.isUnfinished());
    reading.read(frame("PING", command));
    EXPECT_FALSE(reading.reader.isUnfinished());
    reading.read(frame("x", more));
    reading.read(frame("PING", command));
    EXPECT_TRUE(reading.reader.isUnfinished());
    reading.read(frame("y"));
    EXPECT_FALSE(reading.reader.isUnfinished());
}

TEST(FrameReaderTest, aMessageThatLiesThereAsAWholeIsNotCopied)
{
    FrameReader reader;
    FrameReader::Item item;
    const std::string bytes = frame(std::string(900, 'x')) + frame("PING", command);
    std::string_view rest = bytes;
    ASSERT_EQ(reader.next(rest, limit, item), Result::Message);
    EXPECT_EQ(item.body.data(), bytes.data() + 9);
    ASSERT_EQ(reader.next(rest, limit, item), Result::Command);
    EXPECT_EQ(item.body.data(), bytes.data() + 9 + 900 + 2);
    EXPECT_LT(reader.heldBytes(), 64U); // fits into the string itself
}

// -------------------------------------------------------------------------------------------------- limits

TEST(FrameReaderTest, aMessageMayHaveAllBytesOfTheLimitAndNotOneMore)
{
    const std::string most(limit, 'x');
    EXPECT_EQ(whatIsIn(frame(most)), std::vector<Found>{message(most)});
    EXPECT_EQ(whatIsIn(frame(most + 'x')), std::vector<Found>{tooLong});
    const std::string half(limit / 2, 'x');
    EXPECT_EQ(whatIsIn(WireFrames::message({half, half})), std::vector<Found>{message(most, 2)});
    EXPECT_EQ(whatIsIn(WireFrames::message({half, half, "x"})), std::vector<Found>{tooLong});
    EXPECT_EQ(whatIsIn(WireFrames::message({half, half, "x", ""})), std::vector<Found>{tooLong});
}

TEST(FrameReaderTest, theNextMessageBehindOneThatIsTooLongIsReadWhole)
{
    const std::string much(limit, 'x');
    EXPECT_EQ(whatIsIn(WireFrames::message({much, much, "y"}) + WireFrames::message({"a", "b"})),
              (std::vector<Found>{tooLong, message("ab", 2)}));
}

TEST(FrameReaderTest, ofAMessageThatIsTooLongNothingIsKept)
{
    constexpr std::size_t most = 1000000;
    Reading reading(most);
    const std::string piece(100000, 'x');
    reading.read(header(15 * piece.size(), 0));
    std::size_t peak = 0;
    for (int count = 0; count < 15; ++count)
    {
        reading.read(piece);
        peak = std::max(peak, reading.reader.heldBytes());
        EXPECT_TRUE(count < 10 || reading.reader.heldBytes() < 4096) << count;
    }
    EXPECT_LE(peak, 2 * most) << "as a std::string grows";
    EXPECT_EQ(reading.found, std::vector<Found>{tooLong});
}

TEST(FrameReaderTest, whatWasLongLeavesNoMemoryBehind)
{
    Reading reading(1000000);
    reading.read(frame(std::string(400000, 'x'), more));
    reading.read(frame(std::string(400000, 'x')));
    reading.read(frame("next", more));
    EXPECT_EQ(reading.found.size(), 1U);
    EXPECT_LT(reading.reader.heldBytes(), 4096U);
}

TEST(FrameReaderTest, aFrameThatIsAnnouncedToBeHugeIsEndlessAtOnce)
{
    EXPECT_EQ(whatIsIn(header(std::uint64_t{1} << 36, 0)), std::vector<Found>{endlessMessage});
    EXPECT_EQ(whatIsIn(header(std::uint64_t(-1), 0)), std::vector<Found>{endlessMessage});
    EXPECT_EQ(whatIsIn(header(std::uint64_t(-1), more)), std::vector<Found>{endlessMessage});
    EXPECT_EQ(whatIsIn(header(endless - 9, 0)), std::vector<Found>()) << "that is read to its end";
    EXPECT_EQ(whatIsIn(header(endless - 8, 0)), std::vector<Found>{endlessMessage});
}

TEST(FrameReaderTest, aMessageOfEverMoreFramesIsEndlessAtSomeTime)
{
    const std::string part = frame(std::string(255, 'x'), more);
    Reading reading;
    std::size_t written = 0;
    for (; !reading.isOver(); written += part.size())
        reading.read(part);
    EXPECT_EQ(reading.found, std::vector<Found>{endlessMessage});
    EXPECT_LE(written, endless + part.size());
}

TEST(FrameReaderTest, emptyFramesWithoutEndAreEndlessToo)
{
    const std::string part = frame("", more);
    Reading reading;
    std::size_t written = 0;
    for (; !reading.isOver(); written += part.size())
        reading.read(part);
    EXPECT_EQ(reading.found, std::vector<Found>{endlessMessage});
    EXPECT_LE(written, endless + part.size());
}

TEST(FrameReaderTest, threeHundredThousandEmptyFramesTakeNoMemory)
{
    constexpr std::size_t count = 300000;
    Reading reading(1024 * 1024);
    const std::string part = frame("", more);
    for (std::size_t number = 0; number < count; ++number)
        reading.read(part);
    EXPECT_LT(reading.reader.heldBytes(), 4096U);
    reading.read(frame("end"));
    EXPECT_EQ(reading.found, std::vector<Found>{message("end", count + 1, true)});
}

TEST(FrameReaderTest, aLimitOfAnyTimeHoldsForMessagesUnderWay)
{
    FrameReader reader;
    FrameReader::Item item;
    const std::string bytes = WireFrames::message({std::string(600, 'x'), std::string(600, 'x')});
    std::string_view first = std::string_view(bytes).substr(0, 700);
    std::string_view second = std::string_view(bytes).substr(700);
    EXPECT_EQ(reader.next(first, limit, item), Result::NeedsMore);
    EXPECT_EQ(reader.next(second, 2 * limit, item), Result::Message);
}

// ------------------------------------------------------------------------------------------------ commands

TEST(FrameReaderTest, aCommandMayHave2048BytesAndNotOneMore)
{
    const std::string most(2048, 'x');
    EXPECT_EQ(whatIsIn(frame(most, command)), std::vector<Found>{commandOf(most)});
    EXPECT_EQ(whatIsIn(header(2049, command)), std::vector<Found>{violation});
    EXPECT_EQ(whatIsIn(header(std::uint64_t(-1), command)), std::vector<Found>{violation});
}

TEST(FrameReaderTest, aCommandDoesNotCountForTheLimitOfTheMessageAroundIt)
{
    const std::string ping = frame(std::string(2000, 'p'), command);
    const std::string half(limit / 2, 'x');
    std::string bytes = frame(half, more);
    for (int count = 0; count < 100; ++count)
        bytes += ping;
    const std::vector<Found> found = whatIsIn(bytes + frame(half));
    ASSERT_EQ(found.size(), 101U);
    EXPECT_EQ(found.back(), message(half + half, 2));
}

TEST(FrameReaderTest, aCommandBetweenTwoFramesLeavesTheMessageAsItIs)
{
    for (const std::string& ping : {std::string("P"), std::string(1000, 'P')})
    {
        const std::string bytes = frame("first", more) + frame(ping, command) + frame("", more) +
                                  frame(ping, command) + frame("last");
        EXPECT_EQ(whatIsIn(bytes),
                  (std::vector<Found>{commandOf(ping), commandOf(ping), message("firstlast", 3)}));
        EXPECT_EQ(whatIsInPieces(bytes, 7),
                  (std::vector<Found>{commandOf(ping), commandOf(ping), message("firstlast", 3)}));
    }
}

TEST(FrameReaderTest, everyByteOfFlagsIsOneOfTheProtocolOrAViolation)
{
    for (unsigned flags = 0; flags < 256; ++flags)
    {
        const bool hasReserved = (flags & ~7U) != 0;
        const bool isCommand = (flags & command) != 0;
        const bool hasMore = (flags & more) != 0;
        const std::string sizeBytes = (flags & isLong) != 0 ? std::string("\0\0\0\0\0\0\0\1", 8) : "\1";
        const std::vector<Found> found =
            whatIsIn(std::string(1, static_cast<char>(flags)) + sizeBytes + "x" + frame("y"));
        if (hasReserved || (isCommand && hasMore))
            EXPECT_EQ(found, std::vector<Found>{violation}) << flags;
        else if (isCommand)
            EXPECT_EQ(found, (std::vector<Found>{commandOf("x"), message("y")})) << flags;
        else if (hasMore)
            EXPECT_EQ(found, std::vector<Found>{message("xy", 2)}) << flags;
        else
            EXPECT_EQ(found, (std::vector<Found>{message("x"), message("y")})) << flags;
    }
}
