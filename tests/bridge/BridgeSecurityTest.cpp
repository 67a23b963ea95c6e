#include <cstdlib>
#include <sys/stat.h>

#include "tests/bridge/BridgeFixture.h"

namespace
{

/// A server with TLS, which demands the device's certificate or a password, and gives each device its own
/// topics.
class BridgeSecurityTest : public BridgeFixture
{
protected:
    void SetUp() override
    {
        chmod((mFolder / ".").c_str(), 0755);
        run("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=ca "
            "-keyout " +
            at("ca.key") + " -out " + at("ca.crt"));
        makeCertificate("server", "localhost");
        makeCertificate("truck", "truck");
        writeFile(at("acl"), "pattern readwrite fleet/%u/#\nuser observer\ntopic readwrite #\n");
        chmod(at("acl").c_str(), 0644);
    }

    std::string at(const std::string& name) const { return mFolder / name; }

    static void run(const std::string& arguments)
    {
        const std::string command = std::string(OPENSSL) + " " + arguments + " >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }

    void makeCertificate(const std::string& name, const std::string& subject)
    {
        run("req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" + subject + " -keyout " +
            at(name + ".key") + " -out " + at(name + ".csr"));
        run("x509 -req -days 2 -in " + at(name + ".csr") + " -CA " + at("ca.crt") + " -CAkey " +
            at("ca.key") + " -CAcreateserial -out " + at(name + ".crt"));
        chmod(at(name + ".key").c_str(), 0644);
    }

    void startServer(const std::string& more)
    {
        mServer.emplace("cafile " + at("ca.crt") + "\ncertfile " + at("server.crt") + "\nkeyfile " +
                        at("server.key") + "\n" + more);
        mServerPort = mServer->port();
    }

    std::string withCertificate() const
    {
        return "ca = " + at("ca.crt") + "\ncertificate = " + at("truck.crt") + "\nkey = " + at("truck.key") +
               "\n";
    }

    std::optional<MqttServer> mServer;
};

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
    EXPECT_TRUE(mServer->process().waitForError("u'renewed'"));
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
