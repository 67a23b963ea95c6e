// ping, stats and doctor, with a real broker.

#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "statusctl/text/Json.h"
#include "tests/statusctl/Tool.h"
#include "tests/support/BrokerProcess.h"

namespace
{

class HealthTest : public testing::Test
{
protected:
    BrokerProcess mBroker;
};

Json::Value objectIn(const Outcome& outcome)
{
    return JsonText::readObject(outcome.output).value_or(Json::Value(Json::objectValue));
}

/// A foreign program on one of the broker's ports.
class Squatter
{
public:
    explicit Squatter(uint16_t port)
    {
        const int yes = 1;
        setsockopt(mDescriptor, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(mDescriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(mDescriptor, 5) != 0)
            throw std::runtime_error("the port is taken");
    }
    ~Squatter()
    {
        close(mDescriptor);
        for (const int descriptor : mWaiting)
            close(descriptor);
    }

    /// Connects until the kernel accepts no more connections.
    void fill()
    {
        sockaddr_in address{};
        socklen_t size = sizeof(address);
        getsockname(mDescriptor, reinterpret_cast<sockaddr*>(&address), &size);
        bool isTaken = true;
        while (isTaken)
        {
            mWaiting.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            connect(mWaiting.back(), reinterpret_cast<sockaddr*>(&address), sizeof(address));
            constexpr int patience = 200;
            pollfd item{mWaiting.back(), POLLOUT, 0};
            isTaken = poll(&item, 1, patience) == 1;
        }
    }

    /// Answers the first connection.
    void answerOnce(const std::string& text) const
    {
        const int peer = accept(mDescriptor, nullptr, nullptr);
        send(peer, text.data(), text.size(), MSG_NOSIGNAL);
        std::array<char, 64> greeting{};
        recv(peer, greeting.data(), greeting.size(), MSG_WAITALL); // closing must not discard the answer
        close(peer);
    }

    Squatter(const Squatter&) = delete;
    Squatter& operator=(const Squatter&) = delete;

private:
    int mDescriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::vector<int> mWaiting;
};

} // namespace

TEST_F(HealthTest, pingPrintsRoundTrips)
{
    const Outcome outcome = statusctl({"ping", "-n", "3"});
    EXPECT_EQ(outcome.code, 0) << outcome;
    EXPECT_EQ(outcome.output.find("3 round trips, min/median/max "), 0U) << outcome;
}

TEST_F(HealthTest, pingTellsOrderedNumbersInJson)
{
    const Json::Value object = objectIn(statusctl({"ping", "-j"}));
    EXPECT_EQ(object["count"], 10);
    EXPECT_GT(object["minMicroseconds"].asInt64(), 0);
    EXPECT_LE(object["minMicroseconds"].asInt64(), object["medianMicroseconds"].asInt64());
    EXPECT_LE(object["medianMicroseconds"].asInt64(), object["maxMicroseconds"].asInt64());
}

TEST_F(HealthTest, statsPrintATable)
{
    statusctl({"set", "a", "1", "b", "2"});
    const Outcome outcome = statusctl({"stats"});
    EXPECT_EQ(outcome.code, 0) << outcome;
    EXPECT_NE(outcome.output.find("\nstored.keys"), std::string::npos) << outcome;
}

TEST_F(HealthTest, statsAreNumbersInJson)
{
    statusctl({"set", "a", "1", "b", "2"});
    EXPECT_EQ(objectIn(statusctl({"stats", "--json"}))["stored.keys"], 2);
}

TEST_F(HealthTest, statsTakeTheLongestTimeOut)
{
    EXPECT_EQ(statusctl({"-t", "1000h", "stats"}).code, 0);
}

TEST_F(HealthTest, statsSpeakOpenMetrics)
{
    const std::string text = statusctl({"stats", "--openmetrics"}).output;
    EXPECT_NE(text.find("\n# TYPE statusbroker_build info\n"), std::string::npos);
    EXPECT_EQ(text.substr(text.size() - 6), "# EOF\n");
}

TEST_F(HealthTest, doctorFindsNothingWrongWithAHealthyBroker)
{
    const Outcome outcome = statusctl({"doctor"});
    EXPECT_NE(outcome.output.find("all is well\n"), std::string::npos) << outcome;
    EXPECT_EQ(outcome.code, 0);
}

TEST_F(HealthTest, doctorTellsWhatWasRefusedAndWhatToDo)
{
    statusctl({"set", std::string(300, 'k'), "x"});
    const Outcome outcome = statusctl({"doctor"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_NE(outcome.output.find("problem: the limit \"keyBytes\" was exceeded"), std::string::npos)
        << outcome;
    EXPECT_NE(outcome.output.find("     do: "), std::string::npos) << outcome;
    EXPECT_EQ(objectIn(statusctl({"doctor", "-j"}))["findings"][0]["check"], "limit");
}

TEST(DoctorTest, tellsOfAStateFileThatCannotBeUsed)
{
    BrokerProcess broker({"--state", "/nowhere/state"});
    const Outcome outcome = statusctl({"doctor"});
    EXPECT_EQ(outcome.code, 1) << outcome;
    EXPECT_NE(outcome.output.find("failures to open or write the state file"), std::string::npos) << outcome;
    EXPECT_TRUE(broker.process().waitForError("State file [/nowhere/state]: "))
        << "where the remedy points to";
}

TEST(DoctorTest, namesTheProgramOnAPort)
{
    const Squatter squatter(5556);
    const Outcome outcome = statusctl({"-t", "200ms", "doctor"});
    EXPECT_EQ(outcome.code, 4);
    std::string name; // emulated, it is the name of the emulator
    std::ifstream comm("/proc/self/comm");
    std::getline(comm, name);
    EXPECT_NE(outcome.output.find(name + " (process " + std::to_string(getpid()) + ") on port 5556 (posts)"),
              std::string::npos)
        << outcome;
    EXPECT_NE(outcome.output.find("nothing listens on port 5555"), std::string::npos) << outcome;
}

TEST_F(HealthTest, doctorTellsThatTheBrokerIsStoppedAndWhatToDo)
{
    // May be skipped: the doctor finds a stopped broker by its name. The test always runs natively.
    if (isEmulated)
        GTEST_SKIP() << "the kernel knows only the emulator's name";
    mBroker.process().suspend();
    const Outcome outcome = statusctl({"-t", "300ms", "doctor"});
    EXPECT_EQ(outcome.code, 4);
    EXPECT_NE(outcome.output.find(" is stopped, and does not answer on port 5555 (requests), port 5556"),
              std::string::npos)
        << outcome;
    EXPECT_NE(outcome.output.find("\"kill -CONT " + std::to_string(mBroker.process().pid()) + "\""),
              std::string::npos)
        << outcome;
    EXPECT_EQ(objectIn(statusctl({"-j", "-t", "300ms", "doctor"}))["findings"][0]["check"], "hung");
    mBroker.process().signal(SIGCONT);
}

TEST(DoctorTest, tellsThatAnotherProgramAnswers)
{
    Squatter squatter(5556);
    std::thread answering([&] { squatter.answerOnce("HTTP/1.1 400 Bad Request\r\n"); });
    const Outcome outcome = statusctl({"doctor"});
    answering.join();
    EXPECT_NE(outcome.output.find(" on port 5556 (posts) answers, but is not a broker"), std::string::npos)
        << outcome;
}

// Like the port of a stopped broker that clients keep trying.
TEST(DoctorTest, aPortThatTakesNoConnectionAnyMoreIsATimeOut)
{
    Squatter requests(5555);
    const Squatter posts(5556);
    const Squatter notifications(5557);
    requests.fill();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(statusctl({"-t", "200ms", "get", "a"}).code, 124);
    EXPECT_EQ(statusctl({"-t", "200ms", "doctor"}).code, 4);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, allowed(std::chrono::seconds(10)));
}
