#include <sstream>

#include "tests/bridge/SecureFixture.h"

namespace
{

/// A server with the rules of docs/fleet.md.
class DocumentedRulesTest : public SecureFixture
{
protected:
    void SetUp() override
    {
        SecureFixture::SetUp();
        makeCertificate("desk", "desk");
        makeCertificate("ship", "ship");
        writeFile(at("acl"), rules());
        startServer("require_certificate true\nuse_identity_as_username true\nacl_file " + at("acl") + "\n");
    }

    /// The example behind "/etc/mosquitto/acl".
    static std::string rules()
    {
        std::istringstream page(readFile(FLEET_PAGE));
        std::string text;
        bool isInside = false;
        for (std::string line; std::getline(page, line);)
        {
            isInside = isInside || line == "and in `/etc/mosquitto/acl`:";
            if (isInside && line.compare(0, 4, "    ") == 0)
                text += line.substr(4) + "\n";
            else if (isInside && line.empty() && !text.empty())
                text += "\n";
            else if (!text.empty())
                break;
        }
        return text;
    }

    /// Runs the desk with this certificate, and returns its exit code.
    std::optional<int> deskAs(const std::string& name, const std::vector<std::string>& words)
    {
        writeFile(at("desk.conf"), "server = localhost\nport = " + std::to_string(mServerPort) +
                                       "\nca = " + at("ca.crt") + "\ncertificate = " + at(name + ".crt") +
                                       "\nkey = " + at(name + ".key") + "\n");
        std::vector<std::string> command{STATUSFLEET, "--config", at("desk.conf")};
        command.insert(command.end(), words.begin(), words.end());
        TestProcess process(command);
        mOutput = process.readRest();
        return process.waitForExit();
    }

    std::string mOutput;
};

TEST_F(DocumentedRulesTest, theDeskSeesAndSteersTheDevice)
{
    post("door", "open");
    startBridge(withCertificate() + "desired-keys = set.*\ncommands = do.*\n");
    ASSERT_TRUE(mBridge->waitForError("Online at"));
    EXPECT_EQ(deskAs("desk", {"get", "truck", "door"}), 0);
    EXPECT_EQ(mOutput, "open\n");
    EXPECT_EQ(deskAs("desk", {"desired", "truck", "set.lamp", "on", "--wait"}), 0);
    EXPECT_EQ(deskAs("desk", {"cmd", "truck", "do.wash"}), 0);
}

TEST_F(DocumentedRulesTest, aDeviceNeitherSeesNorSteersAnother)
{
    post("door", "open");
    startBridge(withCertificate() + "desired-keys = set.*\n");
    ASSERT_TRUE(mBridge->waitForError("Online at"));
    EXPECT_NE(deskAs("ship", {"get", "truck", "door"}), 0);
    EXPECT_NE(deskAs("ship", {"desired", "truck", "set.lamp", "on"}), 0);
    EXPECT_EQ(deskAs("desk", {"get", "truck", "set.lamp"}), 3);
}

} // namespace
