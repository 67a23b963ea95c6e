#include "broker/Reply.h"

#include <algorithm>

#include "broker/wire/FrameWriter.h"
#include "protocol/BrokerDocuments.h"
#include "protocol/Words.h"

using namespace std::string_view_literals;

namespace
{

constexpr std::size_t frameBytes = BrokerProtocol::maxFrameBytes;

// What a request socket expects in front of an answer: an empty frame, and more to come.
constexpr std::string_view delimiter = "\1\0"sv;

} // namespace

Reply Reply::of(std::vector<std::string> keys)
{
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    return Reply(Values::Listed, std::move(keys));
}

// The last frame must not be empty, which clients take for a failure; so a frame is cut off only where more
// follows.
bool Reply::produce(const DeviceState& state, std::size_t bytes, std::string& to)
{
    const auto append = [&to](std::string_view part) { to += part; };
    if (!mHasBegun)
        to += delimiter;
    mHasBegun = true;
    extend(state, bytes);
    std::string_view text = mText;
    for (; text.size() > frameBytes; text.remove_prefix(frameBytes))
        FrameWriter::frame(append, text.substr(0, frameBytes), FrameWriter::moreFlag);
    if (mIsComplete)
        FrameWriter::frame(append, text, 0);
    else
        mText.erase(0, mText.size() - text.size());
    return mIsComplete;
}

// By one frame more, since the last one is kept back.
void Reply::extend(const DeviceState& state, std::size_t bytes)
{
    if (mIsComplete)
        return;
    if (!mHasMembers && mText.empty())
        mText = "{";
    while (mText.size() < bytes + frameBytes)
    {
        const DeviceState::Value* value = next(state);
        if (value == nullptr)
        {
            mText += '}';
            mIsComplete = true;
            return;
        }
        if (mHasMembers)
            mText += ',';
        BrokerProtocol::appendText(mText, value->key);
        mText += ':';
        BrokerProtocol::appendText(mText, value->text);
        mHasMembers = true;
    }
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
    while (mNextKey < mKeys.size())
    {
        if (const DeviceState::Value* value = state.find(mKeys[mNextKey++]))
            return value;
    }
    return nullptr;
}

std::size_t Reply::heldBytes() const
{
    std::size_t bytes = mText.capacity() + mKeys.capacity() * sizeof(std::string);
    for (const std::string& key : mKeys)
        bytes += key.size() > sizeof(std::string) / 2 ? key.capacity() : 0;
    return bytes;
}
