#ifndef BROKER_STATE_DATABASE_H
#define BROKER_STATE_DATABASE_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <stdexcept>
#include <string>

#include "broker/state/SavedState.h"
#include "broker/state/StateSync.h"

/// Why an operation on the state file failed.
class DatabaseError : public std::runtime_error
{
public:
    enum class Kind
    {
        Unreadable, ///< the file is there, but is not what it should be: no use in trying again
        Locked,     ///< by somebody else
        Other,
    };

    DatabaseError(const std::string& what, Kind kind) : std::runtime_error(what), mKind(kind) {}

    bool isUnreadable() const { return mKind == Kind::Unreadable; }
    bool isLocked() const { return mKind == Kind::Locked; }

private:
    Kind mKind;
};

/// The tables of the state file. Every operation throws DatabaseError.
class Database
{
public:
    /// Opens the file, or makes it.
    /// @param patience how long it is waited for somebody else who has locked it
    Database(const std::string& path, StateSync sync, std::chrono::milliseconds patience);
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

    /// What a file holds that cannot be had for writing: others read it, or the storage can only be read.
    static Contents readOnly(const std::string& path);

    /// Writes all or nothing.
    void write(const SavedState& changes, const std::string& bootId, uint64_t microseconds);

    /// Leaves the file and the log beside it as they are when it is closed.
    void leaveAsItIs() { foldInOnClose(false); }

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

    explicit Database(sqlite3* opened) : mDatabase(opened) {}
    Contents readUnwritable();
    Contents readRows();
    [[noreturn]] void fail(const std::string& doing) const;
    void execute(const char* sql);
    Statement prepare(const char* sql);
    void bind(sqlite3_stmt* statement, int index, const std::string& bytes);
    void bind(sqlite3_stmt* statement, int index, uint64_t number);
    void run(sqlite3_stmt* statement);
    uint64_t numberOf(const char* pragma);
    void foldInOnClose(bool does);
    void setUp(StateSync sync);
    bool isNew();
    void checkTables();
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
