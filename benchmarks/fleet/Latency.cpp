// The time from a post on the device to a line of the desk.
//   fleetlatency POSTS COMMAND...    the command prints a line with the value of the key "stamp" at each
//   change

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "statusmanager/StatusManager.h"

namespace
{

int64_t nanoseconds()
{
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

// Reads lines until `posts` stamps have come.
std::vector<double> readStamps(FILE* lines, std::size_t posts)
{
    const std::string name = "stamp:";
    std::vector<double> milliseconds;
    char* line = nullptr;
    std::size_t size = 0;
    while (milliseconds.size() < posts && getline(&line, &size, lines) > 0)
    {
        const std::string text = line;
        const std::size_t at = text.find(name);
        if (at != std::string::npos)
            milliseconds.push_back(
                static_cast<double>(nanoseconds() - std::atoll(text.c_str() + at + name.size())) / 1e6);
    }
    std::free(line);
    return milliseconds;
}

} // namespace

int main(int argc, char** argv)
{
    constexpr std::chrono::milliseconds pause{20};
    constexpr std::chrono::seconds start{2};
    if (argc < 3)
        return 2;
    const auto posts = static_cast<std::size_t>(std::atol(argv[1]));
    std::string command;
    for (int i = 2; i < argc; ++i)
        command += std::string(argv[i]) + " ";
    FILE* const lines = popen(command.c_str(), "r");
    if (lines == nullptr)
        return 1;
    StatusManager* const manager = StatusManager::getInstance(false);
    std::this_thread::sleep_for(start); // the desk is connected
    std::thread poster(
        [&]
        {
            for (std::size_t i = 0; i < posts; ++i)
            {
                manager->postStatus("stamp", "stamp:" + std::to_string(nanoseconds()));
                std::this_thread::sleep_for(pause);
            }
        });
    std::vector<double> times = readStamps(lines, posts);
    poster.join();
    std::sort(times.begin(), times.end());
    if (times.empty())
        return 1;
    const auto part = [&](double share)
    { return times[static_cast<std::size_t>(share * static_cast<double>(times.size() - 1))]; };
    std::printf("post to the desk's line          p50 %.2f ms, p99 %.2f ms, %zu posts\n", part(0.5),
                part(0.99), times.size());
    std::fflush(stdout);
    std::quick_exit(0);
}
