#ifndef STATUSCTL_TEXT_SPELLING_H
#define STATUSCTL_TEXT_SPELLING_H

#include <string>
#include <vector>

namespace Spelling
{

/// The smallest number of letters to add, remove, replace, or exchange with their neighbour, to get from one
/// word to the other.
std::size_t distance(const std::string& one, const std::string& other);

/// @returns the word that was probably meant: the first of the nearest ones. Empty if none is near.
std::string nearest(const std::string& word, const std::vector<std::string>& known);

} // namespace Spelling

#endif
