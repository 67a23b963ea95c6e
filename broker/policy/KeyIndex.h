#ifndef BROKER_POLICY_KEYINDEX_H
#define BROKER_POLICY_KEYINDEX_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/Glob.h"

/// Finds the first of many globs that matches a name, without trying them one by one.
///
/// It is a tree over the literal beginnings of the globs. Each step is a table look-up. So a search takes
/// time in proportion to the length of the name, for any name and any number of globs. Globs that continue
/// after a wildcard, such as "*.state" or "net.*.state", are tried one by one where their beginning matches.
/// It caches nothing, so no client can make the next search slower.
class KeyIndex
{
public:
    /// A smaller order is earlier.
    using Order = uint16_t;

    struct Entry
    {
        const Glob* glob; ///< need not outlive the constructor
        Order order;
    };

    explicit KeyIndex(std::vector<Entry> entries);

    /// The smallest order of all globs that match the name.
    /// @param otherwise returned if no matching glob has a smaller order
    Order find(std::string_view name, Order otherwise) const;

private:
    // The subtree of a node holds the rest of all names that begin with the letters up to the node.
    struct alignas(32) Node // a power of two is cheaper to multiply with
    {
        uint32_t label = 0;      // in mText: the letters that lead here, except the first
        uint32_t firstChild = 0; // in mChildren: where the table begins
        uint32_t firstRest = 0;  // in mRests
        uint16_t labelLength = 0;
        uint16_t restCount = 0;
        uint16_t childSpan = 0; // length of the table
        uint8_t lowest = 0;     // the first letter of the table's first child
        Order earliest = none;  // of this node and all below it
        Order exact = none;     // for the name that ends here
        Order anything = none;  // for each name that passes here
    };

    struct Rest
    {
        uint32_t text; // in mText
        uint32_t tail; // in mText
        uint16_t length;
        uint16_t tailLength;
        Order order;
        int16_t last; // letter of the tail, compared first because that is cheap; -1 if there is none
        bool isTailOnly;
    };

    using Entries = std::vector<Entry>;

    static constexpr Order none = 0xffff;

    uint32_t build(const Entries& entries, std::size_t begin, std::size_t end, std::size_t depth);
    void addHere(Node& node, const Entry& entry);
    void addChildren(Node& node, const Entries& entries, std::size_t begin, std::size_t end,
                     std::size_t depth);
    bool matches(const Rest& rest, std::string_view name) const;
    Order findInRests(const Node& node, std::string_view name, Order best) const;
    uint32_t keep(std::string_view text);

    std::vector<Node> mNodes;        // the first is the root
    std::vector<uint32_t> mChildren; // in mNodes; 0 is none, since the root has no parent
    std::vector<Rest> mRests;
    std::string mText;
};

#endif
