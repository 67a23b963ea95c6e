#include "broker/FilteredMessages.h"

#include <gtest/gtest.h>

namespace
{

// Never dereferenced.
const auto* const one = reinterpret_cast<const PolicyClass*>(1);
const auto* const other = reinterpret_cast<const PolicyClass*>(2);

} // namespace

TEST(FilteredMessages, areKeptForEachMessageAndKindOfClient)
{
    FilteredMessages messages;
    EXPECT_EQ(messages.find({0, one}), nullptr);
    EXPECT_EQ(messages.add({0, one}, "a"), "a");
    EXPECT_EQ(messages.add({0, other}, ""), "");
    messages.add({5, one}, "b");
    ASSERT_NE(messages.find({0, one}), nullptr);
    EXPECT_EQ(*messages.find({0, one}), "a");
    EXPECT_EQ(*messages.find({0, other}), "");
    EXPECT_EQ(*messages.find({5, one}), "b");
    EXPECT_EQ(messages.find({5, other}), nullptr);
}

TEST(FilteredMessages, areBoundedAndTheLastOneIsThere)
{
    FilteredMessages messages;
    messages.add({0, one}, std::string(FilteredMessages::mostBytes / 2, 'x'));
    messages.add({1, one}, std::string(FilteredMessages::mostBytes / 2, 'y'));
    EXPECT_EQ(messages.find({0, one}), nullptr);
    ASSERT_NE(messages.find({1, one}), nullptr);
    for (NotificationLog::Position position = 2; position < 100000; ++position)
        messages.add({position, one}, "");
    EXPECT_EQ(messages.find({2, one}), nullptr) << "empty ones take memory, too";
    messages.add({0, other}, std::string(FilteredMessages::mostBytes, 'z'));
    messages.add({1, other}, "behind a long one");
    EXPECT_EQ(messages.find({0, other}), nullptr) << "the long one counts, too";
}

TEST(FilteredMessages, areGoneWhenCleared)
{
    FilteredMessages messages;
    messages.add({0, one}, "a");
    messages.clear();
    EXPECT_EQ(messages.find({0, one}), nullptr);
}
