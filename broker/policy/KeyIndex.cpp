#include "broker/policy/KeyIndex.h"

#include <algorithm>
#include <cstring>

namespace
{

uint8_t letterAt(const std::string& text, std::size_t at)
{
    return static_cast<uint8_t>(text[at]);
}

// How long the beginning is that both share.
std::size_t sharedLength(const std::string& one, const std::string& other)
{
    const std::size_t most = std::min(one.size(), other.size());
    std::size_t length = 0;
    while (length < most && one[length] == other[length])
        ++length;
    return length;
}

} // namespace

KeyIndex::KeyIndex(std::vector<Entry> entries)
{
    std::sort(entries.begin(), entries.end(),
              [](const Entry& one, const Entry& other)
              {
                  const int compared = one.glob->literal().compare(other.glob->literal());
                  return compared == 0 ? one.order < other.order : compared < 0;
              });
    build(entries, 0, entries.size(), 0);
    mNodes.shrink_to_fit();
    mChildren.shrink_to_fit();
    mText.shrink_to_fit();
}

// A node for entries that share their first `depth` letters.
uint32_t KeyIndex::build(const Entries& entries, std::size_t begin, std::size_t end, std::size_t depth)
{
    const auto index = static_cast<uint32_t>(mNodes.size());
    mNodes.emplace_back();
    Node node;
    node.firstRest = static_cast<uint32_t>(mRests.size());
    for (; begin != end && entries[begin].glob->literal().size() == depth; ++begin)
        addHere(node, entries[begin]);
    node.earliest = std::min(node.exact, node.anything);
    if (node.restCount != 0)
        node.earliest = std::min(node.earliest, mRests[node.firstRest].order);
    if (begin != end)
        addChildren(node, entries, begin, end, depth);
    mNodes[index] = node;
    return index;
}

// They come in their order.
void KeyIndex::addHere(Node& node, const Entry& entry)
{
    const std::string& rest = entry.glob->rest();
    if (rest.empty())
        node.exact = std::min(node.exact, entry.order);
    else if (rest == "*")
        node.anything = std::min(node.anything, entry.order);
    else
    {
        mRests.push_back({keep(rest), static_cast<uint16_t>(rest.size()), entry.order});
        ++node.restCount;
    }
}

void KeyIndex::addChildren(Node& node, const Entries& entries, std::size_t begin, std::size_t end,
                           std::size_t depth)
{
    node.firstChild = static_cast<uint32_t>(mChildren.size());
    node.lowest = letterAt(entries[begin].glob->literal(), depth);
    const uint8_t highest = letterAt(entries[end - 1].glob->literal(), depth);
    node.childSpan = static_cast<uint16_t>(highest - node.lowest + 1);
    mChildren.resize(mChildren.size() + node.childSpan);
    while (begin != end)
    {
        const std::string& first = entries[begin].glob->literal();
        const uint8_t letter = letterAt(first, depth);
        std::size_t next = begin;
        while (next != end && letterAt(entries[next].glob->literal(), depth) == letter)
            ++next;
        const std::size_t shared = sharedLength(first, entries[next - 1].glob->literal());
        const uint32_t child = build(entries, begin, next, shared);
        mNodes[child].label = keep(std::string_view(first).substr(depth + 1, shared - depth - 1));
        mNodes[child].labelLength = static_cast<uint16_t>(shared - depth - 1);
        mChildren[node.firstChild + letter - node.lowest] = child;
        node.earliest = std::min(node.earliest, mNodes[child].earliest);
        begin = next;
    }
}

uint32_t KeyIndex::keep(std::string_view text)
{
    const auto at = static_cast<uint32_t>(mText.size());
    mText += text;
    return at;
}

KeyIndex::Order KeyIndex::find(std::string_view name, Order otherwise) const
{
    Order best = otherwise;
    const Node* node = mNodes.data();
    while (node->earliest < best)
    {
        best = std::min(best, node->anything);
        if (node->restCount != 0)
            best = findInRests(*node, name, best);
        if (name.empty())
            return std::min(best, node->exact);
        const unsigned child = static_cast<unsigned>(static_cast<uint8_t>(name[0])) - node->lowest;
        if (child >= node->childSpan)
            return best;
        node = &mNodes[mChildren[node->firstChild + child]];
        if (node == mNodes.data())
            return best;
        const std::size_t length = node->labelLength;
        if (name.size() <= length ||
            (length != 0 && memcmp(name.data() + 1, mText.data() + node->label, length) != 0))
            return best;
        name.remove_prefix(length + 1);
    }
    return best;
}

KeyIndex::Order KeyIndex::findInRests(const Node& node, std::string_view name, Order best) const
{
    const std::string_view text = mText;
    for (std::size_t i = 0; i < node.restCount; ++i)
    {
        const Rest& rest = mRests[node.firstRest + i];
        if (rest.order >= best)
            break; // those behind it are later
        if (Glob::matches(text.substr(rest.text, rest.length), name))
            return rest.order;
    }
    return best;
}
