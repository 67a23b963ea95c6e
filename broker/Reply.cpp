#include "broker/Reply.h"

#include <algorithm>
#include <numeric>

#include "broker/wire/FrameWriter.h"
#include "protocol/BrokerDocuments.h"
#include "protocol/Words.h"

using namespace std::string_view_literals;

namespace
{

constexpr std::size_t frameBytes = BrokerProtocol::maxFrameBytes;

// A request socket expects this before an answer: an empty frame, with more to come.
constexpr std::string_view delimiter = "\1\0"sv;

} // namespace

Reply Reply::of(std::vector<std::string_view> keys)
{
    return Reply(Values::Listed, std::move(keys));
}

Reply Reply::detailsOf(std::vector<std::string_view> keys)
{
    return Reply(Values::Detailed, std::move(keys));
}

Reply::Reply(Values values, std::vector<std::string_view> keys) : mValues(values)
{
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    mKeys.reserve(std::accumulate(keys.begin(), keys.end(), std::size_t{0},
                                  [](std::size_t sum, std::string_view key) { return sum + key.size(); }));
    mKeyEnds.reserve(keys.size());
    for (const std::string_view key : keys)
    {
        mKeys += key;
        mKeyEnds.push_back(static_cast<uint32_t>(mKeys.size()));
    }
}

// The last frame must not be empty: clients would take that for a failure. So a frame is completed only if
// more follows.
bool Reply::produce(const DeviceState& state, const Shows& shows, std::size_t bytes, std::string& to)
{
    const auto append = [&to](std::string_view part) { to += part; };
    if (!mHasBegun)
        to += delimiter;
    mHasBegun = true;
    extend(state, shows, bytes);
    std::string_view text = mText;
    to.reserve(to.size() + text.size() + (text.size() / frameBytes + 1) * FrameWriter::longHeader);
    for (; text.size() > frameBytes; text.remove_prefix(frameBytes))
        FrameWriter::frame(append, text.substr(0, frameBytes), FrameWriter::moreFlag);
    if (mIsComplete)
        FrameWriter::frame(append, text, 0);
    else
        keep(text.size());
    return mIsComplete;
}

// Keeps the end of the text. Many readers may be slow, so none of them holds the room of a long value.
void Reply::keep(std::size_t bytes)
{
    if (mText.capacity() > 2 * pieceBytes)
        std::string(mText, mText.size() - bytes).swap(mText);
    else
        mText.erase(0, mText.size() - bytes);
}

// Extends the text by one more frame, since the last frame is held back.
void Reply::extend(const DeviceState& state, const Shows& shows, std::size_t bytes)
{
    if (mIsComplete)
        return;
    if (!mHasMembers && mText.empty())
        begin();
    while (mText.size() < bytes + frameBytes)
    {
        if (appendNext(state, shows))
            continue;
        mText += key() == nullptr ? "}" : "}}";
        mIsComplete = true;
        return;
    }
}

// The key of the answer's members; null if they are at the top level.
const char* Reply::key() const
{
    switch (mValues)
    {
    case Values::Detailed:
        return BrokerProtocol::Key::statusDetails;
    case Values::Timers:
        return BrokerProtocol::Key::timers;
    case Values::Counters:
        return BrokerProtocol::Key::counters;
    case Values::None:
    case Values::All:
    case Values::Listed:
        break;
    }
    return nullptr;
}

void Reply::begin()
{
    mText = "{";
    if (key() == nullptr)
        return;
    BrokerProtocol::appendText(mText, key());
    mText += ":{";
}

// Returns false if there are no more.
bool Reply::appendNext(const DeviceState& state, const Shows& shows)
{
    if (mValues == Values::Timers || mValues == Values::Counters)
        return appendNextMeasure(state, shows);
    const DeviceState::Value* value = nextShown(state, shows);
    if (value == nullptr)
        return false;
    appendName(value->key);
    if (mValues == Values::Detailed)
        BrokerProtocol::appendDetails(mText, state.details(*value));
    else
        BrokerProtocol::appendText(mText, value->text);
    return true;
}

bool Reply::appendNextMeasure(const DeviceState& state, const Shows& shows)
{
    const bool isOfTimers = mValues == Values::Timers;
    const std::string* name = nullptr;
    do
    {
        name = isOfTimers ? state.timerBehind(mLastKey) : state.counterBehind(mLastKey);
        if (name == nullptr)
            return false;
        mLastKey = *name;
    } while (shows && !shows(Kind::Measure, *name));
    appendName(*name);
    if (isOfTimers)
        BrokerProtocol::appendTimer(mText, state.timer(*name));
    else
        mText += std::to_string(state.counter(*name));
    return true;
}

void Reply::appendName(std::string_view name)
{
    if (mHasMembers)
        mText += ',';
    BrokerProtocol::appendText(mText, name);
    mText += ':';
    mHasMembers = true;
}

const DeviceState::Value* Reply::nextShown(const DeviceState& state, const Shows& shows)
{
    const DeviceState::Value* value = next(state);
    while (value != nullptr && shows && !shows(Kind::Value, value->key))
        value = next(state);
    return value;
}

const DeviceState::Value* Reply::next(const DeviceState& state)
{
    if (mValues == Values::All)
    {
        const DeviceState::Value* value = state.behind(mLastKey);
        if (value != nullptr)
            mLastKey = value->key;
        return value;
    }
    while (mNextKey < mKeyEnds.size())
    {
        const std::size_t begin = mNextKey == 0 ? 0 : mKeyEnds[mNextKey - 1];
        const std::size_t end = mKeyEnds[mNextKey++];
        if (const DeviceState::Value* value = state.find(std::string_view(mKeys).substr(begin, end - begin)))
            return value;
    }
    return nullptr;
}

std::size_t Reply::heldBytes() const
{
    return mText.capacity() + mKeys.capacity() + mKeyEnds.capacity() * sizeof(mKeyEnds.front());
}
