// Keeps 20 clients at a broker. They post, query, subscribe and leave; some are killed, or stopped for a
// while. It observes the broker meanwhile. At the end every living listener must know the broker's values.
//   soak MINUTES

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include "protocol/ClientDocuments.h"
#include "tests/support/BrokerProcess.h"
#include "tests/support/RawClient.h"
#include "tests/support/Sanitized.h"
#include "tests/support/TemporaryFolder.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int clients = 20;

class Client
{
public:
    explicit Client(unsigned seed) : mProcess({SOAKCLIENT, std::to_string(seed)}) {}

    TestProcess& process() { return mProcess; }

    bool stop()
    {
        mProcess.writeLine("stop");
        return mProcess.readLine() == "stopped";
    }

    BrokerProtocol::Members known()
    {
        BrokerProtocol::Members known;
        mProcess.writeLine("report");
        for (std::optional<std::string> line; (line = mProcess.readLine()) && *line != "reported";)
            known[line->substr(0, line->find('='))] = line->substr(line->find('=') + 1);
        return known;
    }

private:
    TestProcess mProcess;
};

struct Sample
{
    uint64_t memory;
    uint64_t descriptors;
};

class Soak
{
public:
    explicit Soak(std::chrono::milliseconds duration) : mEnd(Clock::now() + duration), mPause(duration / 30)
    {
        for (int number = 0; number < clients; ++number)
            mClients.push_back(std::make_unique<Client>(++mSeed));
    }

    bool run()
    {
        TimePoint nextSample = Clock::now();
        while (Clock::now() < mEnd)
        {
            if (Clock::now() >= nextSample)
            {
                sample();
                nextSample += mPause;
            }
            disturb();
            Gate().wait(std::chrono::milliseconds(50)); // paces the disturbances
        }
        const bool agree = allAgree();
        sample();
        return isFlat() && agree;
    }

private:
    using TimePoint = Clock::time_point;

    // One client leaves, is killed, or is stopped for a while. A new client replaces it.
    void disturb()
    {
        std::unique_ptr<Client>& client = mClients[mRandom() % clients];
        switch (mRandom() % 8)
        {
        case 0:
            client->process().closeInput();
            mLeft += client->process().waitForExit() == 0 ? 1 : 0;
            client = std::make_unique<Client>(++mSeed);
            break;
        case 1:
        case 2:
            client->process().signal(SIGKILL);
            client->process().waitForExit();
            ++mKilled;
            client = std::make_unique<Client>(++mSeed);
            break;
        case 3:
            if (mStopped != nullptr)
                mStopped->signal(SIGCONT);
            mStopped = nullptr;
            break;
        case 4:
            if (mStopped == nullptr)
                stopAWhile();
            break;
        default:
            break;
        }
        if (std::none_of(mClients.begin(), mClients.end(),
                         [this](const auto& one) { return &one->process() == mStopped; }))
            mStopped = nullptr;
    }

    void stopAWhile()
    {
        mStopped = &mClients[mRandom() % clients]->process();
        mStopped->suspend();
        ++mSuspended;
    }

    void sample()
    {
        mSamples.push_back(
            {brokerStatistic(mRequester, "memory.rss"), brokerStatistic(mRequester, "descriptors.open")});
        printf("%5.0f s: %llu KiB, %llu descriptors, %llu posts, %llu notifications, %llu times behind\n",
               std::chrono::duration<double>(Clock::now() - mStart).count(),
               static_cast<unsigned long long>(mSamples.back().memory / 1024),
               static_cast<unsigned long long>(mSamples.back().descriptors),
               static_cast<unsigned long long>(brokerStatistic(mRequester, "posts")),
               static_cast<unsigned long long>(brokerStatistic(mRequester, "notifications.published")),
               static_cast<unsigned long long>(brokerStatistic(mRequester, "subscribers.fallenBehind")));
        fflush(stdout);
    }

    // After a third of the time, memory must not grow any more.
    bool isFlat() const
    {
        const auto third = mSamples.begin() + static_cast<std::ptrdiff_t>(mSamples.size() / 3);
        const auto less = [](const Sample& one, const Sample& other) { return one.memory < other.memory; };
        const uint64_t before = std::max_element(mSamples.begin(), third + 1, less)->memory;
        const uint64_t after = std::max_element(third, mSamples.end(), less)->memory;
        constexpr uint64_t slack = uint64_t{8} * 1024 * 1024;
        constexpr uint64_t perClient = 4;
        const bool memory = isSanitized || after <= before + before / 4 + slack;
        const bool descriptors =
            std::all_of(mSamples.begin(), mSamples.end(),
                        [](const Sample& one) { return one.descriptors < 50 + perClient * clients; });
        printf("memory: at most %llu KiB in the first third, %llu KiB later: %s; descriptors: %s\n",
               static_cast<unsigned long long>(before / 1024), static_cast<unsigned long long>(after / 1024),
               memory ? "flat" : "GROWS", descriptors ? "bounded" : "TOO MANY");
        return memory && descriptors;
    }

    bool allAgree()
    {
        if (mStopped != nullptr)
            mStopped->signal(SIGCONT);
        for (const auto& client : mClients)
            if (!client->stop())
                return printf("a client did not stop\n"), false;
        const BrokerProtocol::Members held =
            BrokerProtocol::readMapReply(mRequester.ask(BrokerProtocol::writeGetClientInfo()))
                .value_or(BrokerProtocol::Members());
        int agreeing = 0;
        for (const auto& client : mClients)
            agreeing += eventually([&] { return client->known() == held; }) ? 1 : 0;
        printf("%d left, %d killed, %d stopped for a while; %d of %d listeners know the %zu values of the "
               "broker\n",
               mLeft, mKilled, mSuspended, agreeing, clients, held.size());
        return agreeing == clients;
    }

    TemporaryFolder mFolder;
    BrokerProcess mBroker{{"--state", mFolder / "state"}};
    RawRequester mRequester;
    const TimePoint mStart = Clock::now();
    const TimePoint mEnd;
    const Clock::duration mPause;
    std::vector<std::unique_ptr<Client>> mClients;
    std::vector<Sample> mSamples;
    std::mt19937 mRandom{1};
    TestProcess* mStopped = nullptr;
    unsigned mSeed = 0;
    int mLeft = 0;
    int mKilled = 0;
    int mSuspended = 0;
};

} // namespace

int main(int argc, char** argv)
{
    const double minutes = argc == 2 ? strtod(argv[1], nullptr) : 0;
    if (minutes <= 0)
    {
        fprintf(stderr, "usage: soak MINUTES\n");
        return 2;
    }
    constexpr double perMinute = 60000;
    return Soak(std::chrono::milliseconds(static_cast<long>(minutes * perMinute))).run() ? EXIT_SUCCESS
                                                                                         : EXIT_FAILURE;
}
