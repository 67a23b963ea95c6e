// Sinks, which take messages instead of standard error.

#include <atomic>
#include <deque>
#include <thread>

#include "tests/common/LoggingFixture.h"

OV_LOG_CONTROL_WORDS;

TEST(Sink, mayBeSetAndTakenAway)
{
    const std::string output = stderrOf(
        []
        {
            {
                const LogCapture log;
                OV_LOG(2, "to the sink");
                EXPECT_TRUE(log.has(2, "to the sink"));
            }
            OV_LOG(2, "to stderr");
        });
    EXPECT_EQ(output.find("to the sink"), std::string::npos);
    EXPECT_NE(output.find("to stderr"), std::string::npos);
}

namespace
{

struct Noted
{
    std::atomic<int> messages{0};
    std::string text;
};

// A thread may still call a replaced sink, so its context must live until the process ends.
Noted& newContext()
{
    static auto* contexts = new std::deque<Noted>;
    return contexts->emplace_back();
}

void note(const ov_log_record* record, void* context)
{
    auto* noted = static_cast<Noted*>(context);
    ++noted->messages;
    noted->text = record->text;
}

void count(const ov_log_record*, void* context)
{
    ++static_cast<Noted*>(context)->messages;
}

// Logs again during the first message, and removes itself at the second.
void logAgain(const ov_log_record*, void* context)
{
    if (++static_cast<Noted*>(context)->messages == 1)
        OV_LOG(2, "from the sink");
    else
        ov_log_set_sink(nullptr, nullptr);
}

class SinkTest : public testing::Test
{
protected:
    Noted& noted = newContext();

    void TearDown() override { ov_log_set_sink(nullptr, nullptr); }
};

} // namespace

TEST_F(SinkTest, getsItsContextAndTheTextAsItIs)
{
    ov_log_set_sink(note, &noted);
    OV_LOG(2, "[%s]", "a\nb\x1b");
    EXPECT_EQ(noted.messages, 1);
    EXPECT_EQ(noted.text, "[a\nb\x1b]");
}

TEST_F(SinkTest, mayLogAndReplaceItself)
{
    const std::string output = stderrOf(
        [&]
        {
            ov_log_set_sink(logAgain, &noted);
            OV_LOG(2, "to the sink");
            OV_LOG(2, "to stderr");
        });
    EXPECT_EQ(noted.messages, 2);
    EXPECT_EQ(occurrences(output, "\n"), 1);
    EXPECT_EQ(occurrences(output, "to stderr\n"), 1);
}

TEST_F(SinkTest, mayBeReplacedWhileOtherThreadsLogAndNoMessageIsLost)
{
    Noted& other = newContext();
    ov_log_set_sink(count, &noted);
    std::vector<std::thread> threads;
    for (int index = 0; index < 2; ++index)
        threads.emplace_back(
            []
            {
                for (int message = 0; message < 1000; ++message)
                    OV_LOG(2, "text");
            });
    for (int round = 0; round < 500; ++round)
        ov_log_set_sink(count, round % 2 == 0 ? &other : &noted);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(noted.messages + other.messages, 2000);
}
