// Wrong arguments of the functions of status.h.

#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "statusmanager/helpers/FakeStatusManager.h"
#include "tests/c/Opened.h"

namespace
{

class Arguments : public testing::Test
{
protected:
    // Each function that takes a name, with this name.
    std::vector<int> resultsWithName(const char* name) const
    {
        char* value = nullptr;
        status_values_t* values = nullptr;
        uint64_t number = 0;
        uint32_t count = 0;
        const char* const names[]{"good", name};
        const status_pair_t pairs[]{{"good", "1"}, {name, "2"}};
        return {status_post(opened, name, "v"),
                status_post_many(opened, pairs, 2),
                status_reset(opened, name),
                status_post_event(opened, name, "v", 0),
                status_get(opened, name, patienceMs, &value),
                status_get_many(opened, names, 2, patienceMs, &values),
                status_ask(opened, STATUS_ASK_VALUE, name, 0),
                status_ask(opened, STATUS_ASK_COUNTER, name, 0),
                status_ask_many(opened, names, 2, 0),
                status_subscribe(opened, names, 2),
                status_unsubscribe(opened, names, 2),
                status_subscribe_events(opened, names, 2),
                status_unsubscribe_events(opened, names, 2),
                status_timer_start(opened, name),
                status_timer_stop(opened, name),
                status_timer_reset(opened, name),
                status_timer_restart(opened, name),
                status_timer_elapsed(opened, name, patienceMs, &number),
                status_timer_started(opened, name, patienceMs, &number),
                status_counter_get(opened, name, patienceMs, &count),
                status_counter_increment(opened, name, patienceMs, &count),
                status_counter_set(opened, name, 1)};
    }

    // Each function that takes a value, with this value.
    std::vector<int> resultsWithValue(const char* value) const
    {
        const status_pair_t pairs[]{{"good", "1"}, {"key", value}};
        return {status_post(opened, "key", value), status_post_many(opened, pairs, 2),
                status_post_event(opened, "key", value, 0)};
    }

    bool hasDoneNothing()
    {
        return opened.sync() == STATUS_OK && device.posts().empty() && device.events().empty() &&
               device.getCounterValue("good") == 0 && !opened.isReadable();
    }

    status::FakeStatusManager device;
    Opened opened;
};

void expectAll(const std::vector<int>& results, int expected)
{
    EXPECT_EQ(results, std::vector<int>(results.size(), expected));
}

} // namespace

TEST_F(Arguments, aNameThatIsNullOrEmptyIsInvalid)
{
    expectAll(resultsWithName(nullptr), STATUS_EINVAL);
    expectAll(resultsWithName(""), STATUS_EINVAL);
    EXPECT_TRUE(hasDoneNothing());
}

TEST_F(Arguments, aNameIsAtMost255Bytes)
{
    expectAll(resultsWithName(std::string(STATUS_NAME_BYTES + 1, 'n').c_str()), STATUS_ETOOLONG);
    EXPECT_TRUE(hasDoneNothing());
    EXPECT_EQ(status_post(opened, std::string(STATUS_NAME_BYTES, 'n').c_str(), "v"), STATUS_OK);
}

TEST_F(Arguments, aNameIsUtf8)
{
    for (const char* const name : {"\xff", "a\xe2\x82", "\xc0\xaf", "\xed\xa0\x80"})
        expectAll(resultsWithName(name), STATUS_EUTF8);
    EXPECT_TRUE(hasDoneNothing());
    EXPECT_EQ(status_post(opened, "T\xc3\xbcr", "\xe2\x82\xac"), STATUS_OK);
    EXPECT_EQ(opened.get("T\xc3\xbcr"), "\xe2\x82\xac");
}

TEST_F(Arguments, aValueMayBeEmptyButNotNull)
{
    expectAll(resultsWithValue(nullptr), STATUS_EINVAL);
    EXPECT_TRUE(hasDoneNothing());
    expectAll(resultsWithValue(""), STATUS_OK);
}

TEST_F(Arguments, aValueIsAtMost65536Bytes)
{
    expectAll(resultsWithValue(std::string(STATUS_VALUE_BYTES + 1, 'v').c_str()), STATUS_ETOOLONG);
    EXPECT_TRUE(hasDoneNothing());
    expectAll(resultsWithValue(std::string(STATUS_VALUE_BYTES, 'v').c_str()), STATUS_OK);
}

TEST_F(Arguments, aValueIsUtf8)
{
    expectAll(resultsWithValue("\x80"), STATUS_EUTF8);
    EXPECT_TRUE(hasDoneNothing());
}

TEST_F(Arguments, listsHaveOneNameOrMore)
{
    const char* const names[]{"name"};
    const status_pair_t pairs[]{{"name", "value"}};
    status_values_t* values = nullptr;
    for (const bool isNull : {false, true})
    {
        const size_t count = isNull ? 1 : 0;
        const char* const* const list = isNull ? nullptr : names;
        expectAll({status_post_many(opened, isNull ? nullptr : pairs, count),
                   status_get_many(opened, list, count, patienceMs, &values),
                   status_ask_many(opened, list, count, 0), status_subscribe(opened, list, count),
                   status_unsubscribe(opened, list, count), status_subscribe_events(opened, list, count),
                   status_unsubscribe_events(opened, list, count)},
                  STATUS_EINVAL);
    }
    EXPECT_TRUE(hasDoneNothing());
}

TEST_F(Arguments, listsHaveALimit)
{
    const std::vector<const char*> names(STATUS_COUNT_MOST + 1, "name");
    EXPECT_EQ(opened.subscribe(names), STATUS_ETOOLONG);
    EXPECT_EQ(status_subscribe(opened, names.data(), SIZE_MAX), STATUS_ETOOLONG); // reads none of them
    const std::string value(STATUS_VALUE_BYTES, 'v');
    const std::vector<status_pair_t> pairs(17, {"key", value.c_str()});
    EXPECT_EQ(status_post_many(opened, pairs.data(), pairs.size()), STATUS_ETOOLONG); // more than a message
    EXPECT_TRUE(hasDoneNothing());
}

TEST_F(Arguments, resultsNeedAPlace)
{
    const char* const names[]{"name"};
    expectAll({status_open(patienceMs, nullptr), status_get(opened, "name", patienceMs, nullptr),
               status_get_many(opened, names, 1, patienceMs, nullptr),
               status_get_all(opened, patienceMs, nullptr),
               status_timer_elapsed(opened, "name", patienceMs, nullptr),
               status_timer_started(opened, "name", patienceMs, nullptr),
               status_counter_get(opened, "name", patienceMs, nullptr), status_next(opened, nullptr)},
              STATUS_EINVAL);
}

TEST_F(Arguments, anUnknownQuestionIsInvalid)
{
    for (const int question : {-1, 0, STATUS_ASK_SYNC + 1, 100})
        EXPECT_EQ(status_ask(opened, question, "name", 0), STATUS_EINVAL);
    for (const int question : {STATUS_ASK_ALL, STATUS_ASK_SYNC})
        EXPECT_EQ(status_ask(opened, question, "name", 0), STATUS_EINVAL); // it takes no name
    EXPECT_TRUE(hasDoneNothing());
}

TEST_F(Arguments, nullIsNoStatus)
{
    const char* const names[]{"name"};
    const status_pair_t pairs[]{{"name", "value"}};
    status_item_t* item = nullptr;
    expectAll({status_close(nullptr), status_post(nullptr, "k", "v"), status_post_many(nullptr, pairs, 1),
               status_subscribe(nullptr, names, 1), status_sync(nullptr, patienceMs), status_fd(nullptr),
               status_next(nullptr, &item), static_cast<int>(status_dropped(nullptr)),
               status_timer_start(nullptr, "t")},
              STATUS_EINVAL);
}

TEST_F(Arguments, anythingElseIsNoOpenStatus)
{
    char object = 0;
    auto* const foreign = reinterpret_cast<status_t*>(&object);
    EXPECT_EQ(status_post(foreign, "k", "v"), STATUS_ECLOSED);
    EXPECT_EQ(status_close(foreign), STATUS_ECLOSED);
}

// --------------------------------------------------------------------------- messages that cannot be carried

TEST_F(Arguments, aMessageThatWouldLoseItsEndIsRefused)
{
    // {"postStatus":{"k":""}}
    const std::string value(512 - 23, 'v');
    EXPECT_EQ(status_post(opened, "k", value.c_str()), STATUS_EUNSENDABLE);
    EXPECT_EQ(status_post(opened, "k", std::string(1024 - 23, 'v').c_str()), STATUS_EUNSENDABLE);
    EXPECT_EQ(opened.post({{"k", value}}), STATUS_EUNSENDABLE);
    // {"postEvent":{"k":""}}
    EXPECT_EQ(status_post_event(opened, "k", (value + 'v').c_str(), 0), STATUS_EUNSENDABLE);
    EXPECT_TRUE(hasDoneNothing());
    EXPECT_EQ(status_post(opened, "k", (value + 'v').c_str()), STATUS_OK);
    EXPECT_EQ(status_post_event(opened, "k", value.c_str(), 0), STATUS_OK);
}

// Characters beyond ASCII take six bytes each in a message.
TEST_F(Arguments, aNameOfWhichNoMessageCanBeMadeIsRefused)
{
    const auto nameFor = [](std::size_t documentBytes)
    {
        std::string name;
        std::size_t bytes = documentBytes;
        for (; bytes + 6 <= 512; bytes += 6)
            name += "\xc3\xbc";
        return name.append(512 - bytes, 'n');
    };
    // {"startTimer":""} and so on
    EXPECT_EQ(status_timer_start(opened, nameFor(17).c_str()), STATUS_EUNSENDABLE);
    EXPECT_EQ(status_reset(opened, nameFor(20).c_str()), STATUS_EUNSENDABLE);
    EXPECT_EQ(status_counter_set(opened, nameFor(26).c_str(), 7), STATUS_EUNSENDABLE);
    uint32_t value = 0;
    EXPECT_EQ(status_counter_get(opened, nameFor(22).c_str(), patienceMs, &value), STATUS_EUNSENDABLE);
    EXPECT_TRUE(hasDoneNothing());
}

TEST_F(Arguments, aQuestionForValuesIsMadeSendable)
{
    // {"getClientInfoValues":["a","..."]}: asks for the last name twice
    std::vector<std::string> texts;
    std::vector<const char*> names;
    for (int count = 0; count < 5; ++count)
        texts.emplace_back(std::string(90, static_cast<char>('a' + count)));
    texts.emplace_back(std::string(512 - 26 - 5 * 93 - 2, 'z'));
    for (const std::string& text : texts)
        names.push_back(text.c_str());
    device.change(texts.back(), "1");
    status_values_t* values = nullptr;
    ASSERT_EQ(status_get_many(opened, names.data(), names.size(), patienceMs, &values), STATUS_OK);
    EXPECT_EQ(mapOf(*values), (StatusMap{{texts.back(), "1"}}));
    status_free(values);
}
