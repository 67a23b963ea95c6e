#include "statusctl/text/Table.h"

#include <algorithm>
#include <utility>

namespace
{

constexpr std::size_t gap = 2;

// Counts characters, not bytes: each byte except UTF-8 continuation bytes.
std::size_t width(const std::string& text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(),
                      [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0U) != 0x80U; }));
}

} // namespace

Table::Table(std::vector<Column> columns)
{
    std::vector<std::string> titles;
    for (Column& column : columns)
    {
        mAlignments.push_back(column.alignment);
        titles.push_back(std::move(column.title));
    }
    mRows.push_back(std::move(titles));
}

void Table::add(std::vector<std::string> cells)
{
    mRows.push_back(std::move(cells));
}

std::vector<std::string> Table::lines() const
{
    std::vector<std::size_t> widths(mAlignments.size());
    for (const std::vector<std::string>& row : mRows)
        std::transform(row.begin(), row.end(), widths.begin(), widths.begin(),
                       [](const std::string& cell, std::size_t widest)
                       { return std::max(widest, width(cell)); });
    std::vector<std::string> lines;
    lines.reserve(mRows.size());
    for (const std::vector<std::string>& row : mRows)
        lines.push_back(line(row, widths));
    return lines;
}

std::string Table::line(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths) const
{
    std::string line;
    for (std::size_t column = 0; column < cells.size(); ++column)
    {
        const std::string blanks(widths[column] - width(cells[column]), ' ');
        line += std::string(column == 0 ? 0 : gap, ' ');
        line += mAlignments[column] == Alignment::Right ? blanks + cells[column] : cells[column] + blanks;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}
