#ifndef TESTS_BROKER_POLICEDBROKER_H
#define TESTS_BROKER_POLICEDBROKER_H

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "tests/broker/Messages.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/ZmtpPeer.h"

/// The real broker with a policy, and the three connections of a client of this user.
class PolicedBroker : public testing::Test
{
protected:
    static constexpr const char* allOk = "default = \"allow\"\n";

    /// A rule for the user that runs the tests.
    static std::string rule(const std::string& text)
    {
        return "[[rule]]\nuser = " + std::to_string(geteuid()) + "\n" + text + "\n";
    }

    void writePolicy(const std::string& text) { writeFile(folder / "policy", text); }

    void start(const std::string& policy, std::vector<std::string> options = {})
    {
        writePolicy(policy);
        options.insert(options.end(), {"--heartbeat=0", "--policy", folder / "policy"});
        broker.emplace(options);
        asking.emplace(ZmtpPeer::requestPort);
        posting.emplace(ZmtpPeer::postPort);
        ASSERT_TRUE(asking->shakeHands());
        ASSERT_TRUE(posting->shakeHands());
    }

    /// Subscribes to everything, and receives the present values.
    void listen()
    {
        listening.emplace(ZmtpPeer::notifyPort);
        ASSERT_TRUE(listening->shakeHands());
        ASSERT_TRUE(listening->write(ZmtpPeer::subscribe("")));
        awaitSync();
    }

    /// Returns when its subscription has arrived.
    void awaitSync()
    {
        ASSERT_TRUE(eventually(
            [this]
            {
                post("Sync"); // the post may arrive before the subscription
                return listening->receiveText(std::chrono::milliseconds(1)) == "Sync";
            }));
    }

    /// Returns when the broker has handled the post.
    void post(const std::string& text)
    {
        const uint64_t before = statistic("posts");
        ASSERT_TRUE(posting->write(ZmtpPeer::message(text)));
        ASSERT_TRUE(eventually([&] { return statistic("posts") > before; }));
    }

    std::string ask(const std::string& request) { return asking->ask(request); }
    std::string all() { return ask(R"({"getClientInfo":"null"})"); }

    /// The next notification except "Sync".
    std::string next()
    {
        std::string text = "Sync";
        while (text == "Sync")
            text = listening->receiveText().value_or("nothing");
        return text;
    }

    uint64_t statistic(const std::string& name) { return statistic(*asking, name); }

    static uint64_t statistic(ZmtpPeer& asking, const std::string& name)
    {
        const std::string numbers = asking.ask(R"({"getBrokerStatistics":"null"})");
        const std::size_t at = numbers.find('"' + name + "\":");
        return at == std::string::npos ? 0 : std::stoull(numbers.substr(at + name.size() + 3));
    }

    bool isInLog(const std::string& text) { return broker->process().waitForError(text); }

    void reload(const std::string& policy)
    {
        writePolicy(policy);
        broker->process().signal(SIGHUP);
    }

    const TemporaryFolder folder;
    std::optional<BrokerProcess> broker;
    std::optional<ZmtpPeer> asking;
    std::optional<ZmtpPeer> posting;
    std::optional<ZmtpPeer> listening;
};

#endif
