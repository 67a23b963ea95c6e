#include "broker/state/Database.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <sys/stat.h>

#include "broker/state/PosterText.h"
#include "daemon/DatabaseFile.h"

namespace
{

// Identify the file's program and layout: "stat", and the version of the tables.
constexpr uint64_t applicationId = 0x73746174;
constexpr uint64_t layoutVersion = 3;
constexpr uint64_t withoutDetails = 2; // still accepted

// The longest text in a row of the table.
std::size_t longestTextOf(Table table)
{
    return table == Table::Details ? PosterText::mostBytes : DatabaseFile::longestText;
}

std::size_t longestTextOf(Table table, const Limits& limits)
{
    return table == Table::Details ? PosterText::mostBytes
                                   : std::min(limits.valueBytes, DatabaseFile::longestText);
}

constexpr const char* lastMoment = "last"; // the name of the only row in its table

// The number of pages in the log from which they are folded into the file. SQLite's default is 1000, some 4
// MB. A small disk is full before that, and then the file cannot grow to take them.
constexpr int logPages = 100;

// When the log restarts, it is cut to this length if a long transaction has made it longer.
constexpr int logBytes = 2 * logPages * 4096;

const char* synchronous(StateSync sync)
{
    switch (sync)
    {
    case StateSync::Off:
        return "PRAGMA synchronous = OFF";
    case StateSync::Normal:
        return "PRAGMA synchronous = NORMAL";
    case StateSync::Full:
        return "PRAGMA synchronous = FULL";
    }
    return "";
}

std::string_view bytesOf(sqlite3_stmt* row, int column)
{
    const void* bytes = sqlite3_column_blob(row, column); // null if empty
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(row, column));
    return bytes == nullptr ? std::string_view() : std::string_view(static_cast<const char*>(bytes), size);
}

bool isNull(sqlite3_stmt* row, int column)
{
    return sqlite3_column_type(row, column) == SQLITE_NULL;
}

uint64_t numberOf(sqlite3_stmt* row, int column)
{
    return static_cast<uint64_t>(sqlite3_column_int64(row, column));
}

// Whether SQLite's result means that pages were damaged.
bool isDamage(int code)
{
    const int plain = code & 0xFF;
    return plain == SQLITE_CORRUPT || plain == SQLITE_TOOBIG;
}

bool isAtMost(sqlite3_stmt* row, int column, std::size_t most)
{
    return !isNull(row, column) && numberOf(row, column) <= most;
}

} // namespace

// Limits what is read of a table to somewhat more than the limits allow, so that memory is bounded. It also
// ends a read that damaged pages lead round in circles.
class Database::Budget
{
public:
    Budget(Table table, const Limits& limits) : mLeft(spare + perRow * rowsOf(table, limits))
    {
        if (table == Table::Values)
            mLeft += limits.storedBytes;
        else
            mLeft += uint64_t{limits.keyBytes} * rowsOf(table, limits);
        if (table == Table::Details)
            mLeft += usualClients * rowsOf(table, limits);
    }

    // After the first refusal, it refuses everything.
    bool allows(std::size_t bytes)
    {
        const uint64_t cost = bytes + perRow;
        const bool does = cost <= mLeft;
        mLeft = does ? mLeft - cost : 0;
        return does;
    }

private:
    static constexpr uint64_t perRow = 128;
    static constexpr uint64_t usualClients = 128;            // bytes; the longest are more
    static constexpr uint64_t spare = uint64_t{1024} * 1024; // room for names that the state then refuses and
                                                             // counts by kind

    static std::size_t rowsOf(Table table, const Limits& limits)
    {
        switch (table)
        {
        case Table::Values:
        case Table::Details:
            return limits.keys;
        case Table::Timers:
            return limits.timers;
        case Table::Counters:
            return limits.counters;
        case Table::Moments:
            break;
        }
        return 1;
    }

    uint64_t mLeft;
};

// ---------------------------------------------------------------------------------------------------- open

Database::Database(sqlite3* opened, const Limits& limits) : mLimits(limits), mDatabase(opened)
{
    if (!mDatabase || sqlite3_errcode(mDatabase.get()) != SQLITE_OK)
        fail("open");
    mIsOpenForWriting = sqlite3_db_readonly(mDatabase.get(), "main") == 0;
    DatabaseFile::harden(mDatabase.get(), limits.valueBytes);
    foldInOnClose(false); // an unreadable file stays as it is
    execute("PRAGMA mmap_size = 0; PRAGMA cell_size_check = ON", "open");
}

Database::Database(const std::string& path, StateSync sync, std::chrono::milliseconds patience,
                   const Limits& limits)
    : Database(DatabaseFile::openForWriting(path), limits)
{
    mPath = path;
    sqlite3_busy_timeout(mDatabase.get(), static_cast<int>(patience.count()));
    // Exclusive: no other process can hold a lock that the broker would have to wait for.
    execute("PRAGMA locking_mode = EXCLUSIVE", "open");
    execute(synchronous(sync), "open");
    const DatabaseFile::PrivateFiles restricted; // the statements below create the file
    if (isNew(path))
        create();
    checkTables();
}

Database::~Database() = default;

Database::Files Database::filesAt(const std::string& path)
{
    Files files;
    for (std::size_t file = 0; file < files.size(); ++file)
    {
        struct stat status
        {
        };
        if (lstat((file == 0 ? path : path + std::string(DatabaseFile::logSuffix)).c_str(), &status) == 0)
            files[file] = {status.st_dev, status.st_ino};
    }
    return files;
}

// Returns false if it is a state file. Also checks the log, which nothing writes at this time.
bool Database::isNew(const std::string& path)
{
    const uint64_t id = numberOf("PRAGMA application_id");
    const uint64_t version = numberOf("PRAGMA user_version");
    mLog = checkLog(path + std::string(DatabaseFile::logSuffix));
    const bool hasTrace = id != 0 || version != 0 || !mLog.damage.empty();
    if (!hasTrace && numberOf("SELECT count(*) FROM sqlite_master") == 0)
        return true;
    if (id != applicationId)
        throw DatabaseError(mLog.damage.empty() ? "not a state file of this program"
                                                : mLog.damage + " is damaged",
                            DatabaseError::Kind::Unreadable);
    mHasDetails = version != withoutDetails;
    if (version != layoutVersion && mHasDetails)
        throw DatabaseError("unsupported version " + std::to_string(version),
                            DatabaseError::Kind::Unreadable);
    return false;
}

void Database::create()
{
    execute("PRAGMA journal_mode = WAL");
    std::string statements = "BEGIN;";
    for (const Table table : allTables)
        statements += Layout::of(table).createStatement() + ";";
    execute(statements + "PRAGMA application_id = " + std::to_string(applicationId) +
            ";PRAGMA user_version = " + std::to_string(layoutVersion) + ";COMMIT");
}

void Database::checkTables()
{
    if (!hasTables())
        throw DatabaseError("its tables are missing, or differ", DatabaseError::Kind::Unreadable);
}

// Whether the tables are exactly those of create(), and nothing else exists.
bool Database::hasTables()
{
    std::size_t found = 0;
    const Statement schema = prepare("SELECT sql FROM sqlite_master");
    int result = sqlite3_step(schema.get());
    for (; result == SQLITE_ROW; result = sqlite3_step(schema.get()))
    {
        const bool isOurs = std::any_of(
            allTables.begin(), allTables.end(),
            [&](Table table)
            { return isThere(table) && bytesOf(schema.get(), 0) == Layout::of(table).createStatement(); });
        if (!isOurs)
            return false;
        ++found;
    }
    if (result != SQLITE_DONE)
        fail("read");
    return found == allTables.size() - (mHasDetails ? 0 : 1);
}

// ---------------------------------------------------------------------------------------------------- read

Database::Contents Database::read(const std::string& bootId)
{
    Contents contents = readAll(bootId);
    if (contents.damage.empty())
        getReadyToWrite();
    return contents;
}

Database::Contents Database::readOnly(const std::string& path, const std::string& bootId,
                                      const Limits& limits)
{
    const std::string name = DatabaseFile::direct(path);
    DatabaseFile::refuseUnlessRegular(name);
    try
    {
        return Database(DatabaseFile::openForReading(name), limits).readUnwritable(name, bootId);
    }
    catch (const DatabaseError& error)
    {
        if (error.isUnreadable() || error.isLocked())
            throw;
    }
    Database database(DatabaseFile::openUnwritable(name), limits);
    database.execute("PRAGMA locking_mode = EXCLUSIVE", "open"); // needs no shared memory file
    return database.readUnwritable(name, bootId);
}

Database::Contents Database::readUnwritable(const std::string& path, const std::string& bootId)
{
    if (isNew(path))
        return {};
    checkTables();
    return readAll(bootId);
}

Database::Contents Database::readAll(const std::string& bootId)
{
    Contents contents;
    contents.damage = findDamage();
    for (const Table table : allTables)
    {
        if (isThere(table))
            readTable(table, contents);
    }
    dropOrphans(contents.state);
    if (contents.damage.empty() && mLog.hasBadEnd && !bootId.empty() && contents.bootId == bootId)
        contents.damage = "the last changes in its log";
    contents.mayLackRows = !contents.damage.empty();
    if (contents.damage.empty() && contents.lostRows != 0)
        contents.damage = "checksums of rows";
    return contents;
}

// Finds damage in the pages and the log.
std::string Database::findDamage()
{
    if (!mLog.damage.empty())
        return mLog.damage;
    // The header may claim that only a newer SQLite may write the file. No version has ever written that.
    if (mIsOpenForWriting && sqlite3_db_readonly(mDatabase.get(), "main") == 1)
        return "the header";
    const Statement check = prepare("PRAGMA quick_check(1)");
    const int code = sqlite3_step(check.get());
    if (isDamage(code))
        return sqlite3_errmsg(mDatabase.get());
    if (code != SQLITE_ROW)
        fail("check");
    const std::string result(bytesOf(check.get(), 0));
    return result == "ok" ? "" : result;
}

// Reads from both ends if something in between is unreadable.
void Database::readTable(Table table, Contents& contents)
{
    Budget budget(table, mLimits);
    if (readRows(table, false, budget, contents))
        return;
    readRows(table, true, budget, contents);
}

// Returns false if a row cannot be reached.
bool Database::readRows(Table table, bool backwards, Budget& budget, Contents& contents)
{
    const Statement rows = prepare(Layout::of(table).readStatement(backwards));
    sqlite3_bind_int64(rows.get(), 1,
                       static_cast<sqlite3_int64>(std::min(mLimits.keyBytes, DatabaseFile::longestName)));
    sqlite3_bind_int64(rows.get(), 2, static_cast<sqlite3_int64>(longestTextOf(table, mLimits)));
    int result = sqlite3_step(rows.get());
    for (; result == SQLITE_ROW; result = sqlite3_step(rows.get()))
    {
        const std::size_t bytes =
            bytesOf(rows.get(), Layout::Name).size() + bytesOf(rows.get(), Layout::Text).size();
        if (!budget.allows(bytes))
        {
            ++contents.excessRows;
            return true;
        }
        take(table, rows.get(), contents);
    }
    if (result == SQLITE_DONE)
        return true;
    if (!isDamage(result))
        fail("read");
    if (contents.damage.empty())
        contents.damage = sqlite3_errmsg(mDatabase.get());
    return false;
}

void Database::take(Table table, sqlite3_stmt* row, Contents& contents) const
{
    const Layout& layout = Layout::of(table);
    if (isNull(row, Layout::Checksum)) // then all columns are null
    {
        const bool isLong = !isAtMost(row, Layout::NameLength, mLimits.keyBytes) ||
                            !isAtMost(row, Layout::TextLength, longestTextOf(table, mLimits));
        const bool mayBeOurs = isAtMost(row, Layout::NameLength, DatabaseFile::longestName) &&
                               isAtMost(row, Layout::TextLength, longestTextOf(table));
        if (!isLong || !mayBeOurs)
            ++contents.lostRows;
        else if (table != Table::Details) // its value is counted already
            ++contents.excessRows;
        return;
    }
    Row found{bytesOf(row, Layout::Name), bytesOf(row, Layout::Text), {}};
    for (std::size_t number = 0; number < layout.numbers(); ++number)
        found.numbers[number] = ::numberOf(row, Layout::FirstNumber + static_cast<int>(number));
    const bool isGood = ::numberOf(row, Layout::Checksum) == layout.checksum(found);
    if (!isGood || !layout.mayHold(found.numbers) || !add(table, found, contents))
        ++contents.lostRows;
}

// Returns false if the row does not belong into the table.
bool Database::add(Table table, const Row& row, Contents& contents)
{
    const std::string name(row.name);
    switch (table)
    {
    case Table::Values:
        contents.state.values[name] = row.text;
        return true;
    case Table::Timers:
        contents.state.timers[name] = {row.numbers[0], row.numbers[1], row.numbers[2]};
        return true;
    case Table::Counters:
        contents.state.counters[name] = static_cast<uint32_t>(row.numbers[0]);
        return true;
    case Table::Details:
        return addDetail(name, row, contents.state);
    case Table::Moments:
        break;
    }
    if (name != lastMoment)
        return false;
    contents.bootId = row.text;
    contents.microseconds = row.numbers[0];
    return true;
}

bool Database::addDetail(const std::string& name, const Row& row, SavedState& state)
{
    constexpr uint64_t mostCounted = std::numeric_limits<uint32_t>::max();
    const auto [posted, changed, posts, changes] = row.numbers;
    if (!PosterText::read(row.text) || posts > mostCounted || changes > mostCounted)
        return false;
    state.details[name] = {posted, changed, static_cast<uint32_t>(posts), static_cast<uint32_t>(changes),
                           std::string(row.text)};
    return true;
}

// Drops details without a value: its row was lost, or too long.
void Database::dropOrphans(SavedState& state)
{
    for (auto detail = state.details.begin(); detail != state.details.end();)
        detail = state.values.count(detail->first) != 0 ? std::next(detail) : state.details.erase(detail);
}

// --------------------------------------------------------------------------------------------------- write

void Database::getReadyToWrite()
{
    DatabaseFile::limitLength(mDatabase.get(),
                              2 * DatabaseFile::longestText); // the limits may be raised while the file is
                                                              // open
    execute("PRAGMA journal_mode = WAL");                     // another program may have changed it
    execute("PRAGMA wal_autocheckpoint = " + std::to_string(logPages));
    execute("PRAGMA journal_size_limit = " + std::to_string(logBytes));
    foldInOnClose(true);
    if (!mHasDetails)
        addTableOfDetails();
    for (const Table table : allTables)
    {
        mWrite[static_cast<std::size_t>(table)] = prepare(Layout::of(table).writeStatement());
        mDelete[static_cast<std::size_t>(table)] = prepare(Layout::of(table).deleteStatement());
    }
    mHasRemains = mLog.isBlank;
    foldIn();
    mFiles = filesAt(mPath);
}

// Upgrades a file of the previous version.
void Database::addTableOfDetails()
{
    execute("BEGIN IMMEDIATE;" + Layout::of(Table::Details).createStatement() +
            ";PRAGMA user_version = " + std::to_string(layoutVersion) + ";COMMIT");
    mHasDetails = true;
}

void Database::write(const SavedState& changes, const std::string& bootId, uint64_t microseconds)
{
    foldIn(); // when the log is short, a full disk may have room again
    execute("BEGIN IMMEDIATE");
    try
    {
        writeAll(changes, bootId, microseconds);
        execute("COMMIT");
    }
    catch (const DatabaseError&)
    {
        // Some errors have rolled back already; then this fails harmlessly.
        sqlite3_exec(mDatabase.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        mHasRemains = true;
        throw;
    }
    foldIn();
}

void Database::writeAll(const SavedState& changes, const std::string& bootId, uint64_t microseconds)
{
    deleteRows(Table::Values, changes.gone.values);
    deleteRows(Table::Details, changes.gone.values);
    deleteRows(Table::Timers, changes.gone.timers);
    deleteRows(Table::Counters, changes.gone.counters);
    for (const auto& [name, text] : changes.values)
        writeRow(Table::Values, {name, text, {}});
    for (const auto& [name, timer] : changes.timers)
        writeRow(Table::Timers, {name, {}, {timer.accumulated, timer.spanStart, timer.lastStarted}});
    for (const auto& [name, number] : changes.counters)
        writeRow(Table::Counters, {name, {}, {number}});
    for (const auto& [name, detail] : changes.details)
        writeRow(Table::Details,
                 {name, detail.clients, {detail.posted, detail.changed, detail.posts, detail.changes}});
    writeRow(Table::Moments, {lastMoment, bootId, {microseconds}});
}

void Database::writeRow(Table table, Row row)
{
    const Layout& layout = Layout::of(table);
    row.numbers = layout.clamped(row.numbers);
    sqlite3_stmt* statement = mWrite[static_cast<std::size_t>(table)].get();
    int index = 0;
    int failures = 0;
    const auto bindBytes = [&](std::string_view bytes) // they live until the statement has run
    {
        // An empty text may have null as its data, which SQLite would store as NULL.
        const char* data = bytes.empty() ? "" : bytes.data();
        failures |= sqlite3_bind_blob64(statement, ++index, data, bytes.size(), SQLITE_STATIC);
    };
    const auto bindNumber = [&](uint64_t number)
    { failures |= sqlite3_bind_int64(statement, ++index, static_cast<sqlite3_int64>(number)); };
    bindBytes(row.name);
    if (layout.hasText())
        bindBytes(row.text);
    for (std::size_t number = 0; number < layout.numbers(); ++number)
        bindNumber(row.numbers[number]);
    bindNumber(layout.checksum(row));
    const int result = failures == 0 ? sqlite3_step(statement) : SQLITE_ERROR;
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    if (result != SQLITE_DONE)
        fail("write");
}

// A name without a row counts as deleted.
void Database::deleteRows(Table table, const SavedState::Gone::Names& names)
{
    sqlite3_stmt* statement = mDelete[static_cast<std::size_t>(table)].get();
    for (const std::string& name : names)
    {
        const bool isBound =
            sqlite3_bind_blob64(statement, 1, name.data(), name.size(), SQLITE_STATIC) == SQLITE_OK;
        const int result = isBound ? sqlite3_step(statement) : SQLITE_ERROR;
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
        if (result != SQLITE_DONE)
            fail("write");
    }
}

// Removes the remains of a failed transaction from the log, where they would look like damage. If that fails,
// it is tried before and after the next commit.
void Database::foldIn()
{
    if (!mHasRemains)
        return;
    mHasRemains = sqlite3_wal_checkpoint_v2(mDatabase.get(), nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr,
                                            nullptr) != SQLITE_OK;
}

// Whether closing the database folds the log into the file and deletes the log.
void Database::foldInOnClose(bool does)
{
    sqlite3_db_config(mDatabase.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, does ? 0 : 1, nullptr);
}

// ------------------------------------------------------------------------------------------------ statements

Database::Statement Database::prepare(const std::string& sql)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(mDatabase.get(), sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
        fail("read");
    return Statement(statement);
}

uint64_t Database::numberOf(const char* sql)
{
    const Statement statement = prepare(sql);
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
        fail("read");
    return ::numberOf(statement.get(), 0);
}

void Database::execute(const std::string& sql, const char* doing)
{
    if (sqlite3_exec(mDatabase.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        fail(doing);
}

void Database::fail(const std::string& doing) const
{
    const int code = mDatabase ? sqlite3_errcode(mDatabase.get()) & 0xFF : SQLITE_NOMEM;
    const bool unreadable = code == SQLITE_CORRUPT || code == SQLITE_NOTADB || code == SQLITE_ERROR;
    if (unreadable)
        throw DatabaseError("cannot " + doing + ": " + sqlite3_errmsg(mDatabase.get()),
                            DatabaseError::Kind::Unreadable);
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED)
        throw DatabaseError("locked by another program", DatabaseError::Kind::Locked);
    if (mDatabase && sqlite3_db_readonly(mDatabase.get(), "main") == 1)
        throw DatabaseError("it is read-only", DatabaseError::Kind::Other);
    const std::string text = mDatabase ? sqlite3_errmsg(mDatabase.get()) : sqlite3_errstr(code);
    throw DatabaseError("cannot " + doing + ": " + text, DatabaseError::Kind::Other);
}
