// Prints status values of the device: query-device [KEY...]
// Without a KEY, prints all values. Exits 0, or 1 when a KEY is unknown.

#include <cstdio>
#include <string>

#include "statusmanager/StatusManager.h"

int main(int argc, char** argv)
{
    StatusManager* manager = StatusManager::getInstance(false);
    const StatusKeys keys(argv + 1, argv + argc);

    // Queries wait for the broker's answer without limit. A query for many keys costs about as much as for
    // one.
    const StatusMap values = keys.empty() ? manager->getClientInfo() : manager->getClientInfoValues(keys);
    for (const auto& [key, value] : values)
        std::printf("%s=%s\n", key.c_str(), value.c_str());

    // A reset key is present with an empty value; a key that was never posted is missing.
    // getClientInfoValue() returns the empty text for both, and also when the query failed.
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
