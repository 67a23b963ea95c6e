// Opens a valve while the pressure is high, and closes it on an alarm: react-to-values
// Acts on the value "pressure.kPa" and on the event "alarm". Runs until SIGINT or SIGTERM.

#include <cstdio>
#include <optional>
#include <string>

#include "StopSignal.h"
#include "common/EventThread.h"
#include "statusmanager/Helpers.h"

namespace
{

constexpr double highKPa = 250;

void setValve(const char* position, const std::string& reason)
{
    status::post("valve", position); // queued; callbacks may post
    std::printf("valve %s: %s\n", position, reason.c_str());
    std::fflush(stdout);
}

void onPressure(const StatusMap& values)
{
    const auto pressure = values.find("pressure.kPa"); // missing in the first callback if there is no value
    if (pressure == values.end())
        return;
    const std::optional<double> kPa = status::fromText<double>(pressure->second); // nothing if reset
    setValve(kPa && *kPa > highKPa ? "open" : "closed", "pressure [" + pressure->second + "]");
}

} // namespace

int main()
{
    status::manager(); // blocks until a broker has answered
    StopSignal::install();

    // The callbacks run on this thread, one at a time. The subscriptions are destroyed first; after that no
    // callback runs any more. Any other order would work too.
    Orvane::EventThread thread("react", 0);
    const status::Subscription pressure = status::on({"pressure.kPa"}, thread, onPressure);
    const status::Subscription alarm = status::onEvent(
        {"alarm"}, thread, [](const std::string&, const std::string& value) { setValve("closed", value); });
    StopSignal::wait();
    return 0;
}
