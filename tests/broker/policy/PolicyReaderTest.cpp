// Texts of policies: the report of each mistake, and the effects of hostile texts.

#include <gtest/gtest.h>
#include <ostream>

#include "tests/broker/policy/PolicyFixture.h"

namespace
{

struct Mistake
{
    std::string text;
    std::string error;
};

class WrongPolicy : public testing::TestWithParam<Mistake>
{
};

void PrintTo(const Mistake& mistake, std::ostream* stream)
{
    *stream << mistake.error;
}

std::string lines(std::size_t count, const std::string& line)
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i)
        text += line;
    return text;
}

const std::string rule = "[[rule]]\nallow = \"all\"\n";

} // namespace

TEST_P(WrongPolicy, isToldWithItsLine)
{
    EXPECT_EQ(errorsOf(GetParam().text), Lines{GetParam().error});
}

INSTANTIATE_TEST_SUITE_P(
    Names, WrongPolicy,
    testing::Values(
        Mistake{"\nport = 1\n", "file:2: unknown name \"port\" (known: default, mode, rule, quota, owned)"},
        Mistake{"[server]\n", "file:1: unknown name \"server\" (known: default, mode, rule, quota, owned)"},
        Mistake{"[[rules]]\nallow = \"all\"\n",
                "file:1: unknown name \"rules\" (known: default, mode, rule, quota, owned)"},
        Mistake{"[[rule]]\nallow = \"all\"\nkey = \"a\"\n",
                "file:3: unknown name \"key\" in a rule (known: service, user, group, allow, deny, keys)"},
        Mistake{"[[rule]]\nallow = \"all\"\nkeys.a = \"a\"\n",
                "file:3: keys must be a text or a list of texts"},
        Mistake{"[[rule]]\nallow = \"all\"\n[rule.more]\n",
                "file:3: unknown name \"more\" in a rule (known: service, user, group, allow, deny, keys)"},
        Mistake{"[[rule]]\nallow = \"all\"\ndefault = \"deny\"\n",
                "file:3: default is not part of a rule: write it above the first [[rule]]"},
        Mistake{"[[rule]]\nallow = \"all\"\nmode = \"audit\"\n",
                "file:3: mode is not part of a rule: write it above the first [[rule]]"},
        Mistake{"[[quota]]\nkeys = 1\ngroup = \"net\"\n",
                "file:3: unknown name \"group\" in a quota (known: user, keys, bytes, connections, "
                "posts-per-second)"},
        Mistake{"[[owned]]\nkeys = \"a\"\nuser = \"net\"\n",
                "file:3: unknown name \"user\" in owned (known: keys, becomes, grace)"},
        Mistake{"\"a\\u001b[0m\" = 1\n",
                "file:1: unknown name \"a?[0m\" (known: default, mode, rule, quota, owned)"}));

INSTANTIATE_TEST_SUITE_P(
    Values, WrongPolicy,
    testing::Values(
        Mistake{"default = true\n", "file:1: default must be \"allow\" or \"deny\""},
        Mistake{"default = \"Allow\"\n", "file:1: default must be \"allow\" or \"deny\""},
        Mistake{"\nmode = \"off\"\n", "file:2: mode must be \"enforce\" or \"audit\""},
        Mistake{"mode = [\"audit\"]\n", "file:1: mode must be \"enforce\" or \"audit\""},
        Mistake{"rule = 1\n", "file:1: each rule begins with [[rule]]"},
        Mistake{"[rule]\nallow = \"all\"\n", "file:1: each rule begins with [[rule]]"},
        Mistake{"rule = [1]\n", "file:1: each rule begins with [[rule]]"},
        Mistake{"[quota]\nkeys = 1\n", "file:1: each quota begins with [[quota]]"},
        Mistake{"[owned]\nkeys = \"a\"\n", "file:1: each owned begins with [[owned]]"},
        Mistake{"[[rule]]\nkeys = \"a\"\n", "file:1: a rule needs allow or deny"},
        Mistake{"[[rule]]\nallow = \"post\"\ndeny = \"reset\"\n",
                "file:3: a rule either allows or denies: write two rules"},
        Mistake{"[[rule]]\nallow = 1\n", "file:2: allow must be a text or a list of texts"},
        Mistake{"[[rule]]\ndeny = [\"post\", 1]\n", "file:2: deny must be a text or a list of texts"},
        Mistake{"[[rule]]\nallow = []\n", "file:2: allow is an empty list"},
        Mistake{"[[rule]]\nallow = [\n\"post\",\n\"write\"]\n",
                "file:4: unknown action \"write\" (known: post, reset, event, timer, counter, query, see, "
                "time, forget, all)"},
        Mistake{"[[rule]]\nallow = [[\"post\"]]\n", "file:2: allow must be a text or a list of texts"},
        Mistake{"[[rule]]\nallow = \"all\"\nkeys = []\n", "file:3: keys is an empty list"},
        Mistake{"[[rule]]\nallow = \"all\"\nkeys = \"\"\n", "file:3: keys: the text is empty"},
        Mistake{"[[rule]]\nallow = \"all\"\nkeys = \"a\\u0000\"\n",
                "file:3: keys: \"a?\" holds a control character"},
        Mistake{"[[rule]]\nallow = \"all\"\nkeys = '''\na\nb'''\n",
                "file:3: keys: \"a?b\" holds a control character"},
        Mistake{"[[rule]]\nallow = \"all\"\nkeys = \"a[b]\"\n",
                "file:3: keys: \"a[b]\": \"[\" is not supported: write ? for any letter, or '\\[' for the "
                "bracket itself"},
        Mistake{"[[rule]]\nallow = \"all\"\nkeys = 'a\\'\n",
                "file:3: keys: \"a\\\": nothing follows the last \\"},
        Mistake{"[[rule]]\nallow = \"all\"\nkeys = \"\"\"" + std::string(1000, 'a') + "\\\n" +
                    std::string(1000, 'a') + "\"\"\"\n",
                "file:3: keys: longer than 1024 bytes"},
        Mistake{"[[rule]]\nallow = \"all\"\nservice = \"net*\"\n",
                "file:3: \"net*\" is not the name of a service"},
        Mistake{"[[rule]]\nallow = \"all\"\nservice = \"a/b\"\n",
                "file:3: \"a/b\" is not the name of a service"},
        Mistake{"[[rule]]\nallow = \"all\"\nservice = 1\n",
                "file:3: service must be a text or a list of texts"},
        Mistake{"[[rule]]\nallow = \"all\"\nuser = []\n", "file:3: user is an empty list"},
        Mistake{"[[rule]]\nallow = \"all\"\nuser = [\"net\", true]\n",
                "file:3: user must be a text or a list of texts"},
        Mistake{"[[rule]]\nallow = \"all\"\nuser = -1\n", "file:3: user: -1 is not the number of a user"},
        Mistake{"[[rule]]\nallow = \"all\"\ngroup = 4294967295\n",
                "file:3: group: 4294967295 is not the number of a group"},
        Mistake{"[[quota]]\nuser = \"web\"\n",
                "file:1: a quota needs keys, bytes, connections or posts-per-second"},
        Mistake{"[[quota]]\nkeys = 0\n", "file:2: keys must be a number in 1..1000000"},
        Mistake{"[[quota]]\nconnections = 1000001\n", "file:2: connections must be a number in 1..1000000"},
        Mistake{"[[quota]]\nposts-per-second = 1.5\n",
                "file:2: posts-per-second must be a number in 1..1000000"},
        Mistake{"[[quota]]\nbytes = 0\n",
                "file:2: bytes must be a size in 1..1024M, such as 65536 or \"64K\""},
        Mistake{"[[quota]]\nbytes = \"64KB\"\n",
                "file:2: bytes must be a size in 1..1024M, such as 65536 or \"64K\""},
        Mistake{"[[quota]]\nbytes = \"1025M\"\n",
                "file:2: bytes must be a size in 1..1024M, such as 65536 or \"64K\""},
        Mistake{"[[quota]]\nbytes = -1\n",
                "file:2: bytes must be a size in 1..1024M, such as 65536 or \"64K\""},
        Mistake{"[[owned]]\nbecomes = \"off\"\n", "file:1: owned needs keys"},
        Mistake{"[[owned]]\nkeys = \"a\"\nbecomes = 1\n", "file:3: becomes must be a text"},
        Mistake{"[[owned]]\nkeys = \"a\"\nbecomes = \"\\n\"\n",
                "file:3: becomes: \"?\" holds a control character"},
        Mistake{"[[owned]]\nkeys = \"a\"\nbecomes = \"\"\"" + std::string(1000, 'a') + "\\\n" +
                    std::string(1000, 'a') + "\"\"\"\n",
                "file:3: becomes: longer than 1024 bytes"},
        Mistake{"[[owned]]\nkeys = \"a\"\ngrace = 2\n",
                "file:3: grace must be a duration of at most an hour, such as \"500ms\", \"2s\" or \"1m\""},
        Mistake{"[[owned]]\nkeys = \"a\"\ngrace = \"2\"\n",
                "file:3: grace must be a duration of at most an hour, such as \"500ms\", \"2s\" or \"1m\""},
        Mistake{"[[owned]]\nkeys = \"a\"\ngrace = \"s\"\n",
                "file:3: grace must be a duration of at most an hour, such as \"500ms\", \"2s\" or \"1m\""},
        Mistake{"[[owned]]\nkeys = \"a\"\ngrace = \"3601s\"\n",
                "file:3: grace must be a duration of at most an hour, such as \"500ms\", \"2s\" or \"1m\""},
        Mistake{"[[owned]]\nkeys = \"a\"\ngrace = \"99999999999999999999s\"\n",
                "file:3: grace must be a duration of at most an hour, such as \"500ms\", \"2s\" or \"1m\""}));

INSTANTIATE_TEST_SUITE_P(
    Twice, WrongPolicy,
    testing::Values(Mistake{rule + "[[quota]]\nkeys = 1\n\n[[quota]]\nbytes = 2\n",
                            "file:6: there is already a quota without a user, in file:3"},
                    Mistake{
                        "[[quota]]\nuser = \"web\"\nkeys = 1\n[[quota]]\nuser = [\"net\", 102]\nkeys = 1\n",
                        "file:4: user 102 already has a quota, in file:1"}));

INSTANTIATE_TEST_SUITE_P(Bytes, WrongPolicy,
                         testing::Values(Mistake{std::string("# a\n\0\n", 6), "file:2: a control character"},
                                         Mistake{"# a\x7f\n", "file:1: a control character"},
                                         Mistake{"# \x1b[0m\n", "file:1: a control character"},
                                         Mistake{"#\n#" + std::string(1024, 'a') + "\n",
                                                 "file:2: longer than 1024 bytes"}));

TEST(PolicyText, ofWindowsIsRead)
{
    EXPECT_EQ(errorsOf("# a\r\ndefault = \"deny\"\r\n[[rule]]\r\n\tallow = \"all\"\r\n"), Lines{});
}

TEST(PolicyText, mayHoldAllLettersInQuotesAndComments)
{
    for (const char* name :
         {"\"\u00e4\"", "'\u03a4\u20ac'", "\"\"\"\u00e4\\\n   \u00e4\"\"\"", "'''\u00e4'''",
          "\"\"\"'\u00e4\"\"\u00e4\"\"\"", "\"\\\"\u00e4\"", "\"#\u00e4\"", "\"a\" # \u00e4 \"\""})
        EXPECT_EQ(errorsOf("[[rule]]\nallow = \"all\" # \u00fc '\nkeys = " + std::string(name) + "\n"),
                  Lines{})
            << name;
}

TEST(PolicyText, mayBeginWithAByteOrderMark)
{
    EXPECT_EQ(errorsOf("\xef\xbb\xbf"
                       "default = \"deny\"\n"),
              Lines{});
}

TEST(PolicyText, withTheLongestLineIsRead)
{
    EXPECT_EQ(errorsOf("#" + std::string(1023, 'a') + "\r\n#" + std::string(1023, 'b')), Lines{});
}

// The library's wording may change with its version.
TEST(PolicyText, thatIsNoTomlIsToldWithItsLine)
{
    for (const char* text :
         {"default = \"allow\"\nmode\n", "default = \"allow\"\nmode = \"audit\n",
          "default = \"allow\"\n[[rule]\n", "default = \"allow\"\ndefault = \"deny\"\n",
          "default = \"allow\"\n# \xff\n", "default = \"allow\"\nmode = \"\xc3(\"\n",
          "default = \"allow\"\nmode = \"\xed\xa0\x80\"\n", "default = \"allow\"\nmode = audit\n",
          "default = \"allow\"\n[+.a]\n", "default = \"allow\"\nm\u00e4de = 1\n",
          "default = \"allow\"\nmode = \u03a4\n", "default = \"allow\"\nmode = 0\"\ufc7f\"\n"})
    {
        const Lines errors = errorsOf(text);
        ASSERT_EQ(errors.size(), 1U) << text;
        EXPECT_EQ(errors[0].rfind("file:2: ", 0), 0U) << errors[0];
        EXPECT_GT(errors[0].size(), 10U);
    }
}

TEST(PolicyText, errorsOfTheLibraryAreHarmless)
{
    const Lines errors = errorsOf("a\u009b = \n\"" + std::string(900, 'a') + "\xc2\x9b\" = {\n");
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_LE(errors[0].size(), 220U);
    EXPECT_EQ(errors[0].find('\x9b'), std::string::npos);
}

TEST(PolicyText, allMistakesAreToldInTheOrderOfTheirLines)
{
    EXPECT_EQ(
        errorsOf("[[rule]]\nallow = \"write\"\nkeys = \"\"\n[[rule]]\nuser = 1\n[[quota]]\nkeys = 0\n"),
        (Lines{"file:2: unknown action \"write\" (known: post, reset, event, timer, counter, query, see, "
               "time, forget, all)",
               "file:3: keys: the text is empty", "file:4: a rule needs allow or deny",
               "file:7: keys must be a number in 1..1000000"}));
}

TEST(PolicyText, mistakesOfAllFilesAreTold)
{
    EXPECT_EQ(errorsOf({{"b", "mode = 1\n"}, {"a", "\x01\n"}, {"c", "default = 1\n"}}),
              (Lines{"b:1: mode must be \"enforce\" or \"audit\"", "a:1: a control character",
                     "c:1: default must be \"allow\" or \"deny\""}));
}

TEST(PolicyText, theDefaultIsSetInOneFileOnly)
{
    EXPECT_EQ(errorsOf({{"a", "default = \"deny\"\n"}, {"b", "\ndefault = \"deny\"\n"}}),
              Lines{"b:2: default is already set in a:1"});
}

TEST(PolicyText, theModeIsSetInOneFileOnly)
{
    EXPECT_EQ(errorsOf({{"a", "mode = \"audit\"\n"}, {"b", "\nmode = \"enforce\"\n"}}),
              Lines{"b:2: mode is already set in a:1"});
}

TEST(PolicyText, aHundredMistakesAreTold)
{
    const Lines errors = errorsOf(lines(150, "\x01\n"));
    ASSERT_EQ(errors.size(), 101U);
    EXPECT_EQ(errors[99], "file:100: a control character");
    EXPECT_EQ(errors[100], "and 50 more errors");
}

// ------------------------------------------------------------------------------------------------- limits

TEST(PolicyText, ofTheGreatestSizeIsRead)
{
    const std::string text = rule + lines(256 * 1024 / 8, "#234567\n");
    EXPECT_EQ(errorsOf(text.substr(0, 256 * 1024)), Lines{});
    EXPECT_EQ(errorsOf(text.substr(0, 256 * 1024 + 1)), Lines{"file: longer than 262144 bytes"});
}

TEST(PolicyText, holdsAsManyTablesAsAreAllowedInAllFiles)
{
    const std::string tables = lines(2046, rule) + "[[quota]]\nkeys = 1\n[[owned]]\nkeys = \"a\"\n";
    EXPECT_EQ(errorsOf({{"a", tables}, {"b", lines(2048, rule)}}), Lines{});
    EXPECT_EQ(errorsOf({{"a", tables}, {"b", lines(2050, rule)}}),
              Lines{"b:4097: more than 4096 rules, quotas and owned tables in all files"});
}

TEST(PolicyText, holdsAsManyNamesAsAreAllowedInAllFiles)
{
    const auto text = [](int names)
    { return "[[rule]]\nallow = [\n" + lines(static_cast<std::size_t>(names), "'post',\n") + "]\n"; };
    EXPECT_EQ(errorsOf({{"a", text(16000)}, {"b", text(384)}}), Lines{});
    EXPECT_EQ(errorsOf({{"a", text(16000)}, {"b", text(386)}}),
              Lines{"b:387: more than 16384 names in all files"});
}

// ------------------------------------------------------------------------------------------------ hostile

TEST(HostilePolicy, ofDeepListsIsRefused)
{
    const std::string text = "a = " + lines(120000, "[\n") + lines(120000, "]\n");
    EXPECT_EQ(errorsOf(text.substr(0, 250000)).size(), 1U);
    EXPECT_EQ(errorsOf("a = " + std::string(1000, '[')).size(), 1U);
}

// As deep as lines allow, and once more in each list that is allowed.
TEST(HostilePolicy, ofDeepTablesIsRefused)
{
    std::string dots = "a";
    while (dots.size() + 2 < 1000)
        dots += ".a";
    const std::string text =
        "[" + dots + "]\n" + dots + " = [\n{" + dots + " = [\n{" + dots + " = [\n{" + dots + " = 1}]}]}]\n";
    EXPECT_EQ(errorsOf(text).size(), 1U);
    EXPECT_EQ(errorsOf("[" + dots + "]\n" + dots + " = 1\n"),
              Lines{"file:1: unknown name \"a\" (known: default, mode, rule, quota, owned)"});
}

TEST(HostilePolicy, ofManyTablesIsRefused)
{
    std::string text;
    for (int i = 0; i < 30000; ++i)
        text += "[" + std::to_string(i) + "]\n";
    EXPECT_EQ(errorsOf(text).size(), 101U);
}

TEST(HostilePolicy, cutAnywhereDoesNoHarm)
{
    const std::string text =
        "default = \"deny\"\n[[rule]]\nuser = [\"web\", 5]\nservice = 'net'\nallow = [\n\"post\", "
        "]\nkeys = \"\"\"a\\\n b\"\"\"\n[[quota]]\nbytes = \"4K\"\n[[owned]]\nkeys = ['\u20ac*']\n";
    EXPECT_EQ(errorsOf(text), Lines{});
    for (std::size_t size = 0; size < text.size(); ++size)
        errorsOf(text.substr(0, size));
}
