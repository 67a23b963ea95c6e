#include "statusctl/health/Metrics.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>

using Metrics::Format;

namespace
{

// The lines of samples and types, without lines that every text contains.
std::string write(const BrokerProtocol::Statistics& statistics, Format format = Format::OpenMetrics,
                  const std::optional<StatusMap>& values = std::nullopt)
{
    std::string result;
    std::istringstream lines(Metrics::write(format, statistics, values));
    for (std::string line; std::getline(lines, line);)
    {
        if (line.find("statusbroker_build") == std::string::npos && line.find("# HELP ") != 0 &&
            line != "# EOF")
            result += line + "\n";
    }
    return result;
}

std::string textOf(const std::string& name)
{
    return write({{name, 5}});
}

std::string exported(const StatusMap& values)
{
    std::string result;
    std::istringstream lines(write({}, Format::Prometheus, values));
    for (std::string line; std::getline(lines, line);)
        result += line[0] == '#' ? "" : line + "\n";
    return result;
}

const BrokerProtocol::Statistics someNumbers{{"limit.keys", 1},
                                             {"loop.maxMicroseconds", 2500000},
                                             {"malformed.posts", 3},
                                             {"memory.rss", 4},
                                             {"policy.denied", 9},
                                             {"posts", 5},
                                             {"refused.systemTime", 6},
                                             {"requests.sync", 7},
                                             {"requests.getClientInfo", 8},
                                             {"version.major", 1},
                                             {"version.minor", 2},
                                             {"version.patch", 3}};

} // namespace

// A family's samples must be adjacent, after its one declaration, and the text must end with its mark.
TEST(MetricsTest, openMetricsAreWrittenFamilyByFamily)
{
    EXPECT_EQ(Metrics::write(Format::OpenMetrics, someNumbers),
              "# HELP statusbroker_build The broker's version.\n"
              "# TYPE statusbroker_build info\n"
              "statusbroker_build_info{version=\"1.2.3\"} 1\n"
              "# HELP statusbroker_loop_max_seconds Longest round of the broker's loop since its start.\n"
              "# TYPE statusbroker_loop_max_seconds gauge\n"
              "statusbroker_loop_max_seconds 2.500000\n"
              "# HELP statusbroker_memory_rss_bytes Bytes of memory that the broker's process has.\n"
              "# TYPE statusbroker_memory_rss_bytes gauge\n"
              "statusbroker_memory_rss_bytes 4\n"
              "# HELP statusbroker_policy_denied Names, and settings of the clock, that the policy denied.\n"
              "# TYPE statusbroker_policy_denied counter\n"
              "statusbroker_policy_denied_total 9\n"
              "# HELP statusbroker_posts Posts taken from clients.\n"
              "# TYPE statusbroker_posts counter\n"
              "statusbroker_posts_total 5\n"
              "# HELP statusbroker_refused Messages, names and connections refused.\n"
              "# TYPE statusbroker_refused counter\n"
              "statusbroker_refused_total{reason=\"limit.keys\"} 1\n"
              "statusbroker_refused_total{reason=\"malformed.posts\"} 3\n"
              "statusbroker_refused_total{reason=\"refused.systemTime\"} 6\n"
              "# HELP statusbroker_requests Requests answered.\n"
              "# TYPE statusbroker_requests counter\n"
              "statusbroker_requests_total{request=\"getClientInfo\"} 8\n"
              "statusbroker_requests_total{request=\"sync\"} 7\n"
              "# EOF");
}

// Its readers do not know the type "info", nor a counter whose sample is named differently from its family.
TEST(MetricsTest, prometheusHasTheSameSamplesUnderTheirOwnNames)
{
    EXPECT_EQ(
        Metrics::write(Format::Prometheus, someNumbers),
        "# HELP statusbroker_build_info The broker's version.\n"
        "# TYPE statusbroker_build_info gauge\n"
        "statusbroker_build_info{version=\"1.2.3\"} 1\n"
        "# HELP statusbroker_loop_max_seconds Longest round of the broker's loop since its start.\n"
        "# TYPE statusbroker_loop_max_seconds gauge\n"
        "statusbroker_loop_max_seconds 2.500000\n"
        "# HELP statusbroker_memory_rss_bytes Bytes of memory that the broker's process has.\n"
        "# TYPE statusbroker_memory_rss_bytes gauge\n"
        "statusbroker_memory_rss_bytes 4\n"
        "# HELP statusbroker_policy_denied_total Names, and settings of the clock, that the policy denied.\n"
        "# TYPE statusbroker_policy_denied_total counter\n"
        "statusbroker_policy_denied_total 9\n"
        "# HELP statusbroker_posts_total Posts taken from clients.\n"
        "# TYPE statusbroker_posts_total counter\n"
        "statusbroker_posts_total 5\n"
        "# HELP statusbroker_refused_total Messages, names and connections refused.\n"
        "# TYPE statusbroker_refused_total counter\n"
        "statusbroker_refused_total{reason=\"limit.keys\"} 1\n"
        "statusbroker_refused_total{reason=\"malformed.posts\"} 3\n"
        "statusbroker_refused_total{reason=\"refused.systemTime\"} 6\n"
        "# HELP statusbroker_requests_total Requests answered.\n"
        "# TYPE statusbroker_requests_total counter\n"
        "statusbroker_requests_total{request=\"getClientInfo\"} 8\n"
        "statusbroker_requests_total{request=\"sync\"} 7");
}

// The broker chooses the names, and monitoring systems read the text line by line.
TEST(MetricsTest, aNameThatIsNoMetricHasUnderlinesInstead)
{
    EXPECT_EQ(textOf("a\nb{c=\"d\"} 1\\\u00e9"), "# TYPE statusbroker_a_b_c__d___1___ unknown\n"
                                                 "statusbroker_a_b_c__d___1___ 5\n");
    EXPECT_EQ(textOf(""), "# TYPE statusbroker_ unknown\nstatusbroker_ 5\n");
    EXPECT_EQ(write({{"newNumber", 5}}, Format::Prometheus),
              "# TYPE statusbroker_new_number untyped\nstatusbroker_new_number 5\n");
}

TEST(MetricsTest, whatIsCountedIsACounter)
{
    for (const std::string name : {"notifications.missedEvents", "subscribers.fallenBehind", "state.errors",
                                   "policy.denied", "policy.quota"})
        EXPECT_NE(write({{name, 1}}).find(" counter\n"), std::string::npos) << name;
    for (const std::string name : {"stored.keys", "clients.posts", "uptime.seconds", "policy.rules"})
        EXPECT_NE(write({{name, 1}}).find(" gauge\n"), std::string::npos) << name;
}

TEST(MetricsTest, aTimeIsInSecondsToTheMicrosecond)
{
    EXPECT_NE(write({{"loop.p99Microseconds", 42}}).find("statusbroker_loop_p99_seconds 0.000042\n"),
              std::string::npos);
}

TEST(MetricsTest, aNameCannotEndItsLabel)
{
    EXPECT_EQ(textOf("requests.a\"} 1\nfake 2\\"), "# TYPE statusbroker_requests counter\n"
                                                   "statusbroker_requests_total{request=\"a\\\"} 1\\\\nfake "
                                                   "2\\\\\\\\\"} 5\n");
    EXPECT_EQ(textOf("limit.\r\u2028\u202e\xff"), "# TYPE statusbroker_refused counter\n"
                                                  "statusbroker_refused_total{reason=\"limit.\\\\r"
                                                  "\\\\xe2\\\\x80\\\\xa8\\\\xe2\\\\x80\\\\xae\\\\xff\"} 5\n");
}

TEST(MetricsTest, ofTwoNamesThatBecomeOneMetricTheFirstIsWritten)
{
    EXPECT_EQ(write({{"a.b", 1}, {"a_b", 2}}), "# TYPE statusbroker_a_b unknown\nstatusbroker_a_b 1\n");
    EXPECT_EQ(write({{"notifications.published", 1}, {"notifications_published", 2}}),
              "# TYPE statusbroker_notifications_published counter\n"
              "statusbroker_notifications_published_total 1\n");
}

TEST(MetricsTest, aNameCannotPassForASampleOfAnotherFamily)
{
    EXPECT_EQ(write({{"posts", 1}, {"posts.total", 2}}), "# TYPE statusbroker_posts counter\n"
                                                         "statusbroker_posts_total 1\n");
    EXPECT_EQ(write({{"build", 1}, {"build.info", 2}}), "");
    EXPECT_EQ(write({{"value", 7}}, Format::Prometheus, StatusMap{{"a", "1"}}),
              "# TYPE statusbroker_value gauge\nstatusbroker_value{key=\"a\"} 1\n"
              "# TYPE statusbroker_values_left_out gauge\nstatusbroker_values_left_out 0\n");
}

TEST(MetricsTest, whateverByteIsInANameEveryLineIsValid)
{
    const std::regex valid(
        R"(# TYPE [a-z0-9_]+ (gauge|counter|unknown|untyped)|[a-z0-9_]+(\{[a-z]+="([ -!#-\[\]-~]|\\["\\])*"\})? \d+)");
    for (int byte = 0; byte <= UINT8_MAX; ++byte)
    {
        const std::string name(1, static_cast<char>(byte));
        for (const Format format : {Format::OpenMetrics, Format::Prometheus})
        {
            std::istringstream lines(write({{name, 1}, {"requests." + name, 2}, {"limit." + name, 3}}, format,
                                           StatusMap{{name, "4"}}));
            int count = 0;
            for (std::string line; std::getline(lines, line); ++count)
                EXPECT_TRUE(std::regex_match(line, valid)) << "byte " << byte << ": " << line;
            EXPECT_EQ(count, 10) << "byte " << byte;
        }
    }
}

// ------------------------------------------------------------------------------------- the device's values

TEST(MetricsTest, valuesThatAreNumbersAreExportedAsTheyAre)
{
    EXPECT_EQ(exported({{"a", "21"},
                        {"b", "-3.5"},
                        {"c", "1e6"},
                        {"d", "0"},
                        {"e", "12345678901234567890"},
                        {"f", "1e+06"},
                        {"g", "-2.5E+07"},
                        {"h", "1e-05"}}),
              "statusbroker_value{key=\"a\"} 21\n"
              "statusbroker_value{key=\"b\"} -3.5\n"
              "statusbroker_value{key=\"c\"} 1e6\n"
              "statusbroker_value{key=\"d\"} 0\n"
              "statusbroker_value{key=\"e\"} 12345678901234567890\n"
              "statusbroker_value{key=\"f\"} 1e+06\n"
              "statusbroker_value{key=\"g\"} -2.5E+07\n"
              "statusbroker_value{key=\"h\"} 1e-05\n"
              "statusbroker_values_left_out 0\n");
}

TEST(MetricsTest, valuesThatAreNoNumbersAreNotExported)
{
    int number = 0;
    StatusMap values;
    for (const char* text :
         {"",    "open",  "nan", "inf", "-inf", "infinity", "0x1f", "1e999", "+5",  "5 ",  " 5",   "5\n",
          "1,5", "1.2.3", "--1", "-",   "e5",   "5 1",      "+1e5", "1e",    "1e+", "1+5", "1e++5"})
        values["key" + std::to_string(number++)] = text;
    values["long"] = std::string(41, '1');
    EXPECT_EQ(exported(values), "statusbroker_values_left_out 0\n");
}

TEST(MetricsTest, aKeyCannotEndItsLabel)
{
    EXPECT_EQ(exported({{"a\"} 1\nfake 2\\", "5"}}),
              "statusbroker_value{key=\"a\\\"} 1\\\\nfake 2\\\\\\\\\"} 5\n"
              "statusbroker_values_left_out 0\n");
}

TEST(MetricsTest, ofMoreValuesThanThereMayBeTheFirstAreExported)
{
    StatusMap values;
    for (std::size_t number = 0; number < Metrics::mostValues + 7; ++number)
        values["key" + std::to_string(100000 + number)] = "1";
    values["zzz"] = "text";
    const std::string text = exported(values);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), static_cast<int>(Metrics::mostValues) + 1);
    EXPECT_NE(text.find("statusbroker_values_left_out 7\n"), std::string::npos);
    EXPECT_NE(text.find("\"key100999\""), std::string::npos);
    EXPECT_EQ(text.find("\"key101000\""), std::string::npos);
}
