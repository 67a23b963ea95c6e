#ifndef BROKER_STATE_DATABASE_H
#define BROKER_STATE_DATABASE_H

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <sys/types.h>

#include "broker/base/Limits.h"
#include "broker/state/DatabaseError.h"
#include "broker/state/LogCheck.h"
#include "broker/state/Rows.h"
#include "broker/state/SavedState.h"
#include "broker/state/StateSync.h"

/// The state file as an SQLite database. Every operation throws DatabaseError.
///
/// Nothing in the file is trusted. It is read if it has exactly the tables that are made here and nothing
/// else, so no foreign trigger or view ever runs. A row counts if its checksum fits. Nothing long is read
/// into memory.
class Database
{
public:
    /// Opens the file, or makes it. Only a regular file is opened: another could make the broker wait.
    /// @param patience how long it is waited for somebody else who has locked it
    /// @param limits of what is read; they must outlive it
    Database(const std::string& path, StateSync sync, std::chrono::milliseconds patience,
             const Limits& limits);
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    struct Contents
    {
        SavedState state;
        std::string bootId;        ///< in which it was written last; empty: never
        uint64_t microseconds = 0; ///< of that boot

        std::string damage;         ///< what is not as it was written; empty: nothing
        std::size_t lostRows = 0;   ///< that are not as they were written
        bool mayLackRows = false;   ///< whether there may be rows that are not found
        std::size_t excessRows = 0; ///< beyond the limits, the last one perhaps not the only one
    };

    /// Reads all that is not damaged. If anything is damaged, the file is left as it is: write() must not
    /// follow.
    /// @param bootId of this boot; empty if it is not known
    Contents read(const std::string& bootId);

    /// Reads a file that cannot be opened for writing: others read it, or the storage can only be read.
    static Contents readOnly(const std::string& path, const std::string& bootId, const Limits& limits);

    /// Writes all or nothing.
    void write(const SavedState& changes, const std::string& bootId, uint64_t microseconds);

    /// False if somebody has removed or replaced the file, or the log beside it. Then all writes are lost.
    bool isInPlace() const { return mFiles == filesAt(mPath); }

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

    class Budget;

    struct FileId // all 0: there is none
    {
        dev_t device = 0;
        ino_t inode = 0;

        bool operator==(const FileId& other) const { return device == other.device && inode == other.inode; }
    };
    using Files = std::array<FileId, 2>; // the file and its log

    Database(sqlite3* opened, const Limits& limits);
    static Files filesAt(const std::string& path);
    bool isNew(const std::string& path);
    void create();
    void checkTables();
    bool hasTables();
    bool isThere(Table table) const { return mHasDetails || table != Table::Details; }

    Contents readUnwritable(const std::string& path, const std::string& bootId);
    Contents readAll(const std::string& bootId);
    std::string findDamage();
    void readTable(Table table, Contents& contents);
    bool readRows(Table table, bool backwards, Budget& budget, Contents& contents);
    void take(Table table, sqlite3_stmt* row, Contents& contents) const;
    static bool add(Table table, const Row& row, Contents& contents);
    static bool addDetail(const std::string& name, const Row& row, SavedState& state);
    static void dropOrphans(SavedState& state);

    void getReadyToWrite();
    void addTableOfDetails();
    void writeAll(const SavedState& changes, const std::string& bootId, uint64_t microseconds);
    void writeRow(Table table, Row row);
    void deleteRows(Table table, const SavedState::Gone::Names& names);
    void foldIn();
    void foldInOnClose(bool does);

    [[noreturn]] void fail(const std::string& doing) const;
    void execute(const std::string& sql, const char* doing = "write");
    Statement prepare(const std::string& sql);
    uint64_t numberOf(const char* sql);

    const Limits& mLimits;
    std::string mPath; // if it is open for writing
    Files mFiles;      // that are open
    std::unique_ptr<sqlite3, Closer> mDatabase;
    bool mIsOpenForWriting = false;
    bool mHasDetails = true; // not in a file of the former version
    LogCheck mLog;           // as it was found
    std::array<Statement, allTables.size()> mWrite;
    std::array<Statement, allTables.size()> mDelete;
    bool mHasRemains = false; // of a transaction that failed, in the log
};

#endif
