#ifndef BROKER_STATE_ROWCHECKSUM_H
#define BROKER_STATE_ROWCHECKSUM_H

#include <cstdint>
#include <cstring>
#include <endian.h>
#include <string_view>

/// The checksum of a row of the state file, 64 bits.
///
/// It is FNV-1a with two differences. It takes words of eight bytes, little endian, because single bytes
/// would take eight times as long. After each word it folds the upper half into the lower one, because a
/// multiplication carries nothing downwards. Each step can be undone, so a change within one word always
/// changes the result. Any other change goes unnoticed once in 2^64 times.
class RowChecksum
{
public:
    /// @param table the row's table: a row that moves to another table is noticed, too
    explicit RowChecksum(std::string_view table) { add(table); }

    void add(uint64_t word)
    {
        constexpr uint64_t prime = 0x100000001B3;
        constexpr unsigned half = 32;
        mSum = (mSum ^ word) * prime;
        mSum ^= mSum >> half;
    }

    /// The length comes first, so that a byte that moves from one text to the next is noticed.
    void add(std::string_view bytes)
    {
        add(uint64_t{bytes.size()});
        for (; bytes.size() >= sizeof(uint64_t); bytes.remove_prefix(sizeof(uint64_t)))
            add(wordOf(bytes.substr(0, sizeof(uint64_t))));
        if (!bytes.empty())
            add(wordOf(bytes));
    }

    uint64_t value() const { return mSum; }

private:
    static uint64_t wordOf(std::string_view bytes)
    {
        uint64_t word = 0;
        std::memcpy(&word, bytes.data(), bytes.size());
        return le64toh(word);
    }

    uint64_t mSum = 0xCBF29CE484222325; // as FNV-1a begins
};

#endif
