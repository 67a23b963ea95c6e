// Messages and control words when memory runs out.

#include <gtest/gtest.h>

#include "common/Logging.h"
#include "tests/memory/FailingMemory.h"

OV_LOG_CONTROL_WORDS;

using FailingMemory::failEach;
using FailingMemory::Failure;

namespace
{

const std::string longText(1000, 'x');

// Receives messages, and keeps the last one.
struct Heard
{
    Heard() { ov_log_set_sink(&Heard::hear, this); }
    ~Heard() { ov_log_set_sink(nullptr, nullptr); }

    Heard(const Heard&) = delete;
    Heard& operator=(const Heard&) = delete;

    static void hear(const ov_log_record* record, void* heard)
    {
        const FailingMemory::Spared spared;
        static_cast<Heard*>(heard)->text = record->text;
    }

    std::string text;
};

struct Words
{
    unsigned flags = logFlags;
    int level = logLevel;

    friend bool operator==(const Words& a, const Words& b)
    {
        return a.flags == b.flags && a.level == b.level;
    }
};

} // namespace

TEST(LoggingMemory, aMessageIsPrintedWholeOrNotAtAll)
{
    Heard heard;
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            heard.text.clear();
            const bool hasStruck = failure.during([] { OV_LOG(0, "%s", longText.c_str()); });
            EXPECT_TRUE(heard.text == longText || (hasStruck && heard.text.empty()));
            OV_LOG(0, "%s", longText.c_str());
            EXPECT_EQ(heard.text, longText);
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}

TEST(LoggingMemory, aMessageOnStderrMayBeLostButDoesNotThrow)
{
    const unsigned struck = failEach(
        [&](const Failure& failure)
        { return failure.during([] { OV_LOG(0, "%s", "a message that is longer than a string itself"); }); });
    EXPECT_GT(struck, 0U);
}

TEST(LoggingMemory, controlWordsAreChangedAsAllRulesSayOrNotAtAll)
{
    const Words before;
    constexpr const char* rules = "*=1:1,tests/memory/LoggingMemoryTest=7,LoggingMemory*=6,*=7:80000000";
    const unsigned struck = failEach(
        [&](const Failure& failure)
        {
            int result = 0;
            const bool hasStruck = failure.during([&] { result = ov_log_configure(rules); });
            const Words then;
            if (result == 0)
                EXPECT_TRUE(then.level == 7 && then.flags == 0x80000000U);
            else
                EXPECT_TRUE(then == before);
            EXPECT_EQ(result, hasStruck ? -1 : 0);
            ov_log_configure("*=5:ffffffff");
            return hasStruck;
        });
    EXPECT_GT(struck, 0U);
}
