// Reads the kernel's answers, and bytes that no kernel would send.

#include "broker/peer/SockDiag.h"

#include <cstring>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <memory>
#include <random>
#include <string>

#include "tests/broker/peer/Ends.h"

namespace
{

using Knowledge = Owner::Knowledge;

constexpr uint32_t number = 7;
const SocketPair pair{loopback(40000), loopback(50000)};

struct Answer
{
    Answer()
    {
        header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
        header.nlmsg_seq = number;
        body.idiag_family = AF_INET;
        body.idiag_state = 1;
        body.id.idiag_sport = pair.peer.sin_port;
        body.id.idiag_dport = pair.own.sin_port;
        body.id.idiag_src[0] = pair.peer.sin_addr.s_addr;
        body.id.idiag_dst[0] = pair.own.sin_addr.s_addr;
        body.idiag_uid = 1000;
        body.idiag_inode = 99;
    }

    void map()
    {
        body.idiag_family = AF_INET6;
        for (__be32* address : {body.id.idiag_src, body.id.idiag_dst})
        {
            address[3] = address[0];
            address[2] = htonl(0xffff);
            address[0] = 0;
        }
    }

    void addAttribute(uint16_t type, const std::string& content)
    {
        const nlattr head{static_cast<uint16_t>(sizeof(nlattr) + content.size()), type};
        attributes.append(reinterpret_cast<const char*>(&head), sizeof(head)).append(content);
        attributes.resize((attributes.size() + 3) / 4 * 4);
    }

    void addCgroup(uint64_t id, std::size_t size = sizeof(uint64_t))
    {
        addAttribute(21, std::string(reinterpret_cast<const char*>(&id), size));
    }

    std::string bytes() const
    {
        nlmsghdr complete = header;
        complete.nlmsg_len += static_cast<uint32_t>(sizeof(header) + sizeof(body) + attributes.size());
        std::string all(reinterpret_cast<const char*>(&complete), sizeof(complete));
        all.append(reinterpret_cast<const char*>(&body), sizeof(body)).append(attributes);
        return all;
    }

    nlmsghdr header{}; ///< nlmsg_len is added to the right length
    inet_diag_msg body{};
    std::string attributes;
};

// Reads from memory of exactly this size, at an odd address, so that a sanitizer notices reads beyond it.
Owner read(const std::string& bytes)
{
    const std::unique_ptr<char[]> place(new char[bytes.size() + 1]);
    memcpy(place.get() + 1, bytes.data(), bytes.size());
    return SockDiag::read(place.get() + 1, bytes.size(), number, pair);
}

Knowledge knowledgeOf(const Answer& answer)
{
    const Owner owner = read(answer.bytes());
    EXPECT_EQ(owner.uid().has_value(), owner.isKnown());
    return owner.knowledge();
}

class SockDiagTest : public testing::Test
{
protected:
    Answer answer;
    std::mt19937 random{1};
};

} // namespace

TEST_F(SockDiagTest, anAnswerTellsUserSocketAndControlGroup)
{
    answer.addAttribute(8, "x");
    answer.addCgroup(0x1234567890);
    const Owner owner = read(answer.bytes());
    EXPECT_TRUE(owner.isKnown());
    EXPECT_EQ(owner.uid(), 1000U);
    EXPECT_EQ(owner.inode(), 99U);
    EXPECT_EQ(owner.cgroup(), 0x1234567890U);
}

TEST_F(SockDiagTest, withoutAControlGroupTheUserIsKnownAllTheSame)
{
    answer.addAttribute(8, "x");
    EXPECT_EQ(read(answer.bytes()).uid(), 1000U);
    EXPECT_FALSE(read(answer.bytes()).cgroup());
}

TEST_F(SockDiagTest, addressesInTheLongFormAreTheSame)
{
    answer.map();
    EXPECT_EQ(knowledgeOf(answer), Knowledge::Known);
    answer.body.id.idiag_src[2] = 0;
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, anAnswerToAnotherQuestionIsNoAnswer)
{
    answer.header.nlmsg_seq = number + 1;
    EXPECT_EQ(knowledgeOf(answer), Knowledge::NotAsked);
}

TEST_F(SockDiagTest, anotherPortOfThePeerIsNotBelieved)
{
    ++answer.body.id.idiag_sport;
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, anotherPortOfOursIsNotBelieved)
{
    answer.body.id.idiag_dport = 0; // like a listening socket
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, anotherAddressOfThePeerIsNotBelieved)
{
    ++answer.body.id.idiag_src[0];
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, anotherAddressOfOursIsNotBelieved)
{
    ++answer.body.id.idiag_dst[0];
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, anotherFamilyIsNotBelieved)
{
    answer.body.idiag_family = AF_UNIX;
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, anotherTypeIsNotBelieved)
{
    answer.header.nlmsg_type = NLMSG_DONE;
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, noOtherStateThanEstablishedIsBelieved)
{
    for (int state = 0; state != 256; ++state)
    {
        answer.body.idiag_state = static_cast<uint8_t>(state);
        EXPECT_EQ(knowledgeOf(answer), state == 1 ? Knowledge::Known : Knowledge::NotEstablished) << state;
    }
}

TEST_F(SockDiagTest, aSocketThatNoProcessHasIsNotRoots)
{
    answer.body.idiag_inode = 0;
    answer.body.idiag_uid = 0;
    EXPECT_EQ(knowledgeOf(answer), Knowledge::NoProcess);
}

TEST_F(SockDiagTest, theNumberOfNobodyIsNotAUser)
{
    answer.body.idiag_uid = UINT32_MAX;
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, aLengthBeyondTheDatagramIsNotBelieved)
{
    answer.header.nlmsg_len = 4;
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, aLengthShorterThanItsOwnHeaderIsNotBelieved)
{
    answer.header.nlmsg_len = static_cast<uint32_t>(0 - sizeof(nlmsghdr) - sizeof(inet_diag_msg) + 3);
    EXPECT_EQ(knowledgeOf(answer), Knowledge::WrongAnswer);
}

TEST_F(SockDiagTest, anAnswerThatIsCutOffIsNotBelieved)
{
    const std::string whole = answer.bytes();
    for (std::size_t size = 0; size != whole.size(); ++size)
        EXPECT_FALSE(read(whole.substr(0, size)).isKnown()) << size;
}

TEST_F(SockDiagTest, anAttributeThatIsCutOffIsLeftOut)
{
    answer.addCgroup(5);
    const std::string whole = answer.bytes();
    for (std::size_t lost = 1; lost <= answer.attributes.size(); ++lost)
    {
        answer.header.nlmsg_len = static_cast<uint32_t>(-lost);
        const Owner owner = read(answer.bytes().substr(0, whole.size() - lost));
        EXPECT_TRUE(owner.isKnown()) << lost;
        EXPECT_FALSE(owner.cgroup()) << lost;
    }
}

TEST_F(SockDiagTest, anAttributeWithoutLengthEndsTheSearch)
{
    answer.attributes = std::string(4, '\0');
    answer.addCgroup(5);
    EXPECT_FALSE(read(answer.bytes()).cgroup());
}

TEST_F(SockDiagTest, aControlGroupOfAnotherSizeIsLeftOut)
{
    answer.addCgroup(5, 4);
    answer.addAttribute(8, "beside it");
    EXPECT_FALSE(read(answer.bytes()).cgroup());
}

TEST_F(SockDiagTest, noSuchConnectionIsToldFromOtherRefusals)
{
    const auto refused = [](int error)
    {
        nlmsghdr header{};
        header.nlmsg_type = NLMSG_ERROR;
        header.nlmsg_seq = number;
        header.nlmsg_len = sizeof(header) + sizeof(nlmsgerr);
        nlmsgerr body{};
        body.error = error;
        std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
        bytes.append(reinterpret_cast<const char*>(&body), sizeof(body));
        return read(bytes).knowledge();
    };
    EXPECT_EQ(refused(-ENOENT), Knowledge::NoConnection);
    EXPECT_EQ(refused(-ENOMEM), Knowledge::NoAnswer);
    EXPECT_EQ(refused(0), Knowledge::NoAnswer);
}

TEST_F(SockDiagTest, damagedAnswersAreHarmless)
{
    answer.addAttribute(8, "x");
    answer.addCgroup(5);
    const std::string whole = answer.bytes();
    for (int i = 0; i != 100000; ++i)
    {
        std::string damaged = whole.substr(0, random() % 8 == 0 ? random() % whole.size() : whole.size());
        for (std::size_t flips = random() % 4 + 1; flips != 0 && !damaged.empty(); --flips)
            damaged[random() % damaged.size()] = static_cast<char>(random());
        const Owner owner = read(damaged);
        ASSERT_EQ(owner.uid().has_value(), owner.isKnown());
        ASSERT_TRUE(!owner.isKnown() || owner.inode() != 0);
    }
}

// May be skipped: the emulator has no sockets of type NETLINK_SOCK_DIAG. The test always runs natively.
TEST_F(SockDiagTest, answersToEarlierQuestionsArePassedOver)
{
    if (isEmulated)
        GTEST_SKIP() << "the emulator has no such sockets";
    Descriptor socket(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    ASSERT_TRUE(socket.isOpen());
    struct
    {
        nlmsghdr header;
        inet_diag_req_v2 body;
    } request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.header.nlmsg_seq = 1000;
    request.body.sdiag_family = AF_INET;
    request.body.sdiag_protocol = IPPROTO_TCP;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    for (int i = 0; i != 3; ++i)
        ASSERT_EQ(sendto(socket.number(), &request, sizeof(request), 0, reinterpret_cast<sockaddr*>(&kernel),
                         sizeof(kernel)),
                  static_cast<ssize_t>(sizeof(request)));
    SockDiag query(std::move(socket));
    Ends ends;
    ends.connect();
    EXPECT_EQ(query.ask({ends.peerAddress, ends.address}).inode(), inodeOf(ends.peer));
}
