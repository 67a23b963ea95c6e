#include "statusfleet/Looking.h"

#include <algorithm>
#include <utility>

#include "mqttlink/ServerName.h"
#include "mqttlink/Topics.h"
#include "statusctl/text/Pattern.h"

namespace
{

std::string levelOf(const std::string& name)
{
    return Looking::isGlob(name) ? "+" : Topics::encode(name);
}

// A device is at one server of a row.
std::vector<std::string> hostsOf(const ServerOptions& options, const std::string& device)
{
    return Looking::isGlob(device) ? ServerName::all(options.server)
                                   : std::vector<std::string>{ServerName::pick(options.server, device)};
}

} // namespace

bool Looking::isGlob(const std::string& text)
{
    return Pattern::isGlob(text);
}

std::vector<std::string> Looking::values(const std::string& key)
{
    return {"online", "birth", "data", "status/" + levelOf(key)};
}

Looking::Looking(const Call& call, const std::string& device, const std::vector<std::string>& levels,
                 Changed changed)
    : mCall(call), mView(call.options.prefix), mChanged(std::move(changed)),
      mDesk(call.options, hostsOf(call.options, device))
{
    std::vector<std::string> topics;
    for (const std::string& level : levels)
        topics.push_back(call.options.prefix + "/" + levelOf(device) + "/" + level);
    mDesk.begin(
        topics, [this](const ReceivedMessage& message) { take(message); },
        std::min(call.deadline, Clock::now() + call.settings.requestTimeout()));
}

void Looking::take(const ReceivedMessage& message)
{
    for (const FleetView::Change& change : mView.take(message))
    {
        if (mChanged)
            mChanged(change);
    }
}

const DeviceView& Looking::device(const std::string& name)
{
    const DeviceView* const view = mView.find(name);
    if (view == nullptr)
        throw Failure(ExitCode::NotFound, "the server has nothing of the device \"" + name + "\"");
    if (!view->isDocument || !view->isOnline)
        return *view;
    const auto taker = [this](const ReceivedMessage& message) { take(message); };
    const int64_t before = view->sequence;
    mDesk.publish({Topics(mCall.options.prefix, name).rebirth(), "now", false}, taker, mCall.deadline);
    if (!mDesk.follow(
            taker, [&] { return view->sequence > before && !view->needsBirth; }, mCall.deadline))
        throw Failure(ExitCode::TimedOut, "timed out: the device has not sent its state");
    return *view;
}

void Looking::follow()
{
    const auto taker = [this](const ReceivedMessage& message)
    {
        take(message);
        askForMissing();
    };
    mDesk.follow(
        taker, [] { return false; }, mCall.deadline, true);
}

// Each device is asked once for each gap.
void Looking::askForMissing()
{
    std::set<std::string> missing = mView.missing();
    for (const std::string& name : missing)
    {
        if (mAsked.count(name) == 0)
            mDesk.send({Topics(mCall.options.prefix, name).rebirth(), "now", false});
    }
    mAsked = std::move(missing);
}
