// A process that uses the library, for tests with several clients.
//
//   post PREFIX COUNT  posts PREFIX.0 to PREFIX.COUNT-1 at once, prints "posted", ends with its input
//   set KEY VALUE      posts, waits until the post has arrived, ends
//   leave KEY          posts and ends at once, without waiting
//   watch KEY          prints KEY=VALUE for each update, ends with its input
//   flood KEY          prints "posting", and posts as fast as it can
//   count KEY          posts 1, 2, 3 and so on, each confirmed by a barrier, and prints each when confirmed

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "common/EventThread.h"
#include "statusmanager/StatusManager.h"

namespace
{

class Printer : public IStatusUpdateListener
{
public:
    void onStatusUpdate(StatusMap updates) override
    {
        if (updates.empty())
            say("(none)");
        for (const auto& [key, value] : updates)
            say(key + "=" + value);
    }
    void onEventUpdate(std::string name, std::string value) override { say("event " + name + "=" + value); }

private:
    static void say(const std::string& text)
    {
        printf("%s\n", text.c_str());
        fflush(stdout);
    }
};

void waitForEndOfInput()
{
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0)
    {
    }
}

void post(StatusManager& manager, const std::string& prefix, int count)
{
    for (int index = 0; index < count; ++index)
        manager.postStatus(prefix + "." + std::to_string(index), std::to_string(index));
    printf("posted\n");
    fflush(stdout);
    waitForEndOfInput();
}

void watch(StatusManager& manager, const std::string& key)
{
    Orvane::EventThread thread("watch", 0);
    Printer printer;
    manager.registerListener(&printer, &thread);
    manager.registerForStatus(&printer, key);
    manager.registerForEvent(&printer, key);
    waitForEndOfInput();
    manager.unregisterListener(&printer);
    thread.stop(); // a callback may still be running on it
}

[[noreturn]] void flood(StatusManager& manager, const std::string& key)
{
    printf("posting\n");
    fflush(stdout);
    for (unsigned number = 0;; ++number)
    {
        manager.postStatus(key, std::to_string(number));
        if (number % 1000 == 0)
            manager.getCounterValue("none"); // keeps its thread's queue short
    }
}

[[noreturn]] void count(StatusManager& manager, const std::string& key)
{
    for (unsigned number = 1;; ++number)
    {
        manager.postStatus(key, std::to_string(number));
        if (!manager.sync(-1))
            continue;
        printf("%u\n", number);
        fflush(stdout);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 2 ? argv[1] : "";
    StatusManager& manager = *StatusManager::getInstance(false);
    if (command == "post" && argc == 4)
        post(manager, argv[2], atoi(argv[3]));
    else if (command == "set" && argc == 4)
    {
        manager.postStatus(std::string(argv[2]), std::string(argv[3]));
        return manager.sync(-1) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    else if (command == "leave")
        manager.postStatus(std::string(argv[2]), std::string("left"));
    else if (command == "flood")
        flood(manager, argv[2]);
    else if (command == "count")
        count(manager, argv[2]);
    else if (command == "watch")
        watch(manager, argv[2]);
    else
        return 2;
    return EXIT_SUCCESS;
}
