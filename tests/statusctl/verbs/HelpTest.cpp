// help and completion, which need no broker.

#include <gtest/gtest.h>

#include "tests/statusctl/Tool.h"
#include "tests/support/TemporaryFolder.h"

TEST(HelpTest, helpPrintsWhatTheOptionDoes)
{
    EXPECT_EQ(statusctl({"help"}), statusctl({"--help"}));
    EXPECT_EQ(statusctl({"help", "watch"}), statusctl({"watch", "--help"}));
    EXPECT_EQ(statusctl({"help", "timer", "start"}), statusctl({"timer", "start", "--help"}));
    EXPECT_EQ(statusctl({"help", "help"}), statusctl({"help", "--help"}));
    EXPECT_NE(statusctl({"help", "timer"}).output.find("Usage: statusctl timer"), std::string::npos);
}

TEST(HelpTest, helpOfNoCommandIsWrongUsage)
{
    EXPECT_EQ(statusctl({"help", "foo"}),
              failure(2, "statusctl: help: unknown command \"foo\" (see statusctl --help)"));
    EXPECT_EQ(statusctl({"help", "timer", "foo"}),
              failure(2, "statusctl: help: unknown command \"foo\" (see statusctl timer --help)"));
}

TEST(CompletionTest, isTheFileThatIsInstalled)
{
    const std::string folder = COMPLETIONS "/";
    EXPECT_EQ(statusctl({"completion", "bash"}), success(readFile(folder + "statusctl.bash")));
    EXPECT_EQ(statusctl({"completion", "zsh"}), success(readFile(folder + "_statusctl")));
    EXPECT_EQ(statusctl({"completion", "fish"}), success(readFile(folder + "statusctl.fish")));
}

TEST(CompletionTest, isThereForNoOtherShell)
{
    EXPECT_EQ(statusctl({"completion", "csh"}).code, 2);
    EXPECT_EQ(statusctl({"completion"}).code, 2);
}
