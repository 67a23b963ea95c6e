#include "broker/wire/FrameWriter.h"

#include <gtest/gtest.h>

#include "tests/support/WireFrames.h"

namespace
{

std::string written(std::string_view text)
{
    std::string bytes;
    FrameWriter::message([&](std::string_view part) { bytes += part; }, text);
    return bytes;
}

} // namespace

TEST(FrameWriterTest, aShortTextIsOneFrame)
{
    EXPECT_EQ(written("one"), std::string("\0\3one", 5));
    EXPECT_EQ(written(std::string(255, 'x')), std::string("\0\xff", 2) + std::string(255, 'x'));
}

TEST(FrameWriterTest, from256BytesOnTheLengthTakesEightBytes)
{
    EXPECT_EQ(written(std::string(256, 'x')), std::string("\2\0\0\0\0\0\0\1\0", 9) + std::string(256, 'x'));
    EXPECT_EQ(written(std::string(300, 'x')), std::string("\2\0\0\0\0\0\0\1\x2c", 9) + std::string(300, 'x'));
    EXPECT_EQ(written(std::string(512, 'x')), std::string("\2\0\0\0\0\0\0\2\0", 9) + std::string(512, 'x'));
}

TEST(FrameWriterTest, aLongTextIsFramesOf512BytesAndTheRest)
{
    const std::string first = std::string("\3\0\0\0\0\0\0\2\0", 9) + std::string(512, 'x');
    EXPECT_EQ(written(std::string(513, 'x')), first + std::string("\0\1x", 3));
    EXPECT_EQ(written(std::string(1024, 'x')),
              first + std::string("\2\0\0\0\0\0\0\2\0", 9) + std::string(512, 'x'));
    EXPECT_EQ(written(std::string(600, 'x')), first + std::string("\0\x58", 2) + std::string(88, 'x'));
}

TEST(FrameWriterTest, onlyAnEmptyTextHasAnEmptyFrame)
{
    EXPECT_EQ(written(""), std::string("\0\0", 2));
    for (std::size_t size = 1; size < 3000; ++size)
    {
        std::string text(size, 'x');
        text.back() = 'y';
        std::string together;
        const std::vector<WireFrames::Frame> frames = WireFrames::framesIn(written(text));
        for (std::size_t index = 0; index < frames.size(); ++index)
        {
            ASSERT_FALSE(frames[index].body.empty()) << size;
            ASSERT_LE(frames[index].body.size(), 512U) << size;
            ASSERT_EQ((frames[index].flags & WireFrames::more) != 0, index + 1 < frames.size()) << size;
            together += frames[index].body;
        }
        ASSERT_EQ(together, text);
    }
}

TEST(FrameWriterTest, aCommandIsMarkedAsOne)
{
    std::string bytes;
    FrameWriter::frame([&](std::string_view part) { bytes += part; }, "\4PING", FrameWriter::commandFlag);
    EXPECT_EQ(bytes, "\4\5\4PING");
}
