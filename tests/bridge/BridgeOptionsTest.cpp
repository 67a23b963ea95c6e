#include "bridge/BridgeOptions.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <regex>

#include "daemon/ConfigText.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

const std::string least = "server = mqtt.example.org\ndevice = truck7\n";

std::string errorIn(const std::string& text)
{
    try
    {
        BridgeOptions::parse(text, "x.conf");
        return "";
    }
    catch (const ConfigError& error)
    {
        return error.what();
    }
}

TEST(BridgeOptionsTest, discoveryNamesAKeyAUnitAndAClass)
{
    const BridgeOptions options = BridgeOptions::parse(
        "server = s\ndevice = d\ndiscovery = speed km/h speed\ndiscovery = door - door\ndiscovery = lamp\n",
        "f");
    ASSERT_EQ(options.discovery.size(), 3U);
    EXPECT_EQ(options.discovery[0].unit, "km/h");
    EXPECT_EQ(options.discovery[1].unit, "");
    EXPECT_EQ(options.discovery[1].deviceClass, "door");
    EXPECT_THROW(BridgeOptions::parse("server = s\ndevice = d\ndiscovery = a b c d\n", "f"), ConfigError);
    EXPECT_THROW(BridgeOptions::parse("server = s\ndevice = d\nlayout = document\ndiscovery = a\n", "f"),
                 ConfigError);
}

} // namespace

TEST(BridgeOptionsTest, serverAndDeviceAreEnough)
{
    const BridgeOptions options = BridgeOptions::parse(least, "x.conf");
    EXPECT_EQ(options.effectivePort(), 8883);
    EXPECT_EQ(options.effectiveClientId(), "truck7");
    EXPECT_TRUE(options.isVersion5);
    EXPECT_FALSE(options.isInsecure);
    EXPECT_TRUE(options.keys.allows("door"));
}

TEST(BridgeOptionsTest, serverAndDeviceAreNeeded)
{
    EXPECT_EQ(errorIn("device = truck7"), "x.conf: no server is named");
    EXPECT_EQ(errorIn("server = a"), "x.conf: no device is named");
}

TEST(BridgeOptionsTest, anErrorNamesItsLine)
{
    EXPECT_EQ(errorIn(least + "colour = red"), "x.conf:3: unknown name \"colour\"");
    EXPECT_EQ(errorIn(least + "port = 0"), "x.conf:3: port: \"0\" is not a number in 1..65535");
    EXPECT_EQ(errorIn(least + "layout = both"), "x.conf:3: layout: \"both\" is not one of keys, document");
    EXPECT_EQ(errorIn(least + "device = b"), "x.conf:3: \"device\" is given twice");
    EXPECT_EQ(errorIn(least + "keys = [a-z]*").substr(0, 8), "x.conf:3");
    EXPECT_EQ(errorIn(least + "interval = sensor"),
              "x.conf:3: interval: \"sensor\" is not of the form \"GLOB SECONDS\"");
    EXPECT_EQ(errorIn("server = m{1}\ndevice = a").substr(0, 8), "x.conf:1");
    EXPECT_EQ(errorIn(least + "prefix = a/#").substr(0, 8), "x.conf:3");
}

TEST(BridgeOptionsTest, certificateAndKeyAreNeededTogether)
{
    EXPECT_EQ(errorIn(least + "certificate = /a.crt"), "x.conf: certificate and key are needed together");
    EXPECT_EQ(errorIn(least + "certificate = /a.crt\nkey = /a.key"), "");
}

TEST(BridgeOptionsTest, anIntervalIsAGlobAndSeconds)
{
    const BridgeOptions options =
        BridgeOptions::parse(least + "interval = a b*  10\ninterval = * 2", "x.conf");
    EXPECT_EQ(intervalOf(options.intervals, "a bc"), std::chrono::seconds(10));
    EXPECT_EQ(intervalOf(options.intervals, "c"), std::chrono::seconds(2));
}

TEST(BridgeOptionsTest, globsAddUp)
{
    const BridgeOptions options =
        BridgeOptions::parse(least + "keys = a*\nkeys = b*\nexclude-keys = ax\nevents = e", "x.conf");
    EXPECT_TRUE(options.keys.allows("a"));
    EXPECT_TRUE(options.keys.allows("b"));
    EXPECT_FALSE(options.keys.allows("ax"));
    EXPECT_TRUE(options.events.allows("e"));
    EXPECT_FALSE(options.events.allows("a"));
}

TEST(BridgeOptionsTest, plainConnectionsHaveTheirOwnPort)
{
    EXPECT_EQ(BridgeOptions::parse(least + "insecure = true", "x.conf").effectivePort(), 1883);
    EXPECT_EQ(BridgeOptions::parse(least + "insecure = true\nport = 7", "x.conf").effectivePort(), 7);
}

TEST(BridgeOptionsTest, aSecretWithoutAFolderIsACredentialOfTheService)
{
    setenv("CREDENTIALS_DIRECTORY", "/run/credentials/x", 1);
    const BridgeOptions options =
        BridgeOptions::parse(least + "user = u\npassword-file = secret\nca = /etc/ca.pem", "x.conf");
    unsetenv("CREDENTIALS_DIRECTORY");
    EXPECT_EQ(options.passwordFile, "/run/credentials/x/secret");
    EXPECT_EQ(options.ca, "/etc/ca.pem");
}

TEST(BridgeOptionsTest, theServiceNamesTheFile)
{
    setenv("STATUSBRIDGE_FILE", "/var/lib/x", 1);
    const std::string of = BridgeOptions::parse(least, "x.conf").file;
    const std::string over = BridgeOptions::parse(least + "file = /a", "x.conf").file;
    unsetenv("STATUSBRIDGE_FILE");
    EXPECT_EQ(of, "/var/lib/x");
    EXPECT_EQ(over, "/a");
}

TEST(BridgeOptionsTest, aPasswordEndsWithItsLine)
{
    const TemporaryFolder folder;
    writeFile(folder / "secret", "geheim \r\n");
    EXPECT_EQ(readPassword(folder / "secret"), "geheim ");
}

TEST(BridgeOptionsTest, theDeliveredExampleIsValidAndShowsTheDefaults)
{
    const std::string example = readFile(DELIVERED_CONFIG);
    const BridgeOptions plain = BridgeOptions::parse(example, "example");
    EXPECT_EQ(plain.server, "mqtt.example.org");
    const std::string all = std::regex_replace(example, std::regex("(^|\n)#([a-z-]+ = )"), "$1$2");
    EXPECT_NE(all, example);
    const BridgeOptions options = BridgeOptions::parse(all, "example");
    EXPECT_EQ(options.effectivePort(), plain.effectivePort());
    EXPECT_EQ(options.prefix, plain.prefix);
    EXPECT_EQ(options.keepAlive, plain.keepAlive);
    EXPECT_EQ(options.longestPause, plain.longestPause);
    EXPECT_EQ(options.ca, plain.ca);
    EXPECT_EQ(options.isInsecure, plain.isInsecure);
    EXPECT_EQ(options.layout, plain.layout);
    EXPECT_EQ(options.batch, plain.batch);
    EXPECT_EQ(options.rebirthPause, plain.rebirthPause);
    EXPECT_EQ(options.onlineExpiry, plain.onlineExpiry);
    EXPECT_EQ(options.mostEvents, plain.mostEvents);
    EXPECT_EQ(options.mostEventBytes, plain.mostEventBytes);
    EXPECT_EQ(options.eventRate, plain.eventRate);
    EXPECT_EQ(options.logLevel, plain.logLevel);
}

TEST(BridgeOptionsTest, theExamplesInTheDeliveredExampleAreValid)
{
    const std::string example = readFile(DELIVERED_CONFIG);
    const std::string all = std::regex_replace(example, std::regex("(^|\n)# Example: "), "$1");
    EXPECT_EQ(errorIn(all), "");
    EXPECT_TRUE(NameRules::matchesAny(BridgeOptions::parse(all, "example").commands, "do.wash"));
}
