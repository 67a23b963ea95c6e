// A process that posts to one of the compared systems, subscribes to it or asks it. Reads commands from its
// standard input, one per line, and answers each with a line of JSON on its standard output. Ends when its
// input ends. The arguments depend on the system. The process that sends the commands checks the deadlines.
//
//   connect POSTS             waits until its posts arrive (1) or it can ask (0); reports the time taken
//   subscribe KEYS            waits until deliveries arrive; reports the time until the first
//   expect RUN COUNT          forgets earlier deliveries
//   burst RUN COUNT KEYS EVERY BARRIER
//                             EVERY: posts between two barriers (0: none); BARRIER: sync or query
//   paced RUN COUNT KEYS RATE
//   collect QUIET             QUIET: milliseconds without a delivery after which the rest counts as lost
//   ask COUNT KEYS

#include <array>
#include <atomic>
#include <cstdio>
#include <exception>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

#include "benchmarks/road/Recorder.h"
#include "benchmarks/road/System.h"

namespace
{

using std::chrono::milliseconds;

std::vector<std::string> keysOf(std::size_t count)
{
    std::vector<std::string> keys;
    std::array<char, 32> text{};
    for (std::size_t i = 0; i < count; ++i)
    {
        std::snprintf(text.data(), text.size(), "key.%05zu", i);
        keys.emplace_back(text.data());
    }
    return keys;
}

class Client
{
public:
    explicit Client(std::vector<std::string> arguments) : mArguments(std::move(arguments)) {}

    void obey(const std::string& line)
    {
        static const std::map<std::string, void (Client::*)(std::istream&)> commands{
            {"connect", &Client::connect}, {"subscribe", &Client::subscribe}, {"expect", &Client::expect},
            {"burst", &Client::burst},     {"paced", &Client::paced},         {"collect", &Client::collect},
            {"ask", &Client::ask},
        };
        std::istringstream words(line);
        const auto command = commands.find(read<std::string>(words));
        if (command == commands.end())
            throw std::invalid_argument("unknown command: " + line);
        (this->*command->second)(words);
        std::fflush(stdout);
    }

private:
    template <class T>
    static T read(std::istream& words)
    {
        T value{};
        if (!(words >> value))
            throw std::invalid_argument("an argument is missing or wrong");
        return value;
    }

    // Posts of run 0 are never counted. If posts can get lost before everything is connected, probes are
    // posted until one arrives.
    std::string probe() { return Stamp{Stamp::now(), 0, ++mProbes}.text(); }

    void connect(std::istream& words)
    {
        const uint64_t begin = Stamp::now();
        mSystem = connectSystem(mArguments);
        if (read<int>(words) == 1)
            while (!probeArrives())
                std::this_thread::sleep_for(milliseconds(1));
        std::printf("{\"ms\": %.3f}\n", static_cast<double>(Stamp::now() - begin) / 1e6);
    }

    bool probeArrives()
    {
        const std::string value = probe();
        mSystem->post(mFirstKey, value);
        mSystem->sync();
        const std::optional<std::string> present = mSystem->query(mFirstKey);
        return !present || *present == value;
    }

    void subscribe(std::istream& words)
    {
        const std::vector<std::string> keys = keysOf(read<std::size_t>(words));
        const uint64_t begin = Stamp::now();
        mSystem = connectSystem(mArguments);
        mSystem->subscribe(keys, [this](const std::string&, const std::string& value) { delivered(value); });
        if (mSystem->deliversCurrentValues())
            waitFor([this] { return mFirst != 0; }, milliseconds(-1));
        // Current values may arrive before the subscription is complete.
        const uint32_t before = mProbes;
        while (!waitFor([&] { return mHeard > before && mHeard <= mProbes; }, milliseconds(1)))
        {
            mSystem->post(mFirstKey, probe());
            mSystem->flush();
        }
        std::printf("{\"firstMs\": %.3f}\n", static_cast<double>(mFirst - begin) / 1e6);
    }

    void delivered(const std::string& value)
    {
        const std::optional<Stamp> stamp = Stamp::read(value);
        if (!stamp)
            return;
        if (stamp->run != 0 && mFirst != 0)
            return mRecorder.delivered(*stamp);
        const std::lock_guard<std::mutex> lock(mMutex);
        if (mFirst == 0)
            mFirst = Stamp::now();
        if (stamp->run == 0)
            mHeard = stamp->number;
        mChanged.notify_one();
    }

    template <class Condition>
    bool waitFor(Condition condition, milliseconds time)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        if (time.count() >= 0)
            return mChanged.wait_for(lock, time, condition);
        mChanged.wait(lock, condition);
        return true;
    }

    void expect(std::istream& words)
    {
        const auto run = read<uint32_t>(words);
        mRecorder.expect(run, read<std::size_t>(words));
        std::puts("{}");
    }

    void burst(std::istream& words)
    {
        const auto run = read<uint32_t>(words);
        const auto count = read<uint32_t>(words);
        const std::vector<std::string> keys = keysOf(read<std::size_t>(words));
        const auto every = read<uint32_t>(words);
        const bool asks = read<std::string>(words) == "query";
        const uint64_t begin = Stamp::now();
        for (uint32_t i = 0; i < count; ++i)
        {
            mSystem->post(keys[i % keys.size()], Stamp{Stamp::now(), run, i}.text());
            if (every != 0 && (i + 1) % every == 0)
                asks ? void(mSystem->query(mFirstKey)) : mSystem->sync();
        }
        mSystem->sync();
        std::printf("{\"begin\": %llu, \"end\": %llu}\n", static_cast<unsigned long long>(begin),
                    static_cast<unsigned long long>(Stamp::now()));
    }

    void paced(std::istream& words)
    {
        const auto run = read<uint32_t>(words);
        const auto count = read<uint32_t>(words);
        const std::vector<std::string> keys = keysOf(read<std::size_t>(words));
        const uint64_t pause = 1'000'000'000 / read<uint64_t>(words);
        uint64_t next = Stamp::now();
        const uint64_t begin = next;
        for (uint32_t i = 0; i < count; ++i, next += pause)
        {
            const timespec until{static_cast<time_t>(next / 1'000'000'000),
                                 static_cast<long>(next % 1'000'000'000)};
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
            mSystem->post(keys[i % keys.size()], Stamp{Stamp::now(), run, i}.text());
            mSystem->flush();
        }
        mSystem->sync();
        std::printf("{\"begin\": %llu}\n", static_cast<unsigned long long>(begin));
    }

    void collect(std::istream& words)
    {
        Recorder::Result result = mRecorder.collect(milliseconds(read<int>(words)));
        std::printf("{\"delivered\": %zu, \"repeated\": %zu, \"last\": %llu, "
                    "\"p50\": %.1f, \"p99\": %.1f, \"p999\": %.1f}\n",
                    result.delivered, result.repeated, static_cast<unsigned long long>(result.last),
                    result.latencies.quantile(0.5), result.latencies.quantile(0.99),
                    result.latencies.quantile(0.999));
    }

    void ask(std::istream& words)
    {
        const auto count = read<std::size_t>(words);
        const std::vector<std::string> keys = keysOf(read<std::size_t>(words));
        Samples times;
        times.reserve(count);
        const uint64_t begin = Stamp::now();
        for (std::size_t i = 0; i < count; ++i)
        {
            const uint64_t asked = Stamp::now();
            const std::optional<std::string> value = mSystem->query(keys[i % keys.size()]);
            times.add(Stamp::now() - asked);
            if (!value || !Stamp::read(*value))
                throw std::runtime_error("no value for " + keys[i % keys.size()]);
        }
        const double seconds = static_cast<double>(Stamp::now() - begin) / 1e9;
        std::printf("{\"p50\": %.1f, \"p99\": %.1f, \"perSecond\": %.0f}\n", times.quantile(0.5),
                    times.quantile(0.99), static_cast<double>(count) / seconds);
    }

    const std::string mFirstKey = keysOf(1).front();
    std::vector<std::string> mArguments;
    std::unique_ptr<ISystem> mSystem;
    Recorder mRecorder;
    uint32_t mProbes = static_cast<uint32_t>(getpid()) << 10; // different in each process

    std::mutex mMutex;
    std::condition_variable mChanged;
    std::atomic<uint64_t> mFirst{0}; ///< when the first value of any kind arrived
    uint32_t mHeard = 0;             ///< the latest probe
};

} // namespace

int main(int argc, char** argv)
{
    try
    {
        Client client({argv + 1, argv + argc});
        for (std::string line; std::getline(std::cin, line);)
            client.obey(line);
    }
    catch (const std::exception& error)
    {
        std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
        std::_Exit(1);
    }
    std::_Exit(0); // the systems' threads still run
}
