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
#include "broker/state/LogCheck.h"
#include "broker/state/Rows.h"
#include "broker/state/SavedState.h"
#include "broker/state/StateSync.h"
#include "daemon/DatabaseError.h"

/// The state file as an SQLite database. Every operation throws DatabaseError.
///
/// Nothing in the file is trusted. The file is read only if it has exactly the tables made here, so no
/// foreign trigger or view ever runs. A row counts only if its checksum matches. No long row is read into
/// memory.
class Database
{
public:
    /// Opens the file, or creates it. Opens only a regular file: any other could make the broker wait.
    /// @param patience how long to wait for another process that has locked the file
    /// @param limits of the content that is read; must outlive this object
    Database(const std::string& path, StateSync sync, std::chrono::milliseconds patience,
             const Limits& limits);
    ~Database();

    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    struct Contents
    {
        SavedState state;
        std::string bootId;        ///< the boot in which it was last written; empty: never
        uint64_t microseconds = 0; ///< the time of that write, within its boot

        std::string damage;         ///< how the content differs from what was written; empty: not at all
        std::size_t lostRows = 0;   ///< rows whose content is damaged
        bool mayLackRows = false;   ///< whether rows may be missing
        std::size_t excessRows = 0; ///< beyond the limits; more may follow the last one counted
    };

    /// Reads everything that is not damaged. If anything is damaged, the file stays untouched, and write()
    /// must not be called.
    /// @param bootId of this boot; empty if unknown
    Contents read(const std::string& bootId);

    /// Reads a file that cannot be opened for writing: it is locked by a reader, or the storage is read-only.
    static Contents readOnly(const std::string& path, const std::string& bootId, const Limits& limits);

    /// Writes everything or nothing.
    void write(const SavedState& changes, const std::string& bootId, uint64_t microseconds);

    /// Returns false if the file or its log was removed or replaced. Then all writes are lost.
    bool isInPlace() const { return mFiles == filesAt(mPath); }

    /// Leaves the file and its log unchanged when they are closed.
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

    struct FileId // all 0: no file
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
    std::string mPath; // if the file is open for writing
    Files mFiles;      // the open files
    std::unique_ptr<sqlite3, Closer> mDatabase;
    bool mIsOpenForWriting = false;
    bool mHasDetails = true; // false for a file of the former version
    LogCheck mLog;           // the log's condition when it was opened
    std::array<Statement, allTables.size()> mWrite;
    std::array<Statement, allTables.size()> mDelete;
    bool mHasRemains = false; // of a failed transaction, in the log
};

#endif
