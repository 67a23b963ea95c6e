#ifndef C_BLOCKS_H
#define C_BLOCKS_H

#include <string>

#include "c/Item.h"

/// What the functions of status.h return: each is one block of malloc(), so that one status_free() releases
/// it. A function here returns null when there is no memory.
namespace StatusC
{

char* blockOf(const std::string& text);
status_values_t* blockOf(const StatusMap& values);
status_item_t* blockOf(const Item& item);

} // namespace StatusC

#endif
