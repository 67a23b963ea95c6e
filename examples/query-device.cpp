// Prints what the device holds: query-device [KEY...]
// Without a KEY everything. Exits 0, or 1 when a KEY is unknown.

#include <cstdio>
#include <string>

#include "statusmanager/StatusManager.h"

int main(int argc, char** argv)
{
    StatusManager* manager = StatusManager::getInstance(false);
    const StatusKeys keys(argv + 1, argv + argc);

    // Queries wait for the broker's answer, without limit. One query for many keys costs as much as for one.
    const StatusMap values = keys.empty() ? manager->getClientInfo() : manager->getClientInfoValues(keys);
    for (const auto& [key, value] : values)
        std::printf("%s=%s\n", key.c_str(), value.c_str());

    // A key that was reset is there, with an empty value; one that nobody ever posted is not.
    // getClientInfoValue() gives the empty text for both, and so does any query that failed.
    int result = 0;
    for (const std::string& key : keys)
    {
        if (values.count(key) != 0)
            continue;
        std::fprintf(stderr, "query-device: %s is unknown\n", key.c_str());
        result = 1;
    }
    return result;
}
