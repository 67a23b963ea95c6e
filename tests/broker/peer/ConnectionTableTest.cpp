// Lines of the kernel's tables of connections, and lines that no kernel would write.

#include "broker/peer/ConnectionTable.h"

#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

#include "tests/support/TemporaryFolder.h"

namespace
{

using Knowledge = Owner::Knowledge;

sockaddr_in at(const char* address, uint16_t port)
{
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(port);
    EXPECT_EQ(inet_pton(AF_INET, address, &place.sin_addr), 1);
    return place;
}

const SocketPair pair{at("127.0.0.1", 40000), at("127.0.0.1", 5555)};

// Four bytes of an address as the kernel writes them: as a number in this machine's byte order.
std::string fourBytes(uint32_t bytes)
{
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08X", htonl(bytes));
    return text.data();
}

const std::string local = fourBytes(0x7F000001);
const std::string peer = local + ":9C40";
const std::string own = local + ":15B3";

std::string line(const std::string& from, const std::string& to, const std::string& state = "01",
                 const std::string& uid = "1000", const std::string& inode = "99")
{
    return "   3: " + from + " " + to + " " + state + " 00000000:00000000 00:00000000 00000000  " + uid +
           "        0 " + inode + " 1 0000000000000000 20 4 30 10 -1";
}

Owner read(const std::string& text)
{
    return ConnectionTable::read(text, pair);
}

class ConnectionTableTest : public testing::Test
{
protected:
    Owner askIn(const std::string& table, const std::string& name = "tcp") const
    {
        writeFile(folder / name, table);
        return ConnectionTable(folder / "").ask(pair);
    }

    TemporaryFolder folder;
    std::mt19937 random{1};
    const std::string head =
        "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";
};

} // namespace

TEST_F(ConnectionTableTest, theLineOfThePeersSocketTellsItsUserAndInode)
{
    const Owner owner = askIn(head + line(own, peer, "01", "7", "8") + "\n" + line(peer, own) + "\n");
    EXPECT_TRUE(owner.isKnown()) << owner.reason();
    EXPECT_EQ(owner.uid(), 1000U);
    EXPECT_EQ(owner.inode(), 99U);
    EXPECT_FALSE(owner.cgroup());
}

TEST_F(ConnectionTableTest, theOtherTableHasPeersWithSocketsForBothProtocols)
{
    const std::string mapped = fourBytes(0) + fourBytes(0) + fourBytes(0xFFFF);
    EXPECT_EQ(askIn(line(mapped + peer, mapped + own) + "\n", "tcp6").uid(), 1000U);
    EXPECT_FALSE(askIn(line("000000000000000000000000" + peer, mapped + own) + "\n", "tcp6").isKnown());
}

TEST_F(ConnectionTableTest, aTableWithoutTheConnectionHasNone)
{
    EXPECT_EQ(askIn(head).knowledge(), Knowledge::NoConnection);
}

TEST_F(ConnectionTableTest, withoutTablesThereIsNoWayToAsk)
{
    EXPECT_EQ(ConnectionTable(folder / "missing").ask(pair).knowledge(), Knowledge::NoMeans);
}

TEST_F(ConnectionTableTest, linesOfOtherConnectionsArePassedOver)
{
    EXPECT_EQ(read(line(local + ":9C41", own)).knowledge(), Knowledge::NotAsked);
    EXPECT_EQ(read(line(peer, local + ":15B4")).knowledge(), Knowledge::NotAsked);
    const std::string other = fourBytes(0x7F000002);
    EXPECT_EQ(read(line(other + ":9C40", own)).knowledge(), Knowledge::NotAsked);
    EXPECT_EQ(read(line(peer, other + ":15B3")).knowledge(), Knowledge::NotAsked);
    EXPECT_EQ(read(line(own, peer)).knowledge(), Knowledge::NotAsked);
}

TEST_F(ConnectionTableTest, aConnectionThatHasEndedIsNotRoots)
{
    for (const char* state : {"02", "03", "04", "05", "06", "07", "08", "0A", "0C", "1", "011", ""})
        EXPECT_FALSE(read(line(peer, own, state, "0", "5")).isKnown()) << state;
    EXPECT_EQ(read(line(peer, own, "06", "0", "0")).knowledge(), Knowledge::NotEstablished);
}

TEST_F(ConnectionTableTest, aSocketThatNoProcessHasIsNotRoots)
{
    EXPECT_EQ(read(line(peer, own, "01", "0", "0")).knowledge(), Knowledge::NoProcess);
}

TEST_F(ConnectionTableTest, numbersThatAreNoneAreNotBelieved)
{
    for (const char* bad : {"-1", "99999999999999999999", "1x", "x", "+1", "0x1"})
    {
        EXPECT_FALSE(read(line(peer, own, "01", bad)).isKnown()) << bad;
        EXPECT_FALSE(read(line(peer, own, "01", "1000", bad)).isKnown()) << bad;
    }
    EXPECT_FALSE(read(line(peer, own, "01", "4294967295")).isKnown());
    EXPECT_FALSE(read(line(peer, own, "01", "4294967296")).isKnown());
}

TEST_F(ConnectionTableTest, addressesThatAreNoneAreNotBelieved)
{
    const std::string digits = local.substr(1);
    for (const std::string& bad : std::vector<std::string>{
             "", ":", local, local + ":", ":9C40", peer + ":", local + ":19C40", digits + ":9C40",
             "0" + local + ":9C40", "-" + digits + ":9C40", "G" + digits + ":9C40", local + ":-1"})
        EXPECT_EQ(read(line(bad, own)).knowledge(), Knowledge::NotAsked) << bad;
}

TEST_F(ConnectionTableTest, aLineThatIsCutOffIsNotBelieved)
{
    const std::string whole = line(peer, own);
    const std::size_t inode = whole.find(" 99 ") + 1;
    for (std::size_t size = 0; size <= inode; ++size)
        EXPECT_FALSE(read(whole.substr(0, size)).isKnown()) << size;
}

TEST_F(ConnectionTableTest, aLineWithoutEndIsPassedOverAndNotHeld)
{
    const std::string endless(131072, 'x'); // ends exactly with a piece that is read
    EXPECT_EQ(askIn(endless + line(peer, own) + "\n" + line(peer, own, "01", "7") + "\n").uid(), 7U);
    EXPECT_EQ(askIn(endless + "\n" + line(peer, own) + "\n").uid(), 1000U);
    EXPECT_FALSE(askIn(endless).isKnown());
}

TEST_F(ConnectionTableTest, linesAreFoundWhereverThePiecesEndThatAreRead)
{
    for (std::size_t before = 16000; before < 16500; before += 7)
    {
        std::string filling;
        while (filling.size() < before)
            filling += std::string(std::min<std::size_t>(99, before - filling.size()), '.') + "\n";
        ASSERT_EQ(askIn(filling + line(peer, own) + "\n").uid(), 1000U) << before;
    }
}

TEST_F(ConnectionTableTest, aFolderInPlaceOfATableIsNone)
{
    std::filesystem::create_directory(folder / "tcp");
    EXPECT_FALSE(ConnectionTable(folder / "").ask(pair).isKnown());
}

TEST_F(ConnectionTableTest, damagedLinesAreHarmless)
{
    const std::string whole = line(peer, own);
    for (int i = 0; i != 50000; ++i)
    {
        std::string damaged = whole.substr(0, random() % whole.size());
        for (std::size_t flips = random() % 4; flips != 0 && !damaged.empty(); --flips)
            damaged[random() % damaged.size()] = static_cast<char>(random());
        const Owner owner = read(damaged);
        ASSERT_EQ(owner.uid().has_value(), owner.isKnown());
    }
}
