#ifndef C_ITEM_H
#define C_ITEM_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "statusmanager/StatusTypes.h"
#include "statusmanager/status.h"

namespace StatusC
{

/// An item before status_next() gives it away; see status_item_t.
struct Item
{
    int kind;
    int result = STATUS_OK;
    uint64_t tag = 0;
    uint64_t number = 0;
    std::string key = {};
    std::string value = {};
    StatusMap values = {};
};

/// Items move between the queue and its users as nodes of lists, which needs no memory.
using Items = std::list<Item>;

inline std::size_t bytesOf(const Item& item)
{
    std::size_t bytes = item.key.size() + item.value.size();
    for (const auto& [key, value] : item.values)
        bytes += key.size() + value.size();
    return bytes;
}

} // namespace StatusC

#endif
