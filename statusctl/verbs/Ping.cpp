#include <cstdio>

#include "statusctl/device/Device.h"
#include "statusctl/health/RoundTrips.h"
#include "statusctl/text/Output.h"
#include "statusctl/verbs/Verb.h"

namespace
{

class Ping : public IVerb
{
public:
    explicit Ping(CLI::App& app)
    {
        CLI::App& command = Verbs::describe(app, "ping", "Measure the answer time of the broker",
                                            "statusctl ping\n"
                                            "statusctl ping -n 1000");
        command.add_option("-n", mCount, "Number of requests, at most 1000000")
            ->type_name("COUNT")
            ->check(Verbs::wholeNumber(1, 1000000))
            ->capture_default_str();
    }

    ExitCode run(const Settings& settings) override
    {
        Device device(settings);
        const RoundTrips trips = RoundTrips::measure(device, mCount);
        Output output(settings);
        if (settings.isJson())
        {
            Json::Value object(Json::objectValue);
            object["count"] = mCount;
            object["minMicroseconds"] = static_cast<Json::Int64>(trips.least.count());
            object["medianMicroseconds"] = static_cast<Json::Int64>(trips.median.count());
            object["maxMicroseconds"] = static_cast<Json::Int64>(trips.most.count());
            output.json(object);
            return ExitCode::Done;
        }
        std::array<char, 200> line{};
        std::snprintf(line.data(), line.size(), "%u round trips, min/median/max %.3f/%.3f/%.3f ms", mCount,
                      inMilliseconds(trips.least), inMilliseconds(trips.median), inMilliseconds(trips.most));
        output.line(line.data());
        return ExitCode::Done;
    }

private:
    static double inMilliseconds(std::chrono::microseconds duration)
    {
        return std::chrono::duration<double, std::milli>(duration).count();
    }

    unsigned mCount = 10;
};

} // namespace

std::unique_ptr<IVerb> Verbs::addPing(CLI::App& app)
{
    return std::make_unique<Ping>(app);
}
