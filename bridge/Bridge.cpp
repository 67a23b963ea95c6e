#include "bridge/Bridge.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <poll.h>
#include <utility>
#include <vector>

#include "common/Logging.h"
#include "daemon/CodePages.h"

OV_LOG_CONTROL_WORDS;

Bridge::Bridge(BridgeOptions options, Reload reload)
    : mOptions(std::move(options)), mReload(std::move(reload)),
      mBook([this](const std::string& key) { return intervalOf(mOptions.intervals, key); }),
      mUplink(mOptions, mBook), mFeed(*this)
{
    logOptions();
}

void Bridge::logOptions() const
{
    if (mOptions.isInsecure)
        OV_LOG(2, "The connection to the server is not encrypted, because of insecure = true");
    if (mOptions.file.empty())
        OV_LOG(
            2,
            "There is no file: events that wait are lost at a restart, and keys that went away stay on the "
            "server");
}

void Bridge::run(Signals& signals)
{
    while (!mUplink.isClosed())
    {
        turn(signals.descriptor());
        const TimePoint now = Clock::now();
        while (const int signal = signals.take())
            handle(signal, now);
    }
}

// Each end of the bridge gets its turn, however much the other has to do.
void Bridge::turn(int signals)
{
    std::vector<pollfd> items{{signals, POLLIN, 0}, {mUplink.descriptor(), mUplink.wanted(), 0}};
    for (const int descriptor : mFeed.descriptors())
        items.push_back({descriptor, POLLIN, 0});
    if (mPoster)
        items.push_back({mPoster->descriptor(), POLLIN, 0});
    const TimePoint before = Clock::now();
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(std::max(due(before), before) - before);
    poll(items.data(), items.size(), hasMore() ? 0 : static_cast<int>(wait.count()));
    const TimePoint now = Clock::now();
    mFeed.work(now);
    mUplink.work(items[1].revents, now);
    post(now);
    mSupervisor.tellWhatIsDue(now);
    releaseUnusedCode(now);
}

// The start, and each connection, use much code of the libraries that is hardly used any more.
void Bridge::releaseUnusedCode(TimePoint now)
{
    constexpr std::chrono::seconds pace{10};
    if (now < mNextRelease || !mUplink.isOnline())
        return;
    mNextRelease = now + pace;
    releaseCodePages();
}

bool Bridge::hasMore()
{
    return mFeed.hasMore() || (mPoster && mPoster->hasMore());
}

// What the server wants. Without a configuration for that, nothing is connected to the broker's port for
// posts.
void Bridge::post(TimePoint now)
{
    const bool isAllowed = !mOptions.desiredKeys.empty() || !mOptions.commands.empty();
    if (!mPoster && isAllowed)
        mPoster.emplace([this](TimePoint then) { return mUplink.nextBatch(then); },
                        [this](const BrokerProtocol::Members& values) { mUplink.posted(values); });
    if (!mPoster)
        return;
    mPoster->work(now);
    if (mPoster->isIdle() && mUplink.hasWork())
        mPoster->post(now);
}

TimePoint Bridge::due(TimePoint now)
{
    const TimePoint supervisor = mSupervisor.nextTelling().value_or(TimePoint::max());
    const TimePoint poster = mPoster ? mPoster->due() : TimePoint::max();
    return std::min({mUplink.due(now), mFeed.due(), poster, supervisor});
}

void Bridge::handle(int signal, TimePoint now)
{
    if (signal == SIGHUP)
        return reload(now);
    if (std::exchange(mIsEnding, true))
        return;
    mSupervisor.stopping();
    mUplink.close(now);
}

// The whole state is taken anew, as other keys may be allowed now.
void Bridge::reload(TimePoint now)
{
    std::optional<BridgeOptions> options = mReload();
    if (!options || mIsEnding)
        return;
    options->file = mOptions.file;
    mOptions = std::move(*options);
    mUplink.restart(now);
    mFeed.askAgain(now);
    OV_LOG(5, "Applied the configuration; connecting anew");
    logOptions();
}

// ------------------------------------------------------------------------------------------------ the device

void Bridge::onSnapshot(const Members& values)
{
    Members allowed;
    for (const auto& [key, value] : values)
    {
        if (mOptions.keys.allows(key))
            allowed.emplace_hint(allowed.end(), key, value);
    }
    mBook.replace(allowed, Clock::now());
    mUplink.setHasState(true);
    if (std::exchange(mIsReady, true))
        return;
    mSupervisor.ready("Following " + std::to_string(allowed.size()) + " keys");
    OV_LOG(5, "Following %zu keys", allowed.size());
}

void Bridge::onValues(const Members& values)
{
    const TimePoint now = Clock::now();
    for (const auto& [key, value] : values)
    {
        if (mOptions.keys.allows(key))
            mBook.change(key, value, now);
    }
}

void Bridge::onEvents(const Members& events)
{
    for (const auto& [name, value] : events)
    {
        if (mOptions.events.allows(name))
            mUplink.addEvent(name, value);
    }
}

// The values stay as they are: the broker may be back soon, and then they are compared.
void Bridge::onBrokerLost() {}
