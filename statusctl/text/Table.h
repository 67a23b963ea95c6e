#ifndef STATUSCTL_TEXT_TABLE_H
#define STATUSCTL_TEXT_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

/// A table of texts, one line a row. Columns are as wide as their texts need, aligned left for names and
/// right for numbers.
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

    /// @param cells one for each column, without control characters
    void add(std::vector<std::string> cells);

    /// The titles, then the rows in their order, without trailing blanks.
    std::vector<std::string> lines() const;

private:
    std::string line(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths) const;

    std::vector<Alignment> mAlignments;
    std::vector<std::vector<std::string>> mRows; ///< the first holds the titles
};

#endif
