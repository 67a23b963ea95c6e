#ifndef BROKER_BASE_REMOVEFROM_H
#define BROKER_BASE_REMOVEFROM_H

#include <algorithm>

/// Removes an element from a vector or a deque, if it is there. The others keep their order.
template <class List, class T>
void removeFrom(List& list, T* element)
{
    list.erase(std::remove(list.begin(), list.end(), element), list.end());
}

#endif
