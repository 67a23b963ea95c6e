// Trace scopes.

#include <thread>

#include "tests/common/LoggingFixture.h"

OV_LOG_CONTROL_WORDS;

namespace
{

void traced(int level)
{
    OV_TRACE(level);
}

} // namespace

TEST_F(LoggingTest, aTraceScopeLogsBeginAndEndAtTheSamePlace)
{
    ov_log_configure("TracesTest=7:40000000");
    traced(7);
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text, "begin");
    EXPECT_EQ(lines[1].text, "end");
    EXPECT_EQ(lines[0].function, lines[1].function);
    EXPECT_EQ(lines[0].file, lines[1].file);
    EXPECT_EQ(lines[0].line, lines[1].line);
    EXPECT_EQ(lines[0].level, 7);
}

TEST_F(LoggingTest, withoutBitThirtyATraceScopeIsSilent)
{
    ov_log_configure("TracesTest=7:bfffffff");
    traced(6);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(LoggingTest, aTraceScopeAboveTheLevelIsSilent)
{
    ov_log_configure("TracesTest=6:ffffffff");
    traced(7);
    EXPECT_TRUE(log.lines().empty());
    traced(6);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(LoggingTest, beginIsDeeperAndEndShallower)
{
    ov_log_configure("TracesTest=7:40000000");
    ov_log_indent_size = 4;
    traced(7);
    EXPECT_EQ(log.lines()[0].indent, 4);
    EXPECT_EQ(log.lines()[1].indent, 0);
}

TEST_F(LoggingTest, nestedTraceScopesStepInAndOutAgain)
{
    ov_log_configure("TracesTest=7:40000000");
    {
        OV_TRACE(7);
        traced(7);
    }
    std::vector<int> indents;
    for (const LogLine& line : log.lines())
        indents.push_back(line.indent);
    EXPECT_EQ(log.texts(), (Texts{"begin", "begin", "end", "end"}));
    EXPECT_EQ(indents, (std::vector<int>{2, 4, 2, 0}));
}

TEST_F(LoggingTest, aTraceScopeNeedsNoneOfTheOtherFlags)
{
    volatile unsigned int flags = tracesBit;
    volatile int level = 6;
    {
        const Tracer tracer(6, "int f()", "/f.cpp", 12, flags, level);
    }
    ASSERT_EQ(log.lines().size(), 2U);
    for (const LogLine& line : log.lines())
    {
        EXPECT_EQ(line.level, 6);
        EXPECT_EQ(line.function, "int f()");
        EXPECT_EQ(line.file, "/f.cpp");
        EXPECT_EQ(line.line, 12);
    }
}

TEST_F(LoggingTest, aLevelLoweredInsideATraceScopeSilencesItsEnd)
{
    ov_log_configure("TracesTest=7:40000000");
    {
        OV_TRACE(7);
        ov_log_configure("TracesTest=6");
    }
    EXPECT_EQ(log.texts(), Texts{"begin"});
}

TEST_F(LoggingTest, traceScopesOfConcurrentThreadsAllBeginAndEnd)
{
    ov_log_configure("TracesTest=7:40000000");
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back(
            []
            {
                for (int count = 0; count < 100; ++count)
                    traced(7);
            });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(log.count(7, "begin"), 400U);
    EXPECT_EQ(log.count(7, "end"), 400U);
}

TEST_F(LoggingTest, theControlWordsAreReadAgainAtTheEnd)
{
    ov_log_configure("TracesTest=7:40000000");
    {
        OV_TRACE(7);
        ov_log_configure("TracesTest=7:0");
    }
    EXPECT_EQ(log.texts(), Texts{"begin"});
    log.clear();
    {
        OV_TRACE(7);
        ov_log_configure("TracesTest=7:40000000");
    }
    EXPECT_EQ(log.texts(), Texts{"end"});
}

TEST_F(LoggingTest, anIndentationOfZeroStaysZeroAtAnEnd)
{
    for (const int indent : {0, -5})
    {
        volatile unsigned int flags = 0;
        volatile int level = 7;
        {
            const Tracer tracer(7, "f", "/f.cpp", 1, flags, level);
            flags = tracesBit;
            ov_log_indent = indent;
        }
        EXPECT_EQ(ov_log_indent, 0);
    }
}

TEST_F(LoggingTest, aStepWiderThanTheIndentationTakesItBelowZero)
{
    volatile unsigned int flags = 0;
    volatile int level = 7;
    ov_log_indent_size = 4;
    {
        const Tracer tracer(7, "f", "/f.cpp", 1, flags, level);
        flags = tracesBit;
        ov_log_indent = 1;
    }
    EXPECT_EQ(ov_log_indent, -3);
}

TEST_F(LoggingTest, aTraceScopeEndsWhenAnExceptionLeavesIt)
{
    ov_log_configure("TracesTest=7:40000000");
    try
    {
        OV_TRACE(7);
        throw 1;
    }
    catch (int)
    {
    }
    EXPECT_EQ(log.texts(), (Texts{"begin", "end"}));
}
