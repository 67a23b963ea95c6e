#ifndef TESTS_C_OPENED_H
#define TESTS_C_OPENED_H

#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <ostream>
#include <poll.h>
#include <string>
#include <utility>
#include <vector>

#include "statusmanager/StatusTypes.h"
#include "statusmanager/status.h"
#include "tests/support/Wait.h"

/// Long enough for every answer.
constexpr int patienceMs = static_cast<int>(std::chrono::milliseconds(testDeadline).count());

/// A copy of an item.
struct Taken
{
    int kind = 0; ///< 0: there was no item
    int result = 0;
    uint64_t tag = 0;
    uint64_t number = 0;
    std::string key;
    std::string value;
    StatusMap values;
};

inline bool operator==(const Taken& a, const Taken& b)
{
    return a.kind == b.kind && a.result == b.result && a.tag == b.tag && a.number == b.number &&
           a.key == b.key && a.value == b.value && a.values == b.values;
}

inline void PrintTo(const Taken& item, std::ostream* stream)
{
    *stream << "{kind " << item.kind << ", result " << item.result << ", tag " << item.tag << ", number "
            << item.number << ", [" << item.key << "]=[" << item.value << "], " << item.values.size()
            << " values}";
}

inline Taken change(std::string key, std::string value)
{
    return {STATUS_CHANGE, 0, 0, 0, std::move(key), std::move(value), {}};
}

inline Taken event(std::string name, std::string value)
{
    return {STATUS_EVENT, 0, 0, 0, std::move(name), std::move(value), {}};
}

inline Taken synced(int result = STATUS_OK)
{
    return {STATUS_SYNCED, result, 0, 0, "", "", {}};
}

inline StatusMap mapOf(const status_values_t& values)
{
    StatusMap map;
    for (std::size_t at = 0; at < values.count; ++at)
        map[values.pairs[at].key] = values.pairs[at].value;
    return map;
}

/// An open status, with the functions of status.h in the form that tests need.
class Opened
{
public:
    explicit Opened(int timeoutMs = patienceMs) { EXPECT_EQ(status_open(timeoutMs, &mStatus), STATUS_OK); }
    ~Opened() { status_close(mStatus); }

    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    operator status_t*() const { return mStatus; } // NOLINT: stands for the pointer in all calls

    /// Whether the descriptor is readable.
    bool isReadable(int timeoutMs = 0) const
    {
        pollfd descriptor{status_fd(mStatus), POLLIN, 0};
        return poll(&descriptor, 1, timeoutMs) == 1 && (descriptor.revents & POLLIN) != 0;
    }

    /// The next item; kind 0 if there is none now. A negative result of status_next() is `result`.
    Taken takeNow() const
    {
        status_item_t* item = nullptr;
        const int result = status_next(mStatus, &item);
        if (result != 1)
            return {0, result, 0, 0, "", "", {}};
        Taken taken{item->kind, item->result, item->tag,          item->number,
                    item->key,  item->value,  mapOf(item->values)};
        status_free(item);
        return taken;
    }

    /// Waits for the next item.
    Taken take() const { return isReadable(patienceMs) ? takeNow() : Taken{}; }

    int subscribe(const std::vector<const char*>& keys) const
    {
        return status_subscribe(mStatus, keys.data(), keys.size());
    }
    int unsubscribe(const std::vector<const char*>& keys) const
    {
        return status_unsubscribe(mStatus, keys.data(), keys.size());
    }
    int subscribeEvents(const std::vector<const char*>& names) const
    {
        return status_subscribe_events(mStatus, names.data(), names.size());
    }
    int unsubscribeEvents(const std::vector<const char*>& names) const
    {
        return status_unsubscribe_events(mStatus, names.data(), names.size());
    }

    int post(const StatusMap& values) const
    {
        std::vector<status_pair_t> pairs;
        for (const auto& [key, value] : values)
            pairs.push_back({key.c_str(), value.c_str()});
        return status_post_many(mStatus, pairs.data(), pairs.size());
    }

    /// The value; nothing if the call fails, with its result in `result`.
    std::optional<std::string> get(const char* key, int timeoutMs = patienceMs, int* result = nullptr) const
    {
        char* value = nullptr;
        const int code = status_get(mStatus, key, timeoutMs, &value);
        if (result != nullptr)
            *result = code;
        if (code != STATUS_OK)
            return std::nullopt;
        std::string text = value;
        status_free(value);
        return text;
    }

    /// The result of status_get().
    int resultOfGet(const char* key, int timeoutMs = patienceMs) const
    {
        int result = 1;
        get(key, timeoutMs, &result);
        return result;
    }

    int sync(int timeoutMs = patienceMs) const { return status_sync(mStatus, timeoutMs); }

private:
    status_t* mStatus = nullptr;
};

#endif
