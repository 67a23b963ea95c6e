#include "broker/policy/KeyIndex.h"

#include <algorithm>
#include <cstring>

namespace
{

constexpr int16_t noLetter = -1;

uint8_t letterAt(const std::string& text, std::size_t at)
{
    return static_cast<uint8_t>(text[at]);
}

int16_t lastLetterOf(const std::string& text)
{
    return text.empty() ? noLetter : static_cast<int16_t>(letterAt(text, text.size() - 1));
}

// The length of the common beginning.
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

// Makes a node for entries that share their first `depth` letters.
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

// Entries are added in their order.
void KeyIndex::addHere(Node& node, const Entry& entry)
{
    const Glob& glob = *entry.glob;
    const std::string& rest = glob.rest();
    if (rest.empty())
        node.exact = std::min(node.exact, entry.order);
    else if (rest == "*")
        node.anything = std::min(node.anything, entry.order);
    else
    {
        mRests.push_back({keep(rest), keep(glob.tail()), static_cast<uint16_t>(rest.size()),
                          static_cast<uint16_t>(glob.tail().size()), entry.order, lastLetterOf(glob.tail()),
                          glob.isTailOnly()});
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

// Every decision runs this, so it uses pointers instead of positions.
KeyIndex::Order KeyIndex::find(std::string_view name, Order otherwise) const
{
    Order best = otherwise;
    const char* at = name.data();
    const char* const end = at + name.size();
    const Node* const nodes = mNodes.data();
    const uint32_t* const children = mChildren.data();
    for (const Node* node = nodes; node->earliest < best;)
    {
        if (node->anything < best)
            best = node->anything;
        if (node->restCount != 0)
            best = findInRests(*node, name.substr(static_cast<std::size_t>(at - name.data())), best);
        if (at == end)
            return std::min(best, node->exact);
        const unsigned letter = static_cast<unsigned>(static_cast<uint8_t>(*at++)) - node->lowest;
        if (letter >= node->childSpan)
            return best;
        const uint32_t child = children[node->firstChild + letter];
        if (child == 0)
            return best;
        node = nodes + child;
        const std::size_t length = node->labelLength;
        if (length != 0 && (static_cast<std::size_t>(end - at) < length ||
                            memcmp(at, mText.data() + node->label, length) != 0))
            return best;
        at += length;
    }
    return best;
}

KeyIndex::Order KeyIndex::findInRests(const Node& node, std::string_view name, Order best) const
{
    const int last = name.empty() ? noLetter : static_cast<uint8_t>(name.back());
    const Rest* const end = mRests.data() + node.firstRest + node.restCount;
    for (const Rest* rest = end - node.restCount; rest != end && rest->order < best; ++rest)
    {
        const bool mayMatch = rest->last == last || rest->last == noLetter;
        if (mayMatch && matches(*rest, name))
            return rest->order; // later entries have a higher order
    }
    return best;
}

bool KeyIndex::matches(const Rest& rest, std::string_view name) const
{
    const std::size_t length = rest.tailLength;
    const char* const tail = mText.data() + rest.tail;
    if (name.size() < length ||
        (length != 0 && memcmp(name.data() + name.size() - length, tail, length) != 0))
        return false;
    return rest.isTailOnly || Glob::matches(std::string_view(mText).substr(rest.text, rest.length), name);
}
