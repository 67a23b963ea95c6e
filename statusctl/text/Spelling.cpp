#include "statusctl/text/Spelling.h"

#include <algorithm>
#include <utility>

namespace
{

// In a short word, two mistakes leave too little of the word.
std::size_t mistakesAllowedIn(const std::string& word)
{
    constexpr std::size_t shortWord = 4;
    return word.size() <= shortWord ? 1 : 2;
}

} // namespace

// The common table of the distances of all beginnings. Row i, column j: i letters of one, j of the other
// word.
std::size_t Spelling::distance(const std::string& one, const std::string& other)
{
    std::vector<std::vector<std::size_t>> rows(one.size() + 1, std::vector<std::size_t>(other.size() + 1));
    for (std::size_t i = 0; i <= one.size(); ++i)
    {
        for (std::size_t j = 0; j <= other.size(); ++j)
        {
            if (i == 0 || j == 0)
            {
                rows[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = rows[i - 1][j - 1] + (one[i - 1] == other[j - 1] ? 0U : 1U);
            rows[i][j] = std::min({rows[i - 1][j] + 1, rows[i][j - 1] + 1, replaced});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                rows[i][j] = std::min(rows[i][j], rows[i - 2][j - 2] + 1);
        }
    }
    return rows.back().back();
}

std::string Spelling::nearest(const std::string& word, const std::vector<std::string>& known)
{
    std::size_t least = mistakesAllowedIn(word) + 1;
    std::string nearest;
    for (const std::string& each : known)
    {
        // A word that is much longer is not near. Arguments may be long, and the table grows with both.
        if (std::max(word.size(), each.size()) - std::min(word.size(), each.size()) >= least)
            continue;
        const std::size_t mistakes = distance(word, each);
        if (mistakes < least)
            nearest = each;
        least = std::min(least, mistakes);
    }
    return nearest;
}
