#include "c/Blocks.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace StatusC
{

namespace
{

std::size_t bytesOfTexts(const StatusMap& values)
{
    std::size_t bytes = 0;
    for (const auto& [key, value] : values)
        bytes += key.size() + value.size() + 2; // each with its NUL
    return bytes;
}

// Appends `text` and its NUL at `end`, which moves behind them. Returns where the text begins.
const char* append(const std::string& text, char*& end)
{
    char* const begin = end;
    std::memcpy(begin, text.c_str(), text.size() + 1);
    end += text.size() + 1;
    return begin;
}

// Pairs at `pairs`, their texts from `end` on.
status_values_t written(const StatusMap& values, void* pairs, char*& end)
{
    if (values.empty())
        return {0, nullptr};
    auto* const first = static_cast<status_pair_t*>(pairs);
    status_pair_t* pair = first;
    for (const auto& [key, value] : values)
    {
        const char* const keyText = append(key, end);
        new (pair++) status_pair_t{keyText, append(value, end)};
    }
    return {values.size(), first};
}

// A block of a structure `T`, the pairs of `values`, and texts.
template <class T>
struct Block
{
    Block(const StatusMap& values, std::size_t textBytes)
        : memory(std::malloc(sizeof(T) + values.size() * sizeof(status_pair_t) + textBytes))
    {
        static_assert(alignof(T) % alignof(status_pair_t) == 0 && sizeof(T) % alignof(status_pair_t) == 0,
                      "the pairs begin behind the structure");
        if (memory == nullptr)
            return;
        pairs = static_cast<char*>(memory) + sizeof(T);
        end = pairs + values.size() * sizeof(status_pair_t);
    }

    void* memory;
    char* pairs = nullptr;
    char* end = nullptr;
};

} // namespace

char* blockOf(const std::string& text)
{
    auto* const block = static_cast<char*>(std::malloc(text.size() + 1));
    if (block != nullptr)
        std::memcpy(block, text.c_str(), text.size() + 1);
    return block;
}

status_values_t* blockOf(const StatusMap& values)
{
    Block<status_values_t> block(values, bytesOfTexts(values));
    if (block.memory == nullptr)
        return nullptr;
    return new (block.memory) status_values_t(written(values, block.pairs, block.end));
}

status_item_t* blockOf(const Item& item)
{
    Block<status_item_t> block(item.values,
                               bytesOfTexts(item.values) + item.key.size() + item.value.size() + 2);
    if (block.memory == nullptr)
        return nullptr;
    auto* const made = new (block.memory) status_item_t{};
    made->kind = item.kind;
    made->result = item.result;
    made->tag = item.tag;
    made->number = item.number;
    made->values = written(item.values, block.pairs, block.end);
    made->key = append(item.key, block.end);
    made->value = append(item.value, block.end);
    return made;
}

} // namespace StatusC
