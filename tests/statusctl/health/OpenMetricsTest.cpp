#include "statusctl/health/OpenMetrics.h"

#include <gtest/gtest.h>

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
