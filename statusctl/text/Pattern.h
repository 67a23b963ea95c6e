#ifndef STATUSCTL_TEXT_PATTERN_H
#define STATUSCTL_TEXT_PATTERN_H

#include <iterator>
#include <string>
#include <vector>

/// Names from the command line: exact names and shell globs (*, ?, [a-z]; \ takes the next character as it
/// is). The library matches names exactly, so globs are matched here.
class Pattern
{
public:
    Pattern() = default;
    explicit Pattern(const std::vector<std::string>& texts);

    /// All exact, whatever characters they contain.
    static Pattern ofNames(const std::vector<std::string>& names);

    /// Whether the text contains characters of a glob.
    static bool isGlob(const std::string& text);

    /// Whether an exact name or a glob matches.
    bool matches(const std::string& name) const;

    /// The entries of a map whose names match; all entries if the pattern is empty.
    template <typename Map>
    Map matching(Map map) const
    {
        for (auto each = map.begin(); each != map.end();)
            each = empty() || matches(each->first) ? std::next(each) : map.erase(each);
        return map;
    }
    bool matchesGlob(const std::string& name) const;
    bool isExact(const std::string& name) const;

    const std::vector<std::string>& exact() const { return mExact; }
    bool hasGlobs() const { return !mGlobs.empty(); }
    bool empty() const { return mExact.empty() && mGlobs.empty(); }

private:
    static void add(std::vector<std::string>& texts, const std::string& text);

    std::vector<std::string> mExact;
    std::vector<std::string> mGlobs;
};

#endif
