#include "statusctl/device/Device.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <thread>

#include "protocol/ClientDocuments.h"
#include "protocol/Utf8.h"
#include "statusctl/device/Ports.h"
#include "statusctl/text/Duration.h"
#include "statusctl/text/Report.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// Nothing if the broker is reachable. `beginning` is followed by the reason.
std::optional<Failure> unreachable(const std::string& beginning = "no broker")
{
    const std::optional<Ports::Port> closed = Ports::firstClosed();
    if (!closed)
        return std::nullopt;
    return Failure(ExitCode::Unreachable, beginning + ": nothing listens on port " +
                                              std::to_string(closed->number) + " (" + closed->purpose +
                                              "); is statusbroker running?");
}

void checkTaken(const std::string& message)
{
    if (BrokerProtocol::losesItsEnd(message.size()))
        throw Unsendable("the transport cannot take a message of exactly " + std::to_string(message.size()) +
                         " bytes; make it a byte longer or shorter");
}

// JSON carries only UTF-8. The library would replace each other byte by U+FFFD, and so post a different key
// or value.
void checkUtf8(const std::string& text)
{
    if (!Utf8::isValid(text))
        throw Unsendable("\"" + text.substr(0, 40) +
                         "\" is not UTF-8; encode it, since only UTF-8 can be posted");
}

// Sends in as few parts as the transport takes, each at most `most` bytes, by halving.
// NOLINTBEGIN(misc-no-recursion)
template <typename Texts, typename Write, typename Send>
void sendInParts(const Texts& texts, std::size_t most, Write write, Send send)
{
    const std::string message = write(texts);
    if (!BrokerProtocol::losesItsEnd(message.size()) && message.size() <= most)
        return send(texts);
    if (texts.size() == 1)
    {
        checkTaken(message);
        return send(texts);
    }
    const auto middle = std::next(texts.begin(), static_cast<std::ptrdiff_t>(texts.size() / 2));
    sendInParts(Texts(texts.begin(), middle), most, write, send);
    sendInParts(Texts(middle, texts.end()), most, write, send);
}
// NOLINTEND(misc-no-recursion)

// Not a bad reply: the broker reports that posts of any client may have been lost before.
bool tellsOfLostPosts(const std::string& failure)
{
    return failure.find(BrokerProtocol::syncLostWord) != std::string::npos;
}

// The broker takes 1 MiB; a margin for the message around the texts.
constexpr std::size_t longestMessage = std::size_t{256} * 1024;

} // namespace

Device::Device(const Settings& settings, WithoutBroker without) : mSettings(settings)
{
    if (without == WithoutBroker::Wait)
        waitForBroker();
    else
        checkReachable();
    const Deadline deadline(timeToConnect(), [this] { leave(); });
    mManager = StatusManager::getInstance(false);
    throwFailure();
}

void Device::checkReachable()
{
    if (const std::optional<Failure> failure = unreachable())
        throw Failure(*failure);
}

void Device::waitForBroker() const
{
    constexpr milliseconds pace{50};
    const std::string late =
        mSettings.timeout ? "no broker within " + Duration::writeExactly(*mSettings.timeout) : "";
    while (const std::optional<Failure> failure = unreachable(late))
    {
        if (mSettings.timeout && steady_clock::now() - mBegin >= *mSettings.timeout)
            throw Failure(*failure);
        std::this_thread::sleep_for(std::min(pace, mSettings.timeout.value_or(pace)));
    }
}

// The part of -t that the wait for the broker has left.
milliseconds Device::timeToConnect() const
{
    if (!mSettings.timeout)
        return mSettings.requestTimeout();
    const auto waited = std::chrono::duration_cast<milliseconds>(steady_clock::now() - mBegin);
    return std::max(*mSettings.timeout - waited, milliseconds(1));
}

// Runs on the deadline's thread while the main thread waits for ever. Releases nothing that either holds.
void Device::leave() const
{
    const Failure late(ExitCode::TimedOut, "no answer from the broker within " +
                                               Duration::write(mSettings.requestTimeout()) +
                                               "; try \"statusctl doctor\"");
    leaveWith(mSettings, unreachable().value_or(late));
}

void Device::throwFailure()
{
    const std::string failure = mJournal.takeFailure();
    if (!failure.empty() && !tellsOfLostPosts(failure))
        throw Failure(ExitCode::BadReply, "bad reply from the broker: " + failure);
}

StatusMap Device::values(const StatusKeys& keys)
{
    StatusMap result;
    const auto write = [](const StatusKeys& part)
    { return BrokerProtocol::writeList(BrokerProtocol::Key::getClientInfoValues, part); };
    if (!keys.empty())
        sendInParts(keys, longestMessage, write,
                    [&](const StatusKeys& part) {
                        result.merge(
                            ask([&](StatusManager& manager) { return manager.getClientInfoValues(part); }));
                    });
    return result;
}

void Device::post(const StatusMap& values)
{
    for (const auto& [key, value] : values)
    {
        checkUtf8(key);
        checkUtf8(value);
    }
    const auto write = [](const StatusMap& part)
    { return BrokerProtocol::writeMap(BrokerProtocol::Key::postStatus, part); };
    sendInParts(values, longestMessage, write,
                [this](const StatusMap& part)
                {
                    mManager->postStatus(part);
                    countPost();
                });
}

void Device::postEvent(const std::string& name, const std::string& value)
{
    checkUtf8(name);
    checkUtf8(value);
    checkTaken(BrokerProtocol::writePostEvent(name, value));
    mManager->postEvent(name, value, 0);
    countPost();
}

void Device::reset(const StatusKeys& keys)
{
    std::for_each(keys.begin(), keys.end(), checkUtf8);
    const auto write = [](const StatusKeys& part)
    { return BrokerProtocol::writeList(BrokerProtocol::Key::resetStatus, part); };
    sendInParts(keys, longestMessage, write,
                [this](const StatusKeys& part)
                {
                    mManager->resetStatus(part);
                    countPost();
                });
}

void Device::setCounter(const std::string& name, uint32_t value)
{
    checkUtf8(name);
    checkTaken(BrokerProtocol::writeSetCounterValue(name, value));
    mManager->setCounterValue(name, value);
    countPost();
}

// Too many unconfirmed posts would be dropped on the way.
void Device::countPost()
{
    constexpr unsigned most = 250;
    if (++mUnconfirmed == most)
        confirm();
}

void Device::confirm()
{
    mUnconfirmed = 0;
    constexpr int noLimit = -1; // a sync that times out closes the request channel for good
    if (!ask([](StatusManager& manager) { return manager.sync(noLimit); }))
        throw Failure(ExitCode::Failed, "the broker did not confirm the posts");
}

void Device::leaveTime()
{
    constexpr std::chrono::milliseconds longest = std::chrono::seconds(1);
    mUnconfirmed = 0;
    mManager->sync(static_cast<int>(longest.count()));
}

void Device::unregister(IStatusUpdateListener* listener)
{
    const Deadline deadline(mSettings.requestTimeout(), [this] { leave(); });
    mManager->unregisterListener(listener);
}
