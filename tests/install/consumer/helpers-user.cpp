// Uses the helpers as an outside program does, with the fake as the process's manager. Exits with 0 if every
// result is right.

#include <common/EventThread.h>
#include <statusmanager/Helpers.h>
#include <statusmanager/helpers/FakeStatusManager.h>

int main()
{
    using namespace std::chrono_literals;
    status::FakeStatusManager fake;
    Orvane::EventThread thread("helpers-user", 0);
    const status::Subscription subscription =
        status::on({"door"}, thread, [](const StatusMap& values) { status::post("known", values.size()); });
    fake.change("door", "open");
    const bool told = status::waitFor(
                          "known", [](const std::string& count) { return count == "1"; }, 10s)
                          .has_value();
    const bool synced = status::connectWithin(10s) == &fake && status::sync(1s) && status::isHealthy();
    const bool found = status::find("door") == "open" && status::get<unsigned>("known") == 1U;
    return told && synced && found && status::postEvent("bell") ? 0 : 1;
}
