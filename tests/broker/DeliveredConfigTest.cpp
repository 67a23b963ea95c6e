// The installed configuration file.

#include <cctype>

#include "tests/broker/OptionsFixture.h"

namespace
{

// Removes the mark in front of the lines that begin with it.
std::string uncommented(const std::string& mark)
{
    std::string text;
    for (const std::string& line : linesOf(contentsOf(STATUSBROKER_CONF)))
    {
        const bool isMarked =
            startsWith(line, mark) && line.size() > mark.size() && islower(line[mark.size()]) != 0;
        text += (isMarked ? line.substr(mark.size()) : line) + "\n";
    }
    return text;
}

} // namespace

TEST(DeliveredConfig, changesNothing)
{
    ASSERT_NE(contentsOf(STATUSBROKER_CONF), "");
    EXPECT_EQ(valuesOf(commandLine({"--config", STATUSBROKER_CONF}).readOptions()), defaults);
}

TEST(DeliveredConfig, showsTheDefaults)
{
    EXPECT_NE(uncommented("#"), contentsOf(STATUSBROKER_CONF));
    EXPECT_EQ(readFile(uncommented("#")), defaults);
}

TEST(DeliveredConfig, hasExamplesThatWork)
{
    const Values values = readFile(uncommented("# Example: "));
    EXPECT_NE(values.at("state"), "");
    EXPECT_NE(values.at("state-keys"), "");
}

TEST(DeliveredConfig, namesEveryOption)
{
    const std::string text = contentsOf(STATUSBROKER_CONF);
    for (const auto& [name, value] : defaults)
    {
        const std::string line = (value.empty() ? "\n# Example: " : "\n#") + name + " = ";
        EXPECT_NE(text.find(line), std::string::npos) << name;
    }
}
