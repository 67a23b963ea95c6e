#ifndef BRIDGE_BRIDGEFILE_H
#define BRIDGE_BRIDGEFILE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <sqlite3.h>
#include <string>
#include <string_view>

#include "daemon/Clock.h"
#include "daemon/DatabaseError.h"

/// One SQL statement. Every operation throws DatabaseError.
class Sql
{
public:
    Sql(sqlite3* database, const char* text);

    Sql& bind(int64_t number);
    Sql& bind(std::string_view text);

    /// Returns whether there is a row.
    bool step();

    /// Ready for other values.
    void reset();

    int64_t number(int column) const { return sqlite3_column_int64(mStatement.get(), column); }
    std::string text(int column) const;

private:
    struct Finalizer
    {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };

    std::unique_ptr<sqlite3_stmt, Finalizer> mStatement;
    int mBound = 0;
};

/// The bridge's file: the session number, the topics that the server keeps, events that wait, and the
/// versions of desired values that were applied.
///
/// No fault of the file keeps the bridge from working. An unreadable file is moved aside, and a new one is
/// started. If writing fails, that is logged, and tried again once a second, and success is logged. Nothing
/// in the file is trusted: it is read only if it has exactly the tables made here, and passes SQLite's check.
class BridgeFile
{
public:
    /// Opens or creates the file.
    /// @param path empty: there is no file
    explicit BridgeFile(std::string path);

    /// Whether the file can be used now. After a failure this is false until the next attempt, which reopen()
    /// makes.
    bool isOpen() const { return mDatabase != nullptr; }

    /// Tries again after a failure, at most once a second.
    void reopen(TimePoint now);

    /// How many files have been started or opened. When this number changes, memory must be written to the
    /// file again.
    unsigned openings() const { return mOpenings; }

    /// Calls `work`, which writes everything or nothing. Returns false after a failure, which is logged.
    bool write(const std::function<void(sqlite3*)>& work);

    /// Calls `work`, which only reads. Returns false after a failure, which is logged.
    bool read(const std::function<void(sqlite3*)>& work);

    /// A number that the file keeps; 0 if it has none.
    int64_t numberOf(const char* name);
    static void setNumber(sqlite3* database, const char* name, int64_t number);

private:
    struct Closer
    {
        void operator()(sqlite3* database) const { sqlite3_close_v2(database); }
    };

    void open();
    void openOnce();
    void prepare();
    bool attempt(const std::function<void()>& work);
    void failed(const DatabaseError& error);
    bool moveAside();

    const std::string mPath;
    std::unique_ptr<sqlite3, Closer> mDatabase;
    TimePoint mNextAttempt{};
    unsigned mOpenings = 0;
    bool mIsReported = false;
};

#endif
