#include "broker/state/Rows.h"

#include <algorithm>
#include <limits>

#include "broker/state/RowChecksum.h"

namespace
{

// The kernel's clocks count nanoseconds in 63 bits, some 292 years: no duration and no time is larger.
constexpr uint64_t mostMicroseconds = std::numeric_limits<int64_t>::max() / 1000;
constexpr uint64_t mostCounted = std::numeric_limits<uint32_t>::max();

} // namespace

const Layout& Layout::of(Table table)
{
    static constexpr Layout value{"value", "text", 0, {}, 0};
    static constexpr Layout timer{
        "timer", nullptr, 3, {"accumulated", "span_start", "last_started"}, mostMicroseconds};
    static constexpr Layout counter{"counter", nullptr, 1, {"number"}, mostCounted};
    static constexpr Layout detail{
        "detail", "clients", 4, {"posted", "changed", "posts", "changes"}, mostMicroseconds};
    static constexpr Layout moment{"moment", "boot_id", 1, {"microseconds"}, mostMicroseconds};
    switch (table)
    {
    case Table::Values:
        return value;
    case Table::Timers:
        return timer;
    case Table::Counters:
        return counter;
    case Table::Details:
        return detail;
    case Table::Moments:
        break;
    }
    return moment;
}

Row::Numbers Layout::clamped(const Row::Numbers& numbers) const
{
    Row::Numbers result = numbers;
    for (uint64_t& number : result)
        number = std::min(number, mMost);
    return result;
}

uint64_t Layout::checksum(const Row& row) const
{
    RowChecksum sum(mName);
    sum.add(row.name);
    sum.add(row.text);
    for (std::size_t number = 0; number < mCount; ++number)
        sum.add(row.numbers[number]);
    return sum.value();
}

std::string Layout::createStatement() const
{
    std::string columns = "name BLOB PRIMARY KEY";
    for (std::size_t number = 0; number < mCount; ++number)
        columns.append(", ").append(mColumns[number]).append(" INTEGER NOT NULL");
    columns += ", checksum INTEGER NOT NULL";
    if (hasText()) // the last column: SQLite finds the columns before it without reading a long text
        columns.append(", ").append(mText).append(" BLOB NOT NULL");
    return std::string("CREATE TABLE ").append(mName).append(" (").append(columns).append(") WITHOUT ROWID");
}

std::string Layout::writeStatement() const
{
    std::string columns = "name";
    std::string values = "?";
    const auto add = [&](const char* column)
    {
        columns.append(", ").append(column);
        values += ", ?";
    };
    if (hasText())
        add(mText);
    for (std::size_t number = 0; number < mCount; ++number)
        add(mColumns[number]);
    add("checksum");
    return std::string("INSERT OR REPLACE INTO ").append(mName) + " (" + columns + ") VALUES (" + values +
           ")";
}

std::string Layout::deleteStatement() const
{
    return std::string("DELETE FROM ").append(mName) + " WHERE name = ?";
}

// The condition on which a row can be read.
std::string Layout::isReadable() const
{
    const auto isShort = [](const std::string& column, const char* most)
    { return "typeof(" + column + ") = 'blob' AND length(" + column + ") <= " + most; };
    const auto isNumber = [](const std::string& column) { return " AND typeof(" + column + ") = 'integer'"; };
    std::string condition = isShort("name", "?1");
    if (hasText())
        condition += " AND " + isShort(mText, "?2");
    for (std::size_t number = 0; number < mCount; ++number)
        condition += isNumber(mColumns[number]);
    return condition + isNumber("checksum");
}

std::string Layout::readStatement(bool backwards) const
{
    const auto length = [](const std::string& column)
    { return "CASE WHEN typeof(" + column + ") = 'blob' THEN length(" + column + ") END, "; };
    const auto guarded = [readable = isReadable()](const std::string& column)
    { return "CASE WHEN " + readable + " THEN " + column + " END"; };
    std::string columns = length("name") + (hasText() ? length(mText) : "0, ") + guarded("name") + ", " +
                          guarded(hasText() ? mText : "x''") + ", ";
    for (std::size_t number = 0; number < Row::mostNumbers; ++number)
        columns += (number < mCount ? guarded(mColumns[number]) : "0") + ", ";
    return "SELECT " + columns + guarded("checksum") + " FROM " + mName + " ORDER BY name" +
           (backwards ? " DESC" : "");
}
