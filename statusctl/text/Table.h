#ifndef STATUSCTL_TEXT_TABLE_H
#define STATUSCTL_TEXT_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

/// A table of texts on one line each, as wide as they need: names on the left, numbers on the right of their
/// column.
class Table
{
public:
    enum class Alignment
    {
        Left,
        Right,
    };

    struct Column
    {
        std::string title;
        Alignment alignment;
    };

    explicit Table(std::vector<Column> columns);

    /// @param cells as many as there are columns; no control characters
    void add(std::vector<std::string> cells);

    /// The titles, then the rows in their order, without blanks at their ends.
    std::vector<std::string> lines() const;

private:
    std::string line(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths) const;

    std::vector<Alignment> mAlignments;
    std::vector<std::vector<std::string>> mRows; ///< the first holds the titles
};

#endif
