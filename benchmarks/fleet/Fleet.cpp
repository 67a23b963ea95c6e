// Many devices at one server: how fast they return after its restart, and what they cost.
//   fleetbenchmark FOLDER PORT [DEVICES [SECONDS-AWAY [SECONDS-STEADY]]]

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <linux/tcp.h>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <set>
#include <string>
#include <sys/socket.h>

#include "benchmarks/fleet/Server.h"
#include "common/Logging.h"
#include "tests/fleet/FleetObserver.h"
#include "tests/fleet/SimulatedFleet.h"

namespace
{

constexpr int keys = 10;
constexpr std::chrono::minutes patience{10};

struct Traffic
{
    double bytes = 0;
    double segments = 0;
};

double secondsSince(TimePoint begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

class Benchmark
{
public:
    Benchmark(const std::string& folder, int port, std::size_t devices)
        : mServer(folder, port), mCount(devices)
    {
        for (std::size_t i = 0; i < devices; ++i)
        {
            BridgeOptions options;
            options.server = "127.0.0.1";
            options.port = port;
            options.isInsecure = true;
            options.device = "device" + std::to_string(i);
            options.longestPause = std::chrono::seconds(60);
            SimulatedDevice& device = mFleet.add(options);
            for (int key = 0; key < keys; ++key)
                device.change("group.key" + std::to_string(key), "value" + std::to_string(key));
        }
    }

    void run(std::chrono::seconds away, std::chrono::seconds steady)
    {
        mServer.start();
        observe();
        const TimePoint begin = Clock::now();
        startDevices();
        waitForAll();
        std::printf("devices                          %zu, each with %d keys\n", mCount, keys);
        std::printf("first arrival, 500 started per s %.1f s\n", secondsSince(begin));
        comeBack(away);
        measureSteady(steady);
    }

private:
    void observe()
    {
        constexpr std::chrono::milliseconds pause{100};
        const auto take = [this](const std::string& topic, const std::string& payload)
        {
            if (payload.find("\"online\":true") != std::string::npos && mOnline.insert(topic).second)
                ++mArrivals[std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - mBegin).count()];
        };
        for (int attempts = 100; !mObserver; --attempts)
        {
            try
            {
                mObserver =
                    std::make_unique<FleetObserver>(mServer.port(), "observer", "fleet/+/online", take);
            }
            catch (const std::runtime_error&)
            {
                if (attempts == 0)
                    throw;
                mFleet.turn(pause);
            }
        }
    }

    void startDevices()
    {
        constexpr std::size_t atOnce = 50;
        constexpr std::chrono::milliseconds pause{100};
        TimePoint next = Clock::now();
        for (std::size_t i = 0; i < mCount; ++i)
        {
            mFleet.devices()[i].start();
            if (i % atOnce != atOnce - 1)
                continue;
            next += pause;
            while (Clock::now() < next)
                turn();
        }
    }

    void turn()
    {
        constexpr std::chrono::milliseconds most{20};
        mFleet.turn(most);
        mObserver->work();
    }

    void waitForAll()
    {
        const TimePoint end = Clock::now() + patience;
        while (mOnline.size() < mCount && Clock::now() < end)
            turn();
        if (mOnline.size() < mCount)
            std::printf("only %zu of them came\n", mOnline.size());
    }

    void comeBack(std::chrono::seconds away)
    {
        mServer.kill();
        const TimePoint end = Clock::now() + away;
        while (Clock::now() < end)
            turn();
        mOnline.clear();
        mArrivals.clear();
        mBegin = Clock::now();
        const double before = ownCpuSeconds();
        mServer.start();
        waitForAll();
        long most = 0;
        for (const auto& second : mArrivals)
            most = std::max(most, second.second);
        std::printf("return after %2lld s without server  %.1f s, at most %ld per s; pauses up to 60 s\n",
                    static_cast<long long>(away.count()), secondsSince(mBegin), most);
        std::printf("processor during the return      server %.1f s, all bridges %.1f s\n",
                    mServer.cpuSeconds(), ownCpuSeconds() - before);
    }

    Traffic traffic()
    {
        Traffic all;
        for (const SimulatedDevice& device : mFleet.devices())
        {
            tcp_info info{};
            socklen_t size = sizeof(info);
            if (getsockopt(device.descriptor(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
                continue;
            all.bytes += static_cast<double>(info.tcpi_bytes_acked + info.tcpi_bytes_received);
            all.segments += static_cast<double>(info.tcpi_segs_in + info.tcpi_segs_out);
        }
        return all;
    }

    // Each device changes one value in a minute.
    void measureSteady(std::chrono::seconds time)
    {
        constexpr double minute = 60;
        constexpr double day = 86400;
        constexpr double headers = 52; // of IPv4, and of TCP with time stamps
        const Traffic before = traffic();
        const double server = mServer.cpuSeconds();
        const double own = ownCpuSeconds();
        const TimePoint begin = Clock::now();
        for (std::size_t changes = 0; Clock::now() - begin < time; turn())
        {
            const double due = secondsSince(begin) / minute * static_cast<double>(mCount);
            for (; static_cast<double>(changes) < due; ++changes)
                mFleet.devices()[changes % mCount].change("group.key0", "changed" + std::to_string(changes));
        }
        const double seconds = secondsSince(begin);
        const Traffic after = traffic();
        const double devices = static_cast<double>(mCount);
        const double bytes = (after.bytes - before.bytes) / devices / seconds * day;
        const double all = bytes + (after.segments - before.segments) / devices / seconds * day * headers;
        std::printf(
            "per device and day, 1 change/min %.0f KB of MQTT, %.0f KB with the headers of TCP and IPv4\n",
            bytes / 1000, all / 1000);
        std::printf("processor, %5.0f changes per s   server %.1f %%, all bridges %.1f %% of a core\n",
                    devices / minute, (mServer.cpuSeconds() - server) / seconds * 100,
                    (ownCpuSeconds() - own) / seconds * 100);
        std::printf(
            "memory                           server %.1f KiB, a bridge's session %.1f KiB per device\n",
            static_cast<double>(mServer.residentKiB()) / devices,
            static_cast<double>(ownResidentKiB()) / devices);
    }

    Server mServer;
    const std::size_t mCount;
    SimulatedFleet mFleet;
    std::unique_ptr<FleetObserver> mObserver;
    std::set<std::string> mOnline;
    std::map<long long, long> mArrivals; // in each second
    TimePoint mBegin = Clock::now();
};

long argument(int argc, char** argv, int index, long usual)
{
    return argc > index ? std::atol(argv[index]) : usual;
}

} // namespace

int main(int argc, char** argv)
{
    constexpr long usualDevices = 10000;
    constexpr long usualAway = 20;
    constexpr long usualSteady = 60;
    if (argc < 3)
        return 2;
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    ov_log_set_sink([](const ov_log_record*, void*) {}, nullptr); // each device has lines of its own
    Benchmark benchmark(argv[1], static_cast<int>(argument(argc, argv, 2, 0)),
                        static_cast<std::size_t>(argument(argc, argv, 3, usualDevices)));
    benchmark.run(std::chrono::seconds(argument(argc, argv, 4, usualAway)),
                  std::chrono::seconds(argument(argc, argv, 5, usualSteady)));
}
