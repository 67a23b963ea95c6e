#include "broker/state/Database.h"

#include <filesystem>
#include <limits>
#include <sys/stat.h>

namespace
{

// The file says whose it is and how it is laid out: "stat" and the version of the tables.
constexpr uint64_t applicationId = 0x73746174;
constexpr uint64_t layoutVersion = 1;

constexpr uint64_t mostNumber = std::numeric_limits<int64_t>::max(); // SQLite's integers are signed

constexpr const char* createTables = R"(
    BEGIN;
    CREATE TABLE value (name BLOB PRIMARY KEY, text BLOB NOT NULL) WITHOUT ROWID;
    CREATE TABLE timer (name BLOB PRIMARY KEY, accumulated INTEGER NOT NULL, span_start INTEGER NOT NULL,
                        last_started INTEGER NOT NULL) WITHOUT ROWID;
    CREATE TABLE counter (name BLOB PRIMARY KEY, number INTEGER NOT NULL) WITHOUT ROWID;
    CREATE TABLE moment (only INTEGER PRIMARY KEY CHECK (only = 1), boot_id BLOB NOT NULL,
                         microseconds INTEGER NOT NULL);
    PRAGMA application_id = 0x73746174;
    PRAGMA user_version = 1;
    COMMIT;)";

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

// While it lives, files are made for their owner only: what devices hold is not everybody's business.
class PrivateFiles
{
public:
    PrivateFiles() : mBefore(umask(0077)) {}
    ~PrivateFiles() { umask(mBefore); }

    PrivateFiles(const PrivateFiles&) = delete;
    PrivateFiles& operator=(const PrivateFiles&) = delete;

private:
    mode_t mBefore;
};

// A link in place of the file is refused; one on the way to it, such as /var/run, is not.
std::string direct(const std::string& path)
{
    std::error_code ignored;
    const std::filesystem::path given(path);
    const auto folder =
        std::filesystem::canonical(given.has_parent_path() ? given.parent_path() : ".", ignored);
    return ignored ? path : (folder / given.filename()).string();
}

sqlite3* openFile(const std::string& name, int flags, const char* fileSystem = nullptr)
{
    sqlite3* database = nullptr;
    const PrivateFiles restricted;
    sqlite3_open_v2(name.c_str(), &database, flags | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE,
                    fileSystem);
    return database;
}

// As a URI, which can tell SQLite that nobody writes the file.
std::string immutable(const std::string& path)
{
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string uri = "file:";
    for (const char character : path)
    {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '/')
            uri += character;
        else
            (uri += '%').append({digits[byte / 16U], digits[byte % 16U]});
    }
    return uri + "?immutable=1";
}

// Where nothing can be written, nobody else writes either, and no lock can be had.
sqlite3* openUnwritable(const std::string& path)
{
    std::error_code ignored;
    if (std::filesystem::exists(path + "-wal", ignored))
        return openFile(path, SQLITE_OPEN_READONLY, "unix-none");
    return openFile(immutable(path), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
}

} // namespace

Database::Database(const std::string& path, StateSync sync, std::chrono::milliseconds patience)
    : mDatabase(openFile(direct(path), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE))
{
    if (!mDatabase || sqlite3_errcode(mDatabase.get()) != SQLITE_OK)
        fail("open");
    sqlite3_busy_timeout(mDatabase.get(), static_cast<int>(patience.count()));
    foldInOnClose(false); // what cannot be read is left as it is
    setUp(sync);
    foldInOnClose(true);
    mWriteValue = prepare("INSERT OR REPLACE INTO value VALUES (?, ?)");
    mWriteTimer = prepare("INSERT OR REPLACE INTO timer VALUES (?, ?, ?, ?)");
    mWriteCounter = prepare("INSERT OR REPLACE INTO counter VALUES (?, ?)");
    mWriteMoment = prepare("INSERT OR REPLACE INTO moment VALUES (1, ?, ?)");
}

Database::~Database() = default;

// Whether closing writes what is in the log beside the file into the file, and deletes the log.
void Database::foldInOnClose(bool does)
{
    sqlite3_db_config(mDatabase.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, does ? 0 : 1, nullptr);
}

void Database::setUp(StateSync sync)
{
    // Exclusive: nobody else can hold a lock that the broker would have to wait for.
    execute("PRAGMA locking_mode = EXCLUSIVE");
    execute(synchronous(sync));
    const PrivateFiles restricted; // this makes the file
    const bool isEmpty = isNew();
    execute("PRAGMA journal_mode = WAL");
    if (isEmpty)
        execute(createTables);
    checkTables();
    checkIntegrity();
}

// False if it is a state file.
bool Database::isNew()
{
    const uint64_t tables = numberOf("SELECT count(*) FROM sqlite_master");
    const uint64_t id = numberOf("PRAGMA application_id");
    const uint64_t version = numberOf("PRAGMA user_version");
    if (tables == 0 && id == 0 && version == 0)
        return true;
    if (id != applicationId)
        throw DatabaseError("not a state file of this program", DatabaseError::Kind::Unreadable);
    if (version != layoutVersion)
        throw DatabaseError("of version " + std::to_string(version), DatabaseError::Kind::Unreadable);
    return false;
}

void Database::checkTables()
{
    constexpr uint64_t tablesWithKey = 4;
    if (numberOf("SELECT count(*) FROM pragma_table_list AS t WHERE schema = 'main' AND type = 'table' AND"
                 " name IN ('value', 'timer', 'counter', 'moment') AND"
                 " (SELECT count(*) FROM pragma_table_info(t.name) WHERE pk > 0) = 1") != tablesWithKey)
        throw DatabaseError("tables are missing, or are others", DatabaseError::Kind::Unreadable);
}

void Database::checkIntegrity()
{
    const Statement check = prepare("PRAGMA quick_check(1)");
    if (sqlite3_step(check.get()) != SQLITE_ROW)
        fail("check");
    const std::string result = bytesOf(check.get(), 0);
    if (result != "ok")
        throw DatabaseError(result, DatabaseError::Kind::Unreadable);
}

// ---------------------------------------------------------------------------------------------------- read

Database::Contents Database::read()
{
    foldInOnClose(false);
    Contents contents = readRows();
    foldInOnClose(true);
    return contents;
}

Database::Contents Database::readOnly(const std::string& path)
{
    const std::string name = direct(path);
    try
    {
        return Database(openFile(name, SQLITE_OPEN_READONLY)).readUnwritable();
    }
    catch (const DatabaseError& error)
    {
        if (error.isUnreadable() || error.isLocked())
            throw;
    }
    Database database(openUnwritable(name));
    database.execute("PRAGMA locking_mode = EXCLUSIVE"); // needs no file of shared memory
    return database.readUnwritable();
}

Database::Contents Database::readUnwritable()
{
    if (!mDatabase || sqlite3_errcode(mDatabase.get()) != SQLITE_OK)
        fail("open");
    foldInOnClose(false);
    if (isNew())
        return {};
    checkTables();
    checkIntegrity();
    return readRows();
}

Database::Contents Database::readRows()
{
    Contents contents;
    const auto forEachRow = [this](const char* sql, auto take)
    {
        const Statement rows = prepare(sql);
        int result = sqlite3_step(rows.get());
        for (; result == SQLITE_ROW; result = sqlite3_step(rows.get()))
            take(rows.get());
        if (result != SQLITE_DONE)
            fail("read");
    };
    forEachRow("SELECT name, text FROM value ORDER BY name",
               [&](sqlite3_stmt* row) { contents.state.values[bytesOf(row, 0)] = bytesOf(row, 1); });
    forEachRow("SELECT name, accumulated, span_start, last_started FROM timer",
               [&](sqlite3_stmt* row)
               {
                   contents.state.timers[bytesOf(row, 0)] = {numberOf(row, 1, mostNumber),
                                                             numberOf(row, 2, mostNumber),
                                                             numberOf(row, 3, mostNumber)};
               });
    forEachRow("SELECT name, number FROM counter",
               [&](sqlite3_stmt* row)
               {
                   constexpr uint64_t most = std::numeric_limits<uint32_t>::max();
                   contents.state.counters[bytesOf(row, 0)] = static_cast<uint32_t>(numberOf(row, 1, most));
               });
    forEachRow("SELECT boot_id, microseconds FROM moment",
               [&](sqlite3_stmt* row)
               {
                   contents.bootId = bytesOf(row, 0);
                   contents.microseconds = numberOf(row, 1, mostNumber);
               });
    return contents;
}

std::string Database::bytesOf(sqlite3_stmt* statement, int column) const
{
    const int type = sqlite3_column_type(statement, column);
    if (type != SQLITE_BLOB && type != SQLITE_TEXT)
        throw DatabaseError("a row holds no text", DatabaseError::Kind::Unreadable);
    const void* bytes = sqlite3_column_blob(statement, column); // null if empty
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement, column));
    return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), size);
}

uint64_t Database::numberOf(sqlite3_stmt* statement, int column, uint64_t most) const
{
    const sqlite3_int64 number = sqlite3_column_int64(statement, column);
    if (sqlite3_column_type(statement, column) != SQLITE_INTEGER || number < 0 ||
        static_cast<uint64_t>(number) > most)
        throw DatabaseError("a row holds no sensible number", DatabaseError::Kind::Unreadable);
    return static_cast<uint64_t>(number);
}

uint64_t Database::numberOf(const char* pragma)
{
    const Statement statement = prepare(pragma);
    if (sqlite3_step(statement.get()) != SQLITE_ROW)
        fail("read");
    return static_cast<uint64_t>(sqlite3_column_int64(statement.get(), 0));
}

// --------------------------------------------------------------------------------------------------- write

void Database::write(const SavedState& changes, const std::string& bootId, uint64_t microseconds)
{
    execute("BEGIN IMMEDIATE");
    try
    {
        writeRows(changes, bootId, microseconds);
        execute("COMMIT");
    }
    catch (const DatabaseError&)
    {
        // Some errors have rolled back already; then this one fails, which does not matter.
        sqlite3_exec(mDatabase.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void Database::writeRows(const SavedState& changes, const std::string& bootId, uint64_t microseconds)
{
    for (const auto& [key, text] : changes.values)
    {
        bind(mWriteValue.get(), 1, key);
        bind(mWriteValue.get(), 2, text);
        run(mWriteValue.get());
    }
    for (const auto& [name, timer] : changes.timers)
    {
        bind(mWriteTimer.get(), 1, name);
        bind(mWriteTimer.get(), 2, timer.accumulated);
        bind(mWriteTimer.get(), 3, timer.spanStart);
        bind(mWriteTimer.get(), 4, timer.lastStarted);
        run(mWriteTimer.get());
    }
    for (const auto& [name, number] : changes.counters)
    {
        bind(mWriteCounter.get(), 1, name);
        bind(mWriteCounter.get(), 2, number);
        run(mWriteCounter.get());
    }
    bind(mWriteMoment.get(), 1, bootId);
    bind(mWriteMoment.get(), 2, microseconds);
    run(mWriteMoment.get());
}

Database::Statement Database::prepare(const char* sql)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(mDatabase.get(), sql, -1, &statement, nullptr) != SQLITE_OK)
        fail("read");
    return Statement(statement);
}

// The bytes must live until the statement has run.
void Database::bind(sqlite3_stmt* statement, int index, const std::string& bytes)
{
    if (sqlite3_bind_blob64(statement, index, bytes.data(), bytes.size(), SQLITE_STATIC) != SQLITE_OK)
        fail("write");
}

void Database::bind(sqlite3_stmt* statement, int index, uint64_t number)
{
    if (sqlite3_bind_int64(statement, index, static_cast<sqlite3_int64>(std::min(number, mostNumber))) !=
        SQLITE_OK)
        fail("write");
}

void Database::run(sqlite3_stmt* statement)
{
    const int result = sqlite3_step(statement);
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
    if (result != SQLITE_DONE)
        fail("write");
}

void Database::execute(const char* sql)
{
    if (sqlite3_exec(mDatabase.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK)
        fail("write");
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
        throw DatabaseError("it can only be read", DatabaseError::Kind::Other);
    const std::string text = mDatabase ? sqlite3_errmsg(mDatabase.get()) : sqlite3_errstr(code);
    throw DatabaseError("cannot " + doing + ": " + text, DatabaseError::Kind::Other);
}
