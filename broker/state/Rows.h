#ifndef BROKER_STATE_ROWS_H
#define BROKER_STATE_ROWS_H

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "broker/state/SavedState.h"

/// The rows of the state file, and the statements that create, read and write them. Has no file.

enum class Table
{
    Values,
    Timers,
    Counters,
    Details, ///< of values
    Moments, ///< the boot and the time of the last commit, one row
};

constexpr std::array<Table, 5> allTables{Table::Values, Table::Timers, Table::Counters, Table::Details,
                                         Table::Moments};

/// A row of any table. A table without text, or with fewer numbers, leaves them empty and 0.
struct Row
{
    static constexpr std::size_t mostNumbers = 4;
    using Numbers = std::array<uint64_t, mostNumbers>;

    std::string_view name;
    std::string_view text;
    Numbers numbers{};
};

/// How a table is laid out.
class Layout
{
public:
    static const Layout& of(Table table);

    const char* name() const { return mName; }
    bool hasText() const { return mText != nullptr; }
    std::size_t numbers() const { return mCount; }

    /// The row's numbers, each limited to the largest that the table may hold.
    Row::Numbers clamped(const Row::Numbers& numbers) const;

    /// Whether a row with these numbers may be in the table.
    bool mayHold(const Row::Numbers& numbers) const { return clamped(numbers) == numbers; }

    /// @param row with clamped numbers
    uint64_t checksum(const Row& row) const;

    /// In the form in which SQLite stores it.
    std::string createStatement() const;

    /// Its parameters: name, text, numbers and checksum.
    std::string writeStatement() const;

    /// Its parameter: the name.
    std::string deleteStatement() const;

    /// Its parameters: the longest name and the longest text to read, in bytes. Longer ones never get into
    /// memory.
    ///
    /// Its columns, in all tables: the lengths of name and text (null: wrong type), name, text, the numbers,
    /// the checksum (all null: a column has the wrong type, or is too long).
    std::string readStatement(bool backwards) const;

    /// The columns of readStatement().
    enum Column
    {
        NameLength,
        TextLength,
        Name,
        Text,
        FirstNumber,
        Checksum = FirstNumber + static_cast<int>(Row::mostNumbers),
    };

private:
    using Columns = std::array<const char*, Row::mostNumbers>;

    constexpr Layout(const char* name, const char* text, std::size_t count, Columns columns, uint64_t most)
        : mName(name), mText(text), mCount(count), mColumns(columns), mMost(most)
    {
    }

    std::string isReadable() const;

    const char* mName;
    const char* mText; // the column's name; null if there is none
    std::size_t mCount;
    Columns mColumns; // of numbers
    uint64_t mMost;   // the largest number
};

#endif
