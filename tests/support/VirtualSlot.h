#ifndef TESTS_SUPPORT_VIRTUALSLOT_H
#define TESTS_SUPPORT_VIRTUALSLOT_H

#include <cstddef>
#include <cstring>

/// The position of a virtual member in its class's table. A pointer to the member has two words, and by the
/// Itanium C++ ABI one of them holds the table offset. ARM, 32 and 64 bits, marks virtual members in the
/// lowest bit of the second word, other processors in the first.
template <class Member>
int virtualSlot(Member member)
{
    static_assert(sizeof(member) == 2 * sizeof(std::ptrdiff_t));
    std::ptrdiff_t words[2];
    std::memcpy(words, &member, sizeof(member));
#if defined(__arm__) || defined(__aarch64__)
    const bool isVirtual = (words[1] & 1) != 0;
    const std::ptrdiff_t offset = words[0];
#else
    const bool isVirtual = (words[0] & 1) != 0;
    const std::ptrdiff_t offset = words[0] - 1;
#endif
    return isVirtual ? static_cast<int>(offset / static_cast<std::ptrdiff_t>(sizeof(void*))) : -1;
}

#endif
