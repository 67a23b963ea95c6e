// Repeats one operation, so that callgrind can count its instructions; see scripts/bench-counts.
//   countedoperations               names the operations
//   countedoperations NAME TIMES    prints the allocations per repetition

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "benchmarks/micro/Allocations.h"
#include "benchmarks/micro/BrokerCore.h"
#include "benchmarks/micro/FanOut.h"
#include "benchmarks/micro/Samples.h"
#include "broker/policy/PolicyFiles.h"
#include "broker/wire/FrameReader.h"
#include "common/EventAgent.h"
#include "common/EventDispatcher.h"
#include "protocol/BrokerDocuments.h"
#include "protocol/ClientDocuments.h"

using namespace Orvane;

namespace Key = BrokerProtocol::Key;

namespace
{

using Loop = std::function<void(unsigned times)>;

} // namespace

// Callgrind counts while this function runs, and finds it by its name.
extern "C" [[gnu::noinline]] uint64_t countedAllocationsOf(const Loop& loop, unsigned times)
{
    const uint64_t before = Allocations::count();
    loop(times);
    return Allocations::count() - before;
}

namespace
{

// Does not count the extra cost of the first repetitions (growing the heap, looking up symbols).
uint64_t measure(const Loop& loop, unsigned times)
{
    constexpr unsigned warmUp = 200;
    loop(warmUp);
    return countedAllocationsOf(loop, times);
}

uint64_t writePost(unsigned times)
{
    const StatusMap values = Samples::values(1);
    return measure(
        [&](unsigned count)
        {
            while (count-- != 0)
                BrokerProtocol::writeMap(Key::postStatus, values);
        },
        times);
}

// A text without a single plain character, as anybody may post it.
uint64_t writeForeignText(unsigned times)
{
    std::string text;
    for (unsigned characters = 100; characters > 0; --characters)
        text += "\u00e9";
    std::string document;
    return measure(
        [&](unsigned count)
        {
            for (; count-- != 0; document.clear())
                BrokerProtocol::appendText(document, text);
        },
        times);
}

uint64_t readNotification(unsigned times)
{
    const std::string text = BrokerProtocol::writeMap(Key::statusUpdate, Samples::values(1));
    return measure(
        [&](unsigned count)
        {
            while (count-- != 0)
                BrokerProtocol::readNotification(text);
        },
        times);
}

// Uses the decisions, so that the compiler removes nothing.
volatile unsigned decided = 0;

// A dispatcher that runs on the current thread. Agents come in bursts; the last agent of a burst posts the
// next burst.
class Relay : private EventDispatcher
{
public:
    Relay() : EventDispatcher("relay") {}

    void deliver(unsigned count)
    {
        mLeft = count;
        postBurst();
        run();
    }

private:
    void postBurst()
    {
        constexpr unsigned burst = 10;
        for (unsigned i = burst; i-- > 0;)
        {
            using Agent = AsyncEventAgent1<Relay, unsigned>;
            (OV_NEW Agent(this, &Relay::take, i))->send(this);
        }
    }

    void take(unsigned leftOfBurst)
    {
        if (--mLeft == 0)
            requestStop();
        else if (leftOfBurst == 0)
            postBurst();
    }

    unsigned mLeft = 0;
};

uint64_t deliverAgent(unsigned times)
{
    return measure([](unsigned count) { Relay().deliver(count); }, times);
}

// Passes one value to `listenerCount` listeners, each subscribed to `keys` keys.
uint64_t fanOut(std::size_t listenerCount, std::size_t keys, unsigned times)
{
    FanOut listeners(listenerCount, keys);
    const StatusMap update{{Samples::name(keys / 2), Samples::value(1)}};
    uint64_t allocations = 0;
    const auto notify = [&](unsigned count)
    {
        while (count-- != 0)
            listeners.notify(update);
    };
    listeners.onThread([&] { allocations = measure(notify, times); });
    return allocations;
}

uint64_t fanOutToTen(unsigned times)
{
    constexpr std::size_t ten = 10;
    return fanOut(ten, ten, times);
}

uint64_t fanOutOfManyKeys(unsigned times)
{
    return fanOut(1, 10000, times);
}

// The broker's work between its sockets, from the text of a post to the bytes of its notification. There are
// a hundred keys; each post changes one.
uint64_t handlePosts(std::unique_ptr<const Policy> policy, unsigned times)
{
    constexpr std::size_t keys = 100;
    std::vector<std::string> posts;
    for (std::size_t i = 0; i < 2 * keys; ++i)
        posts.push_back(
            BrokerProtocol::writeMap(Key::postStatus, {{Samples::name(i % keys), Samples::value(i)}}));
    BrokerCore core(keys, std::move(policy));
    return measure(
        [&](unsigned count)
        {
            while (count-- != 0)
                core.post(posts[count % posts.size()]);
        },
        times);
}

uint64_t handlePost(unsigned times)
{
    return handlePosts(std::make_unique<const Policy>(), times);
}

constexpr std::size_t rules = 1000;

// Each rule allows a key of the samples; every third rule also allows the names that begin with its key. A
// glob that begins with a wildcard would add twenty instructions to each decision.
std::unique_ptr<const Policy> policyOfManyRules()
{
    std::string text = "default = \"deny\"\n";
    for (std::size_t i = 0; i < rules; ++i)
    {
        const std::string key = Samples::name(i) + (i % 3 == 0 ? "*" : "");
        text += "[[rule]]\nallow = [\"post\", \"reset\"]\nkeys = \"" + key + "\"\n";
    }
    LoadedPolicy loaded = makePolicy({{"policy", text}}, {});
    if (loaded.policy == nullptr)
        throw std::logic_error("the policy cannot be read");
    return std::move(loaded.policy);
}

uint64_t handlePostWithPolicy(unsigned times)
{
    return handlePosts(policyOfManyRules(), times);
}

// Ten frames at once, as they are received.
uint64_t readFrame(unsigned times)
{
    constexpr unsigned burst = 10;
    constexpr std::size_t longest = std::size_t{1024} * 1024;
    const std::string body = Samples::value(1);
    std::string bytes;
    for (unsigned i = 0; i < burst; ++i)
        bytes += std::string(1, '\0') + static_cast<char>(body.size()) + body;
    FrameReader reader;
    FrameReader::Item item;
    return measure(
        [&](unsigned count)
        {
            for (std::string_view rest; count-- != 0;)
            {
                rest = rest.empty() ? bytes : rest;
                if (reader.next(rest, longest, item) != FrameReader::Result::Message)
                    throw std::logic_error("a frame cannot be read");
            }
        },
        times);
}

// Decides for a key similar to the keys in the rules.
uint64_t decideByPolicy(unsigned times)
{
    const std::unique_ptr<const Policy> policy = policyOfManyRules();
    const PolicyClass& rights = policy->classOf({});
    const StatusKeys names = Samples::names(rules);
    return measure(
        [&](unsigned count)
        {
            while (count-- != 0)
                decided = rights.decide(Action::Post, names[count % rules]).isAllowed ? 1U : 0U;
        },
        times);
}

struct Operation
{
    std::string_view name;
    uint64_t (*allocations)(unsigned times);
};

constexpr Operation operations[] = {
    {"writePost", writePost},
    {"writeForeignText", writeForeignText},
    {"readFrame", readFrame},
    {"handlePost", handlePost},
    {"handlePostWithPolicy", handlePostWithPolicy},
    {"fanOut", fanOutToTen},
    {"fanOutOfManyKeys", fanOutOfManyKeys},
    {"deliverAgent", deliverAgent},
    {"readNotification", readNotification},
    {"decideByPolicy", decideByPolicy},
};

} // namespace

int main(int argc, char** argv)
{
    if (argc == 1)
    {
        for (const Operation& operation : operations)
            std::printf("%s\n", operation.name.data());
        return EXIT_SUCCESS;
    }
    const unsigned times = argc == 3 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 0;
    for (const Operation& operation : operations)
    {
        if (times == 0 || operation.name != argv[1])
            continue;
        std::printf("%.1f\n", static_cast<double>(operation.allocations(times)) / times);
        return EXIT_SUCCESS;
    }
    std::fprintf(stderr, "usage: countedoperations [OPERATION TIMES]\n");
    return 2;
}
