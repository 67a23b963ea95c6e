#ifndef BROKER_DATABASE_H
#define BROKER_DATABASE_H

#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>
#include <string>

#include "broker/Options.h"
#include "broker/SavedState.h"

/// The tables of the state file. Every operation throws DatabaseError.
class DatabaseError : public std::runtime_error
{
public:
    /// @param unreadable the file is there, but is not what it should be: no use in trying again
    DatabaseError(const std::string& what, bool unreadable)
        : std::runtime_error(what), mUnreadable(unreadable)
    {
    }

    bool isUnreadable() const { return mUnreadable; }

private:
    bool mUnreadable;
};

class Database
{
public:
    /// Opens the file, or makes it.
    Database(const std::string& path, StateSync sync);
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    struct Contents
    {
        SavedState state;
        std::string bootId;        ///< in which it was written last; empty: never
        uint64_t microseconds = 0; ///< of that boot
    };

    Contents read();

    /// Writes all or nothing.
    void write(const SavedState& changes, const std::string& bootId, uint64_t microseconds);

private:
    struct Closer
    {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };
    struct Finalizer
    {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    using Statement = std::unique_ptr<sqlite3_stmt, Finalizer>;

    [[noreturn]] void fail(const std::string& doing) const;
    void execute(const char* sql);
    Statement prepare(const char* sql);
    void bind(sqlite3_stmt* statement, int index, const std::string& bytes);
    void bind(sqlite3_stmt* statement, int index, uint64_t number);
    void run(sqlite3_stmt* statement);
    uint64_t numberOf(const char* pragma);
    void foldInOnClose(bool does);
    void setUp(StateSync sync);
    void checkIntegrity();
    void writeRows(const SavedState& changes, const std::string& bootId, uint64_t microseconds);
    std::string bytesOf(sqlite3_stmt* statement, int column) const;
    uint64_t numberOf(sqlite3_stmt* statement, int column, uint64_t most) const;

    std::unique_ptr<sqlite3, Closer> mDatabase;
    Statement mWriteValue;
    Statement mWriteTimer;
    Statement mWriteCounter;
    Statement mWriteMoment;
};

#endif
