#include <algorithm>

#include "tests/bridge/ScriptedServer.h"
#include "tests/bridge/SecureFixture.h"
#include "tests/support/ProcessMemory.h"

namespace
{

using BridgeSecurityTest = SecureFixture;

TEST_F(BridgeSecurityTest, theServersCertificateIsChecked)
{
    startServer("allow_anonymous true\n");
    startBridge("ca = /etc/ssl/certs\n");
    EXPECT_TRUE(mBridge->waitForError("No connection to the server"));
    post("door", "open");
    configure("ca = " + at("ca.crt") + "\n");
    mBridge->signal(SIGHUP);
    MqttObserver observer(mServerPort, at("ca.crt"));
    EXPECT_TRUE(waitForStatus(observer, {{"door", "open"}}));
}

TEST_F(BridgeSecurityTest, aDeviceHasItsOwnTopicsByItsCertificate)
{
    startServer("require_certificate true\nuse_identity_as_username true\nacl_file " + at("acl") + "\n");
    post("door", "open");
    startBridge(withCertificate());
    ASSERT_TRUE(mBridge->waitForError("Online at"));
    makeCertificate("observer", "observer");
    MqttObserver observer(mServerPort, at("ca.crt"), at("observer"));
    EXPECT_TRUE(waitForStatus(observer, {{"door", "open"}}));
}

TEST_F(BridgeSecurityTest, aMissingCertificateIsTriedAgain)
{
    startServer("require_certificate true\nuse_identity_as_username true\n");
    std::rename(at("truck.crt").c_str(), at("hidden").c_str());
    startBridge(withCertificate());
    ASSERT_TRUE(mBridge->waitForError("truck.crt cannot be read"));
    std::rename(at("hidden").c_str(), at("truck.crt").c_str());
    EXPECT_TRUE(mBridge->waitForError("Online at"));
}

TEST_F(BridgeSecurityTest, aRenewedCertificateIsTakenOverAtReload)
{
    startServer("require_certificate true\nuse_identity_as_username true\n");
    startBridge(withCertificate());
    ASSERT_TRUE(mBridge->waitForError("Online at"));
    makeCertificate("truck", "renewed");
    mBridge->signal(SIGHUP);
    EXPECT_TRUE(mServer->waitForLog("u'renewed'"));
}

TEST_F(BridgeSecurityTest, itNeedsLessThanEightMebibytesAtWork)
{
    startServer("require_certificate true\nuse_identity_as_username true\nacl_file " + at("acl") + "\n");
    startBridge(withCertificate());
    ASSERT_TRUE(mBridge->waitForError("Online at"));
    makeCertificate("observer", "observer");
    MqttObserver observer(mServerPort, at("ca.crt"), at("observer"));
    for (int i = 0; i < 200; ++i)
        post("key" + std::to_string(i), "1");
    postEvent("bell", "rang");
    ASSERT_TRUE(observer.waitForValue("fleet/truck/status/key199", "1"));
    ASSERT_TRUE(observer.waitFor([&] { return !observer.payloadsOf("fleet/truck/event/bell").empty(); }));
    const std::string process = std::to_string(mBridge->pid());
    int changes = 0;
    constexpr std::size_t most = std::size_t{8} * 1024 * 1024;
    const auto isSmall = [&]
    {
        post("key0", std::to_string(++changes));
        return !isMemoryTelling || memoryOf(process, "VmRSS") < most;
    };
    EXPECT_TRUE(observer.waitFor(isSmall)) << memoryOf(process, "VmRSS");
}

TEST_F(BridgeSecurityTest, aKeyMayBeReadByAnEngine)
{
    startServer("require_certificate true\nuse_identity_as_username true\n");
    setenv("OPENSSL_ENGINES", TEST_ENGINES, 1);
    std::string key = readFile(at("truck.key"));
    std::reverse(key.begin(), key.end()); // as only the engine reads it
    writeFile(at("truck.key"), key);
    startBridge("ca = " + at("ca.crt") + "\ncertificate = " + at("truck.crt") +
                "\nkey-engine = testengine\nkey = " + at("truck.key") + "\n");
    EXPECT_TRUE(mBridge->waitForError("Online at"));
}

TEST_F(BridgeSecurityTest, anUnknownEngineIsReported)
{
    startServer("require_certificate true\n");
    startBridge("ca = " + at("ca.crt") + "\ncertificate = " + at("truck.crt") +
                "\nkey-engine = nobody\nkey = " + at("truck.key") + "\n");
    EXPECT_TRUE(mBridge->waitForError("OpenSSL has no engine nobody"));
}

// The extension in the first message of TLS: its number, three lengths, and the name.
TEST_F(BridgeSecurityTest, theProtocolWithinTlsIsAskedFor)
{
    ScriptedServer server;
    server.takesPackets = false;
    mServerPort = server.port();
    startBridge("ca = " + at("ca.crt") + "\nalpn = mqtt\n");
    const std::string extension("\0\x10\0\x07\0\x05\x04mqtt", 11);
    EXPECT_TRUE(server.waitFor([&] { return server.unread().find(extension) != std::string::npos; }));
}

TEST_F(BridgeSecurityTest, thePasswordComesFromAFileAndIsNeverLogged)
{
    writeFile(at("passwords"), "truck:geheim\n");
    ASSERT_EQ(std::system(("mosquitto_passwd -U " + at("passwords")).c_str()), 0);
    chmod(at("passwords").c_str(), 0644);
    startServer("allow_anonymous false\npassword_file " + at("passwords") + "\n");
    writeFile(at("secret"), "falsch\n");
    startBridge("log-level = 7\nca = " + at("ca.crt") + "\nuser = truck\npassword-file = " + at("secret") +
                "\n");
    ASSERT_TRUE(mBridge->waitForError("No connection to the server"));
    writeFile(at("secret"), "geheim\n");
    ASSERT_TRUE(mBridge->waitForError("Online at"));
    EXPECT_EQ(mBridge->errors().find("geheim"), std::string::npos);
}

} // namespace
