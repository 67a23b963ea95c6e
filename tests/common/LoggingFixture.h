#ifndef TESTS_COMMON_LOGGINGFIXTURE_H
#define TESTS_COMMON_LOGGINGFIXTURE_H

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "common/Logging.h"
#include "tests/support/LogCapture.h"

/// Helpers for tests of logging. Each test file has its own control words.

constexpr unsigned int messagesBit = 1U << 31;
constexpr unsigned int tracesBit = 1U << 30;

using Texts = std::vector<std::string>;

/// Runs `work` with stderr redirected to a pipe, and returns the output.
template <class Work>
std::string stderrOf(Work work)
{
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

inline int occurrences(const std::string& output, const std::string& text)
{
    int count = 0;
    for (std::size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1))
        ++count;
    return count;
}

/// Captures the messages, and resets all control words at the end.
class LoggingTest : public testing::Test
{
protected:
    void TearDown() override
    {
        ov_log_configure("*=5:ffffffff");
        ov_log_indent = 0;
        ov_log_indent_size = 2;
    }

    LogCapture log;
};

#endif
