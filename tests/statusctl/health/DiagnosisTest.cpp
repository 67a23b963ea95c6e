#include "statusctl/health/Diagnosis.h"

#include <gtest/gtest.h>

namespace
{

using BrokerProtocol::Statistics;
using Diagnosis::Answer;
using Diagnosis::Findings;

const Listeners::Listener broker{pid_t{100}, "statusbroker"};

std::vector<Answer> healthyPorts()
{
    return {{Ports::all[0], {broker}, "ROUTER"},
            {Ports::all[1], {broker}, "SUB"},
            {Ports::all[2], {broker}, "XPUB"}};
}

Statistics healthy()
{
    return {{"version.major", 1},
            {"version.minor", 0},
            {"version.patch", 0},
            {"descriptors.open", 26},
            {"descriptors.limit", 1000},
            {"posts", 12345},
            {"notifications.missedEvents", 0},
            {"limit.keys", 0}};
}

// The words of the checks with findings, in order.
std::string checksOf(const Findings& findings)
{
    std::string checks;
    for (const Diagnosis::Finding& finding : findings)
    {
        EXPECT_FALSE(finding.problem.empty());
        EXPECT_FALSE(finding.remedy.empty());
        checks += finding.check + " ";
    }
    return checks;
}

std::string checksWith(const std::string& number, uint64_t value)
{
    Statistics numbers = healthy();
    numbers[number] = value;
    return checksOf(Diagnosis::ofStatistics(numbers, "1.0.0"));
}

} // namespace

TEST(DiagnosisTest, aHealthyBrokerHasNoFindings)
{
    EXPECT_EQ(checksOf(Diagnosis::ofPorts(healthyPorts())), "");
    EXPECT_EQ(checksOf(Diagnosis::ofStatistics(healthy(), "1.0.0")), "");
    EXPECT_EQ(
        checksOf(Diagnosis::ofRoundTrips({std::chrono::microseconds(100), std::chrono::microseconds(200),
                                          std::chrono::microseconds(900)})),
        "");
}

TEST(DiagnosisTest, aPortThatNobodyListensOnIsFound)
{
    std::vector<Answer> ports = healthyPorts();
    ports[1].listeners.clear();
    ports[1].socketType.reset();
    const Findings findings = Diagnosis::ofPorts(ports);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].problem, "nothing listens on port 5556 (posts)");
}

TEST(DiagnosisTest, aProgramThatIsNoBrokerIsNamed)
{
    std::vector<Answer> ports = healthyPorts();
    ports[0] = {Ports::all[0], {{pid_t{7}, "httpd"}}, ""};
    const Findings findings = Diagnosis::ofPorts(ports);
    ASSERT_EQ(findings.size(), 1U);
    EXPECT_EQ(findings[0].problem, "httpd (process 7) on port 5555 (requests) answers, but is not a broker");
    ports[0].socketType.reset();
    EXPECT_EQ(Diagnosis::ofPorts(ports)[0].problem,
              "httpd (process 7) on port 5555 (requests) is not a broker");
}

TEST(DiagnosisTest, aBrokerThatIsStoppedIsOneFindingWithTheWayOut)
{
    std::vector<Answer> ports = healthyPorts();
    for (Answer& port : ports)
    {
        port.listeners[0].isStopped = true;
        port.socketType.reset();
    }
    const Findings findings = Diagnosis::ofPorts(ports);
    ASSERT_EQ(checksOf(findings), "hung ");
    EXPECT_EQ(findings[0].problem,
              "statusbroker (process 100) is stopped, and does not answer on port 5555 (requests), "
              "port 5556 (posts), port 5557 (notifications)");
    EXPECT_EQ(findings[0].remedy,
              "resume it: \"kill -CONT 100\"; or restart it: \"systemctl restart statusbroker\"");
}

TEST(DiagnosisTest, aBrokerThatHangsIsToldFromAnotherProgram)
{
    std::vector<Answer> ports = healthyPorts();
    ports[1].socketType.reset();
    const Findings findings = Diagnosis::ofPorts(ports);
    ASSERT_EQ(checksOf(findings), "hung ");
    EXPECT_EQ(findings[0].problem,
              "statusbroker (process 100) hangs: it does not answer on port 5556 (posts)");
    EXPECT_NE(findings[0].remedy.find("systemctl restart statusbroker"), std::string::npos);
}

TEST(DiagnosisTest, aSilentProgramOfAnotherUserMayBeEither)
{
    std::vector<Answer> ports = healthyPorts();
    ports[0] = {Ports::all[0], {{std::nullopt, ""}}, std::nullopt};
    const Findings findings = Diagnosis::ofPorts(ports);
    ASSERT_EQ(checksOf(findings), "port ");
    EXPECT_NE(findings[0].problem.find("a hung broker or another program"), std::string::npos);
    EXPECT_NE(findings[0].remedy.find("as root"), std::string::npos);
}

TEST(DiagnosisTest, aSocketOfAnotherTypeIsFound)
{
    std::vector<Answer> ports = healthyPorts();
    ports[2].socketType = "ROUTER";
    EXPECT_EQ(checksOf(Diagnosis::ofPorts(ports)), "port ");
}

TEST(DiagnosisTest, portsOfDifferentProcessesAreFound)
{
    std::vector<Answer> ports = healthyPorts();
    ports[2].listeners[0].process = 200;
    EXPECT_EQ(checksOf(Diagnosis::ofPorts(ports)), "port ");
}

TEST(DiagnosisTest, aListenerOfAnotherUserIsNoFault)
{
    std::vector<Answer> ports = healthyPorts();
    for (Answer& port : ports)
        port.listeners = {{std::nullopt, ""}};
    EXPECT_EQ(checksOf(Diagnosis::ofPorts(ports)), "");
}

TEST(DiagnosisTest, anotherVersionIsFound)
{
    EXPECT_EQ(checksOf(Diagnosis::ofStatistics(healthy(), "1.1.0")), "version ");
}

TEST(DiagnosisTest, whatWasLostRefusedOrUnreadableIsFound)
{
    EXPECT_EQ(checksWith("notifications.missedEvents", 1), "lost ");
    EXPECT_EQ(checksWith("subscribers.fallenBehind", 1), "slow ");
    EXPECT_EQ(checksWith("malformed.posts", 1), "malformed ");
    EXPECT_EQ(checksWith("malformed.requests", 1), "malformed ");
    EXPECT_EQ(checksWith("state.errors", 1), "state ");
    EXPECT_EQ(checksWith("refused.systemTime", 1), "clock ");
    EXPECT_EQ(checksWith("policy.denied", 1), "policy ");
    EXPECT_EQ(checksWith("policy.audited", 1), "audit ");
    EXPECT_EQ(checksWith("policy.unknownOwners", 1), "policy ");
    EXPECT_EQ(checksWith("policy.quota", 1), "quota ");
    EXPECT_EQ(checksWith("limit.anyOfThem", 1), "limit ");
}

TEST(DiagnosisTest, clientsThatWereRefusedSomethingAreNamedWithTheCommandThatExplainsIt)
{
    std::vector<BrokerProtocol::Client> clients(3);
    clients[0].uid = 1;
    clients[1].uid = 1000;
    clients[1].service = "lampd.service";
    clients[1].program = "lampd";
    clients[1].pid = 12;
    clients[1].refusals = 9;
    clients[2].uid = 1001;
    clients[2].refusals = 1;
    const Findings findings = Diagnosis::ofRefused(clients);
    ASSERT_EQ(checksOf(findings), "refused ");
    EXPECT_EQ(findings[0].problem, "clients that were refused something, because it was beyond a limit, "
                                   "malformed or denied: lampd (process 12) of 1000:lampd.service, 9 times, "
                                   "a program of 1001, 1 time");
    EXPECT_EQ(findings[0].remedy, "the broker's log shows the reasons; \"sudo statusctl may "
                                  "1000:lampd.service ACTION NAME\" explains a denial");
    clients.resize(1);
    EXPECT_EQ(checksOf(Diagnosis::ofRefused(clients)), "");
}

TEST(DiagnosisTest, descriptorsNearTheirLimitAreFound)
{
    EXPECT_EQ(checksWith("descriptors.open", 799), "");
    EXPECT_EQ(checksWith("descriptors.open", 800), "descriptors ");
}

TEST(DiagnosisTest, slowRoundTripsAreFound)
{
    using std::chrono::microseconds;
    EXPECT_EQ(checksOf(Diagnosis::ofRoundTrips({microseconds(100), microseconds(6000), microseconds(9000)})),
              "slow ");
    EXPECT_EQ(checksOf(Diagnosis::ofRoundTrips({microseconds(100), microseconds(200), microseconds(101000)})),
              "slow ");
}
