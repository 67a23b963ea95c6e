#include "statusctl/health/OpenMetrics.h"

#include <gtest/gtest.h>
#include <regex>
#include <sstream>

namespace
{

// Without the broker's version and the mark of the end.
std::string write(const BrokerProtocol::Statistics& statistics)
{
    const std::string version =
        "# TYPE statusbroker_build info\nstatusbroker_build_info{version=\"0.0.0\"} 1\n";
    std::string text = OpenMetrics::write(statistics);
    const std::size_t at = text.find(version);
    if (at == std::string::npos)
        return "no version: " + text;
    text.erase(at, version.size());
    return text.substr(0, text.find("# EOF"));
}

std::string textOf(const std::string& name)
{
    return write({{name, 5}});
}

} // namespace

// Samples of one family must stand together under one declaration, and the text must end with its mark.
TEST(OpenMetricsTest, isWrittenFamilyByFamily)
{
    EXPECT_EQ(OpenMetrics::write({{"limit.keys", 1},
                                  {"loop.maxMicroseconds", 2},
                                  {"malformed.posts", 3},
                                  {"memory.rss", 4},
                                  {"posts", 5},
                                  {"refused.systemTime", 6},
                                  {"requests.sync", 7},
                                  {"requests.getClientInfo", 8},
                                  {"version.major", 1},
                                  {"version.minor", 2},
                                  {"version.patch", 3}}),
              "# TYPE statusbroker_build info\n"
              "statusbroker_build_info{version=\"1.2.3\"} 1\n"
              "# TYPE statusbroker_loop_max_microseconds gauge\n"
              "statusbroker_loop_max_microseconds 2\n"
              "# TYPE statusbroker_memory_rss gauge\n"
              "statusbroker_memory_rss 4\n"
              "# TYPE statusbroker_posts counter\n"
              "statusbroker_posts_total 5\n"
              "# TYPE statusbroker_refused counter\n"
              "statusbroker_refused_total{reason=\"limit.keys\"} 1\n"
              "statusbroker_refused_total{reason=\"malformed.posts\"} 3\n"
              "statusbroker_refused_total{reason=\"refused.systemTime\"} 6\n"
              "# TYPE statusbroker_requests counter\n"
              "statusbroker_requests_total{request=\"getClientInfo\"} 8\n"
              "statusbroker_requests_total{request=\"sync\"} 7\n"
              "# EOF");
}

// The names are the broker's, and the text is read line by line.
TEST(OpenMetricsTest, aNameThatIsNoMetricHasUnderlinesInstead)
{
    EXPECT_EQ(textOf("a\nb{c=\"d\"} 1\\\u00e9"), "# TYPE statusbroker_a_b_c__d___1___ gauge\n"
                                                 "statusbroker_a_b_c__d___1___ 5\n");
    EXPECT_EQ(textOf(""), "# TYPE statusbroker_ gauge\nstatusbroker_ 5\n");
}

TEST(OpenMetricsTest, whatIsCountedIsACounter)
{
    for (const std::string name : {"notifications.missedEvents", "subscribers.fallenBehind", "state.errors"})
        EXPECT_NE(write({{name, 1}}).find(" counter\n"), std::string::npos) << name;
}

TEST(OpenMetricsTest, aNameCannotEndItsLabel)
{
    EXPECT_EQ(textOf("requests.a\"} 1\nfake 2\\"), "# TYPE statusbroker_requests counter\n"
                                                   "statusbroker_requests_total{request=\"a\\\"} 1\\\\nfake "
                                                   "2\\\\\\\\\"} 5\n");
    EXPECT_EQ(textOf("limit.\r\u2028\u202e\xff"), "# TYPE statusbroker_refused counter\n"
                                                  "statusbroker_refused_total{reason=\"limit.\\\\r"
                                                  "\\\\xe2\\\\x80\\\\xa8\\\\xe2\\\\x80\\\\xae\\\\xff\"} 5\n");
}

TEST(OpenMetricsTest, ofTwoNamesThatBecomeOneMetricTheFirstIsWritten)
{
    EXPECT_EQ(write({{"a.b", 1}, {"a_b", 2}}), "# TYPE statusbroker_a_b gauge\nstatusbroker_a_b 1\n");
    EXPECT_EQ(write({{"notifications.published", 1}, {"notifications_published", 2}}),
              "# TYPE statusbroker_notifications_published counter\n"
              "statusbroker_notifications_published_total 1\n");
}

TEST(OpenMetricsTest, aNameCannotPassForASampleOfAnotherFamily)
{
    EXPECT_EQ(write({{"posts", 1}, {"posts.total", 2}}), "# TYPE statusbroker_posts counter\n"
                                                         "statusbroker_posts_total 1\n");
    EXPECT_EQ(write({{"build", 1}, {"build.info", 2}}), "");
}

TEST(OpenMetricsTest, whateverByteIsInANameEveryLineIsValid)
{
    const std::regex valid(
        R"(# TYPE [a-z0-9_]+ (gauge|counter)|[a-z0-9_]+(\{[a-z]+="([ -!#-\[\]-~]|\\["\\])*"\})? \d+)");
    for (int byte = 0; byte <= UINT8_MAX; ++byte)
    {
        const std::string name(1, static_cast<char>(byte));
        std::istringstream lines(write({{name, 1}, {"requests." + name, 2}, {"limit." + name, 3}}));
        int count = 0;
        for (std::string line; std::getline(lines, line); ++count)
            EXPECT_TRUE(std::regex_match(line, valid)) << "byte " << byte << ": " << line;
        EXPECT_EQ(count, 6) << "byte " << byte;
    }
}
