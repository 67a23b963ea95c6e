#ifndef STATUSCTL_TEXT_PATTERN_H
#define STATUSCTL_TEXT_PATTERN_H

#include <iterator>
#include <string>
#include <vector>

/// Names given on the command line, exact ones and shell globs (*, ?, [a-z]; \ before one of them takes it as
/// it is). The library matches names exactly, so globs are matched here.
class Pattern
{
public:
    Pattern() = default;
    explicit Pattern(const std::vector<std::string>& texts);

    /// All exact, whatever letters are in them.
    static Pattern ofNames(const std::vector<std::string>& names);

    /// Whether the text has letters of a glob.
    static bool isGlob(const std::string& text);

    /// Whether one of the globs or exact names is this one.
    bool matches(const std::string& name) const;

    /// Those of the names in a map that match; all if there is neither a glob nor a name.
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
