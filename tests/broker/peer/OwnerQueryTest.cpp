// The owners of the other ends of real connections, by both ways to ask the kernel.

#include "broker/peer/OwnerQuery.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include "tests/broker/peer/Ends.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

using Road = OwnerQuery::Road;
using Knowledge = Owner::Knowledge;

constexpr uid_t foreigner = 12345;

OwnerQuery::Sources sourcesFor(Road road)
{
    OwnerQuery::Sources sources;
    if (road != Road::SockDiag)
        sources.sockDiag = SockDiag(Descriptor());
    return sources;
}

class OwnerQueryTest : public testing::TestWithParam<Road>
{
protected:
    void SetUp() override
    {
        // May be skipped: the emulator has no sockets of type NETLINK_SOCK_DIAG. The test always runs
        // natively, and emulated tests still use the other way.
        if (isEmulated && GetParam() == Road::SockDiag)
            GTEST_SKIP() << "the emulator has no such sockets";
        ASSERT_EQ(query.road(), GetParam());
    }

    Owner ask() { return query.ask(ends.peerAddress, ends.address); }

    // Whatever the kernel answers, it means no user, and not root.
    void expectUnknown(Knowledge why)
    {
        const Owner owner = ask();
        EXPECT_EQ(owner.knowledge(), why) << owner.reason();
        EXPECT_FALSE(owner.uid());
    }

    // The kernel needs a moment to notice what the peer did.
    void expectSoonUnknown(Knowledge why)
    {
        EXPECT_TRUE(eventually([&] { return ask().knowledge() == why; })) << ask().reason();
        EXPECT_FALSE(ask().uid());
    }

    Ends ends;
    OwnerQuery query{sourcesFor(GetParam())};
};

// Runs it in a child process, and returns its exit code.
template <class Function>
int inChild(Function function)
{
    const pid_t child = fork();
    if (child == 0)
        _exit(function());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool write(const char* path, const std::string& text)
{
    const Descriptor file(open(path, O_WRONLY | O_CLOEXEC));
    return ::write(file.number(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// Becomes root in a user namespace, and an ordinary user outside.
bool enterUserNamespace()
{
    if (geteuid() == 0 && setresuid(foreigner, foreigner, foreigner) != 0)
        return false;
    const uid_t outside = geteuid();
    return prctl(PR_SET_DUMPABLE, 1) == 0 && unshare(CLONE_NEWUSER) == 0 &&
           write("/proc/self/uid_map", "0 " + std::to_string(outside) + " 1") && getuid() == 0;
}

// Only root may enter a new network namespace, and not in every container. Tests that need it are skipped
// then. They always run as root outside such containers.
bool mayNotEnterNetworkNamespace()
{
    return inChild([] { return unshare(CLONE_NEWNET) != 0 && errno == EPERM ? 1 : 0; }) == 1;
}

// Enters a network namespace with a loopback interface of its own.
bool enterNetworkNamespace()
{
    if (unshare(CLONE_NEWNET) != 0)
        return false;
    const Descriptor any(socket(AF_INET, SOCK_DGRAM, 0));
    ifreq request{};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    return ioctl(any.number(), SIOCSIFFLAGS, &request) == 0;
}

// Forbids sockets of this family, as a service's sandbox does.
bool forbidNetlink()
{
    std::array<sock_filter, 6> program{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// A folder that looks like /proc, with this machine's tables of connections.
class FakeProc : public TemporaryFolder
{
public:
    FakeProc(const std::string& map, uid_t overflow)
    {
        std::filesystem::create_directories(*this / "self");
        std::filesystem::create_directories(*this / "sys/kernel");
        std::filesystem::create_symlink("/proc/self/net", *this / "net");
        writeFile(*this / "self/uid_map", map);
        writeFile(*this / "sys/kernel/overflowuid", std::to_string(overflow) + "\n");
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Roads, OwnerQueryTest, testing::Values(Road::SockDiag, Road::ConnectionTable),
                         [](const auto& road)
                         { return road.param == Road::SockDiag ? "SockDiag" : "ConnectionTable"; });

TEST_P(OwnerQueryTest, aConnectedPeerIsTheUserAndTheSocketThatItIs)
{
    ends.connect();
    const Owner owner = ask();
    EXPECT_TRUE(owner.isKnown()) << owner.reason();
    EXPECT_EQ(owner.uid(), geteuid());
    EXPECT_EQ(owner.inode(), inodeOf(ends.peer));
}

TEST_P(OwnerQueryTest, aPeerWithASocketForBothProtocolsIsKnown)
{
    // May be skipped: a kernel without IPv6 has no such peers, so nothing is left untested.
    ends.peer = Descriptor(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!ends.peer.isOpen() && errno == EAFNOSUPPORT)
        GTEST_SKIP() << "no IPv6 here";
    sockaddr_in6 mapped{};
    mapped.sin6_family = AF_INET6;
    mapped.sin6_port = ends.address.sin_port;
    mapped.sin6_addr.s6_addr32[2] = htonl(0xffff);
    mapped.sin6_addr.s6_addr32[3] = ends.address.sin_addr.s_addr;
    ASSERT_EQ(connect(ends.peer.number(), reinterpret_cast<sockaddr*>(&mapped), sizeof(mapped)), 0);
    ends.accept();
    EXPECT_EQ(ask().uid(), geteuid()) << ask().reason();
    EXPECT_EQ(ask().inode(), inodeOf(ends.peer));
}

TEST_P(OwnerQueryTest, aPeerThatHasClosedWithBytesOnTheWayIsUnknown)
{
    ends.connect();
    const std::array<char, 65536> bytes{};
    while (send(ends.peer.number(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0)
        continue;
    ends.peer.close();
    expectUnknown(Knowledge::NotEstablished);
}

TEST_P(OwnerQueryTest, aPeerThatHasClosedIsUnknown)
{
    ends.connect();
    ends.peer.close();
    expectSoonUnknown(Knowledge::NotEstablished);
}

TEST_P(OwnerQueryTest, aPeerThatLingersAfterBothHaveClosedIsUnknown)
{
    ends.connect();
    ends.peer.close();
    ends.own.close();
    expectSoonUnknown(Knowledge::NotEstablished);
}

TEST_P(OwnerQueryTest, aPeerThatHasResetTheConnectionIsUnknown)
{
    ends.connect();
    ends.resetPeer();
    expectSoonUnknown(Knowledge::NoConnection);
}

TEST_P(OwnerQueryTest, aPeerThatHasEndedItsOutputIsUnknown)
{
    ends.connect();
    shutdown(ends.peer.number(), SHUT_WR);
    expectSoonUnknown(Knowledge::NotEstablished);
}

TEST_P(OwnerQueryTest, aPortThatIsUsedAgainIsItsNewSockets)
{
    ends.connect();
    const uint64_t before = ask().inode();
    ends.resetPeer();
    ends.own.close();
    ends.connect(ntohs(ends.peerAddress.sin_port));
    EXPECT_EQ(ask().inode(), inodeOf(ends.peer));
    EXPECT_NE(ask().inode(), before);
}

TEST_P(OwnerQueryTest, aConnectionThatDoesNotExistIsUnknown)
{
    ends.connect();
    ends.peerAddress.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    expectUnknown(Knowledge::NoConnection);
}

TEST_P(OwnerQueryTest, aSocketThatOnlyListensThereIsNotThePeer)
{
    EXPECT_FALSE(query.ask(ends.address, loopback(1)).isKnown());
}

TEST_P(OwnerQueryTest, theOtherEndIsNotMistakenForThePeer)
{
    ends.connect();
    EXPECT_EQ(query.ask(ends.address, ends.peerAddress).inode(), inodeOf(ends.own));
}

// May be skipped: the kernel lets only root become another user. The build server tests as root, so it always
// runs there. Elsewhere SockDiagTest and ConnectionTableTest read such answers of the kernel.
TEST_P(OwnerQueryTest, aPeerOfAnotherUserIsThatUsers)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    const ConnectedProcess other(ends, [] { return setresuid(foreigner, foreigner, foreigner) == 0; });
    ASSERT_TRUE(other.isConnected);
    EXPECT_EQ(ask().uid(), foreigner) << ask().reason();
}

TEST_P(OwnerQueryTest, aPeerThatIsRootInItsOwnUserNamespaceIsNotRoot)
{
    // May be skipped: where user namespaces are forbidden, as in containers, no peer can be root in a
    // namespace. The emulator has several threads, and such a process may not enter a user namespace.
    const int error = inChild([] { return enterUserNamespace() ? 0 : errno; });
    if (error == EPERM || error == ENOSPC || error == EINVAL)
        GTEST_SKIP() << "this machine allows no user namespaces";
    const ConnectedProcess other(ends, &enterUserNamespace);
    ASSERT_TRUE(other.isConnected) << strerror(error);
    EXPECT_EQ(ask().uid(), geteuid() == 0 ? foreigner : geteuid()) << ask().reason();
}

// Another user's process inherits the socket, and is then its only holder. May be skipped: only root can
// start such a process.
TEST_P(OwnerQueryTest, aSocketThatIsHandedOnStaysItsMakers)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become another user";
    ends.connect();
    const uint64_t inode = inodeOf(ends.peer);
    Accepting others;
    const ConnectedProcess heir(others, [] { return setresuid(foreigner, foreigner, foreigner) == 0; });
    ASSERT_TRUE(heir.isConnected) << "it is another user now";
    ends.peer.close();
    const Owner owner = ask();
    EXPECT_EQ(owner.uid(), geteuid()) << owner.reason();
    EXPECT_EQ(owner.inode(), inode);
}

TEST_P(OwnerQueryTest, aUserFromOutsideTheUserNamespaceIsUnknownButItsSocketIsKnown)
{
    const FakeProc proc("0 0 1\n", geteuid());
    OwnerQuery::Sources sources = sourcesFor(GetParam());
    sources.proc = proc / "";
    OwnerQuery sandboxed(std::move(sources));
    ASSERT_EQ(sandboxed.road(), GetParam());
    EXPECT_FALSE(sandboxed.seesAllUsers());
    ends.connect();
    const Owner owner = sandboxed.ask(ends.peerAddress, ends.address);
    EXPECT_EQ(owner.knowledge(), Knowledge::OutsideUserNamespace);
    EXPECT_STREQ(owner.reason(), "outside the user namespace");
    EXPECT_FALSE(owner.uid());
    EXPECT_EQ(owner.inode(), inodeOf(ends.peer));
}

TEST_P(OwnerQueryTest, inTheFirstUserNamespaceNobodyIsAUserLikeOthers)
{
    const FakeProc proc("         0          0 4294967295\n", geteuid());
    OwnerQuery::Sources sources = sourcesFor(GetParam());
    sources.proc = proc / "";
    OwnerQuery whole(std::move(sources));
    EXPECT_TRUE(whole.seesAllUsers());
    ends.connect();
    EXPECT_EQ(whole.ask(ends.peerAddress, ends.address).uid(), geteuid());
}

// May be skipped: the emulator has no such sockets. OwnerQueryTest uses the other way there.
TEST(OwnerQueryRoadsTest, asksTheKernelDirectlyWhereItMay)
{
    if (isEmulated)
        GTEST_SKIP() << "the emulator has no such sockets";
    EXPECT_EQ(OwnerQuery().road(), Road::SockDiag);
}

// May be skipped: the filter would apply to the emulator's system calls, with the numbers of another
// processor.
TEST(OwnerQueryRoadsTest, aSandboxWithoutNetlinkIsNoticed)
{
    if (isEmulated)
        GTEST_SKIP() << "the filter would be the emulator's";
    EXPECT_EQ(inChild(
                  []
                  {
                      if (!forbidNetlink())
                          return 1;
                      return OwnerQuery().road() == Road::ConnectionTable ? 0 : 2;
                  }),
              0);
}

// Like a kernel without the module tcp_diag: the socket can be opened, but no connection is ever found. May
// be skipped: the emulator has no such sockets, and only root may enter a network namespace. The build server
// tests as root, natively.
TEST(OwnerQueryRoadsTest, aKernelThatFindsNoConnectionAtAllIsNotAsked)
{
    if (isEmulated)
        GTEST_SKIP() << "the emulator has no such sockets";
    if (mayNotEnterNetworkNamespace())
        GTEST_SKIP() << "this process may not enter a network namespace";
    EXPECT_EQ(inChild(
                  []
                  {
                      OwnerQuery::Sources sources; // with a socket of this network namespace
                      if (!sources.sockDiag.isOpen() || !enterNetworkNamespace())
                          return 1;
                      return OwnerQuery(std::move(sources)).road() == Road::ConnectionTable ? 0 : 2;
                  }),
              0);
}

// Only for the way that depends on the namespace: the tables are always those of the process's namespace. May
// be skipped, as the test above.
TEST(OwnerQueryRoadsTest, aConnectionOfAnotherNetworkNamespaceIsUnknown)
{
    if (isEmulated)
        GTEST_SKIP() << "the emulator has no such sockets";
    if (mayNotEnterNetworkNamespace())
        GTEST_SKIP() << "this process may not enter a network namespace";
    OwnerQuery here;
    ASSERT_EQ(here.road(), Road::SockDiag);
    EXPECT_EQ(inChild(
                  [&here]
                  {
                      if (!enterNetworkNamespace())
                          return 1;
                      Ends ends;
                      ends.connect();
                      const Owner owner = here.ask(ends.peerAddress, ends.address);
                      return owner.knowledge() == Knowledge::NoConnection ? 0 : 2;
                  }),
              0);
}

TEST(OwnerQueryRoadsTest, withoutAnyRoadEveryOwnerIsUnknown)
{
    const TemporaryFolder empty;
    OwnerQuery query(OwnerQuery::Sources{empty / "", SockDiag(Descriptor())});
    EXPECT_EQ(query.road(), Road::None);
    EXPECT_STREQ(OwnerQuery::name(query.road()), "none");
    Ends ends;
    ends.connect();
    const Owner owner = query.ask(ends.peerAddress, ends.address);
    EXPECT_EQ(owner.knowledge(), Knowledge::NoMeans);
    EXPECT_FALSE(owner.uid());
}
