// Publishes status values: publish-values KEY=VALUE...
// Exits 0 when the broker has taken them, 1 when it did not confirm that in time, 2 for a usage error.

#include <cstdio>
#include <string>

#include "statusmanager/StatusManager.h"

int main(int argc, char** argv)
{
    StatusMap values;
    for (int i = 1; i < argc; ++i)
    {
        const std::string argument = argv[i];
        const std::size_t equals = argument.find('=');
        if (equals == 0 || equals == std::string::npos)
        {
            std::fprintf(stderr, "publish-values: [%s] is not KEY=VALUE\n", argv[i]);
            return 2;
        }
        values[argument.substr(0, equals)] = argument.substr(equals + 1);
    }
    if (values.empty())
    {
        std::fprintf(stderr, "usage: publish-values KEY=VALUE...\n");
        return 2;
    }

    // Blocks until a broker has answered.
    StatusManager* manager = StatusManager::getInstance(false);

    // One map is one message: a listener of several of these keys gets them together. An empty value is the
    // same as resetStatus().
    manager->postStatus(values);

    // Until now, the post is only queued. A process that ends without sync() may lose it.
    constexpr int timeoutMs = 5000;
    if (!manager->sync(timeoutMs))
    {
        std::fprintf(stderr, "publish-values: the broker did not answer in time\n");
        return 1;
    }
    std::printf("published %zu values\n", values.size());
    return 0;
}
