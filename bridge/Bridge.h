#ifndef BRIDGE_BRIDGE_H
#define BRIDGE_BRIDGE_H

#include <functional>
#include <optional>

#include "bridge/BridgeOptions.h"
#include "bridge/BrokerFeed.h"
#include "bridge/BrokerPoster.h"
#include "bridge/Uplink.h"
#include "bridge/ValueBook.h"
#include "daemon/Signals.h"
#include "daemon/Supervisor.h"

/// The bridge's loop: the broker on one side, the server on the other.
class Bridge final : private IFeedReceiver
{
public:
    /// Returns the new options at SIGHUP; nothing keeps the old ones.
    using Reload = std::function<std::optional<BridgeOptions>()>;

    Bridge(BridgeOptions options, Reload reload);

    /// Serves until SIGTERM or SIGINT.
    void run(Signals& signals);

private:
    void onSnapshot(const Members& values) override;
    void onValues(const Members& values) override;
    void onEvents(const Members& events) override;
    void onBrokerLost() override;

    void turn(int signals);
    void post(TimePoint now);
    bool hasMore();
    TimePoint due(TimePoint now);
    void releaseUnusedCode(TimePoint now);
    void handle(int signal, TimePoint now);
    void reload(TimePoint now);
    void logOptions() const;

    BridgeOptions mOptions;
    Reload mReload;
    Supervisor mSupervisor{"the bridge"};
    ValueBook mBook;
    Uplink mUplink;
    BrokerFeed mFeed;
    std::optional<BrokerPoster> mPoster; // only if the server may change something
    bool mIsReady = false;
    TimePoint mNextRelease{}; // of code that is not used
    bool mIsEnding = false;
};

#endif
