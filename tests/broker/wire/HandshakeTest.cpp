#include "broker/wire/Handshake.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace
{

using namespace std::string_literals;

using Kind = Handshake::Kind;
using Result = Handshake::Result;

const std::string signature = "\xff\0\0\0\0\0\0\0\0\x7f"s;
const std::string nullMechanism = "NULL"s + std::string(16, '\0');
const std::string padding(32, '\0');

// As version 3.1 defines it.
std::string greeting()
{
    return signature + "\3\1" + nullMechanism + padding;
}

std::string property(const std::string& name, const std::string& value)
{
    return static_cast<char>(name.size()) + name + std::string(3, '\0') + static_cast<char>(value.size()) +
           value;
}

std::string ready(const std::string& properties)
{
    return "\5READY" + properties;
}

bool accepts(Kind kind, const std::string& command)
{
    return Handshake(kind).acceptsReady(command);
}

bool acceptsType(Kind kind, const std::string& type)
{
    return accepts(kind, ready(property("Socket-Type", type)));
}

// The handshake takes the bytes in one piece, and leaves bytes after its end.
Result resultOf(const std::string& bytes)
{
    Handshake handshake(Kind::Post);
    std::string_view rest = bytes;
    const Result result = handshake.takeGreeting(rest);
    EXPECT_TRUE(result != Result::NeedsMore || rest.empty());
    return result;
}

// The number of bytes taken, one by one, before the greeting is refused; 0 if it is accepted.
std::size_t refusedAt(const std::string& bytes)
{
    Handshake handshake(Kind::Post);
    for (std::size_t at = 0; at < bytes.size(); ++at)
    {
        std::string_view byte(bytes.data() + at, 1);
        if (handshake.takeGreeting(byte) == Result::Refused)
            return at + 1;
    }
    return 0;
}

} // namespace

TEST(HandshakeTest, whatIsSentIsTheGreetingAndReadyToTheByte)
{
    const std::string head =
        "\xff\0\0\0\0\0\0\0\0\x7f\3\1NULL"s + std::string(16, '\0') + "\0"s + std::string(31, '\0');
    ASSERT_EQ(head.size(), 64U);
    EXPECT_EQ(Handshake::opening(Kind::Post), head + "\4\x19\5READY\x0bSocket-Type\0\0\0\3SUB"s);
    EXPECT_EQ(Handshake::opening(Kind::Notify), head + "\4\x1a\5READY\x0bSocket-Type\0\0\0\4XPUB"s);
    EXPECT_EQ(Handshake::opening(Kind::Request), head + "\4\x1c\5READY\x0bSocket-Type\0\0\0\6ROUTER"s);
}

// ------------------------------------------------------------------------------------------------ greeting

TEST(HandshakeTest, aGreetingIsTakenAndWhatFollowsIsLeft)
{
    Handshake handshake(Kind::Post);
    const std::string bytes = greeting() + "rest";
    std::string_view rest = bytes;
    EXPECT_EQ(handshake.takeGreeting(rest), Result::Greeted);
    EXPECT_EQ(rest, "rest");
}

TEST(HandshakeTest, aGreetingIsTakenInPiecesOfAnySize)
{
    for (std::size_t size = 1; size <= 64; ++size)
    {
        Handshake handshake(Kind::Post);
        const std::string bytes = greeting();
        for (std::size_t at = 0; at < bytes.size(); at += size)
        {
            std::string_view piece = std::string_view(bytes).substr(at, size);
            const bool isLast = at + size >= bytes.size();
            ASSERT_EQ(handshake.takeGreeting(piece), isLast ? Result::Greeted : Result::NeedsMore) << at;
            ASSERT_TRUE(piece.empty());
        }
    }
}

TEST(HandshakeTest, everyMinorAndLaterMajorVersionIsGreetedAndPingIsKnownFrom31On)
{
    for (const auto& [version, knowsPing] : std::vector<std::pair<std::string, bool>>{
             {"\3\0"s, false}, {"\3\1"s, true}, {"\3\2"s, true}, {"\4\1"s, true}})
    {
        const std::string bytes = signature + version + nullMechanism + padding;
        Handshake handshake(Kind::Post);
        std::string_view rest = bytes;
        EXPECT_EQ(handshake.takeGreeting(rest), Result::Greeted);
        EXPECT_EQ(handshake.knowsPing(), knowsPing);
    }
}

TEST(HandshakeTest, whatThePeerPutsIntoThePaddingIsNothing)
{
    EXPECT_EQ(resultOf("\xff"
                       "any text\x7f\3\1"s +
                       nullMechanism + std::string(32, '\x55')),
              Result::Greeted);
}

TEST(HandshakeTest, otherProtocolsAreRefusedAtTheirFirstByte)
{
    EXPECT_EQ(refusedAt("GET / HTTP/1.1\r\nHost: localhost:5556\r\n\r\n"), 1U);
    EXPECT_EQ(refusedAt("POST / HTTP/1.1\r\nContent-Length: 100\r\n\r\n"), 1U);
    EXPECT_EQ(refusedAt("\x16\3\1\2\0\1\0"s), 1U);
    EXPECT_EQ(refusedAt("\n"), 1U);
    EXPECT_EQ(refusedAt(std::string(64, '\0')), 1U);
}

TEST(HandshakeTest, version1IsRefusedAtItsFirstByte)
{
    EXPECT_EQ(refusedAt("\1\0"s), 1U) << "an anonymous peer, a length of one byte";
    EXPECT_EQ(refusedAt("\5\0post"s), 1U);
}

TEST(HandshakeTest, version1WithLongLengthsIsRefusedBeforeItsContent)
{
    // An identity of one byte, with a length of eight bytes: it looks like the first nine bytes of a
    // signature.
    EXPECT_EQ(refusedAt("\xff\0\0\0\0\0\0\0\1\0"s), 10U);
}

TEST(HandshakeTest, version2IsRefusedAtItsVersion)
{
    EXPECT_EQ(refusedAt(signature + "\1\1"s), 11U);
    EXPECT_EQ(refusedAt(signature + "\2\1"s), 11U);
    EXPECT_EQ(refusedAt(signature + "\0\1"s), 11U);
}

TEST(HandshakeTest, otherMechanismsAreRefused)
{
    for (const std::string mechanism : {"PLAIN", "CURVE", "GSSAPI", "NULLX", "null", "NUL", ""})
    {
        std::string field = mechanism;
        field.resize(20, '\0');
        EXPECT_EQ(resultOf(signature + "\3\1" + field + padding), Result::Refused) << mechanism;
    }
}

TEST(HandshakeTest, aGreetingIsRefusedInOnePieceAsByteByByte)
{
    const std::string good = greeting();
    for (std::size_t at = 0; at < good.size(); ++at)
    {
        std::string bytes = good;
        bytes[at] = static_cast<char>(bytes[at] ^ 0x5a);
        EXPECT_EQ(resultOf(bytes) == Result::Refused, refusedAt(bytes) != 0) << at;
        const std::size_t refused = refusedAt(bytes);
        EXPECT_TRUE(refused == 0 || refused == at + 1) << at << ": at the byte that shows it";
    }
}

// --------------------------------------------------------------------------------------------------- READY

TEST(HandshakeTest, aReadyWithATypeThatFitsIsAccepted)
{
    EXPECT_TRUE(acceptsType(Kind::Post, "PUB"));
    EXPECT_TRUE(acceptsType(Kind::Post, "XPUB"));
    EXPECT_TRUE(acceptsType(Kind::Request, "REQ"));
    EXPECT_TRUE(acceptsType(Kind::Request, "DEALER"));
    EXPECT_TRUE(acceptsType(Kind::Notify, "SUB"));
    EXPECT_TRUE(acceptsType(Kind::Notify, "XSUB"));
}

TEST(HandshakeTest, aReadyWithAnyOtherTypeIsRefused)
{
    const std::vector<std::string> types{"PAIR", "PUB",  "SUB",  "REQ",    "REP", "DEALER", "ROUTER", "PULL",
                                         "PUSH", "XPUB", "XSUB", "STREAM", "",    "pub",    "PUBX",   "PU"};
    const std::vector<std::pair<Kind, std::string>> fitting{
        {Kind::Post, " PUB XPUB "}, {Kind::Request, " REQ DEALER "}, {Kind::Notify, " SUB XSUB "}};
    for (const auto& [kind, good] : fitting)
    {
        for (const std::string& type : types)
            EXPECT_EQ(acceptsType(kind, type), good.find(" " + type + " ") != std::string::npos) << type;
    }
}

TEST(HandshakeTest, aReadyAsLibzmqSendsItIsAccepted)
{
    EXPECT_TRUE(accepts(Kind::Post, "\5READY\x0bSocket-Type\0\0\0\3PUB"s));
    EXPECT_TRUE(accepts(Kind::Notify, "\5READY\x0bSocket-Type\0\0\0\3SUB"s));
    EXPECT_TRUE(accepts(Kind::Request, "\5READY\x0bSocket-Type\0\0\0\3REQ\x08Identity\0\0\0\0"s));
}

TEST(HandshakeTest, otherPropertiesAreNothingAndNamesHaveNoCase)
{
    EXPECT_TRUE(
        accepts(Kind::Post, ready(property("Resource", "x") + property("socket-TYPE", "PUB") +
                                  property("X-Mine", std::string(100, 'y')) + property("Empty", ""))));
}

TEST(HandshakeTest, aReadyWithoutATypeIsRefused)
{
    EXPECT_FALSE(accepts(Kind::Post, ready("")));
    EXPECT_FALSE(accepts(Kind::Post, ready(property("Identity", "PUB"))));
    EXPECT_FALSE(accepts(Kind::Post, ready(property("Socket-Typ", "PUB"))));
}

TEST(HandshakeTest, otherCommandsAreRefused)
{
    for (const std::string command : {"", "\5", "READY", "\5READ", "\5ERROR", "\4PING", "\5ready"})
        EXPECT_FALSE(accepts(Kind::Post, command + property("Socket-Type", "PUB"))) << command;
}

TEST(HandshakeTest, aReadyThatIsCutOffAnywhereIsRefused)
{
    const std::string whole = ready(property("Socket-Type", "PUB") + property("Identity", "me"));
    const std::size_t first = ready(property("Socket-Type", "PUB")).size();
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_EQ(accepts(Kind::Post, whole.substr(0, size)), size == first) << size;
}

TEST(HandshakeTest, aPropertyThatIsAnnouncedToBeHugeIsRefused)
{
    EXPECT_FALSE(accepts(Kind::Post, "\5READY\x0bSocket-Type\xff\xff\xff\xffPUB"s));
    EXPECT_FALSE(accepts(Kind::Post, "\5READY\xffSocket-Type\0\0\0\3PUB"s));
}
