#include "bridge/BridgeFile.h"

#include <cstdio>
#include <utility>
#include <vector>

#include "common/Logging.h"
#include "daemon/DatabaseFile.h"

OV_LOG_CONTROL_WORDS;

namespace
{

constexpr const char* schema =
    "CREATE TABLE numbers (name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE topics (topic TEXT PRIMARY KEY) WITHOUT ROWID;"
    "CREATE TABLE applied (key TEXT PRIMARY KEY, version INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE events (id INTEGER PRIMARY KEY, time INTEGER NOT NULL, name TEXT NOT NULL, value TEXT NOT "
    "NULL);";

DatabaseError errorOf(sqlite3* database)
{
    using Kind = DatabaseError::Kind;
    constexpr int primary = 0xff;
    const int code = sqlite3_errcode(database) & primary;
    const bool isUnreadable = code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
    const bool isLocked = code == SQLITE_BUSY || code == SQLITE_LOCKED;
    return {sqlite3_errmsg(database), isUnreadable ? Kind::Unreadable
                                      : isLocked   ? Kind::Locked
                                                   : Kind::Other};
}

void run(sqlite3* database, const char* text)
{
    if (sqlite3_exec(database, text, nullptr, nullptr, nullptr) != SQLITE_OK)
        throw errorOf(database);
}

// The texts that made all tables, indices, triggers and views.
std::vector<std::string> objectsIn(sqlite3* database)
{
    std::vector<std::string> texts;
    Sql objects(database, "SELECT coalesce(sql, '') FROM sqlite_master ORDER BY rowid");
    while (objects.step())
        texts.push_back(objects.text(0));
    return texts;
}

// Only the tables that are made here, so that no foreign trigger or view ever runs.
bool hasOurTables(sqlite3* database)
{
    std::string all;
    for (const std::string& text : objectsIn(database))
        all += text + ";";
    return all == schema;
}

} // namespace

// --------------------------------------------------------------------------------------------------------
// Sql

Sql::Sql(sqlite3* database, const char* text)
{
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, text, -1, &statement, nullptr) != SQLITE_OK)
        throw errorOf(database);
    mStatement.reset(statement);
}

Sql& Sql::bind(int64_t number)
{
    if (sqlite3_bind_int64(mStatement.get(), ++mBound, number) != SQLITE_OK)
        throw errorOf(sqlite3_db_handle(mStatement.get()));
    return *this;
}

Sql& Sql::bind(std::string_view text)
{
    if (sqlite3_bind_text(mStatement.get(), ++mBound, text.data(), static_cast<int>(text.size()),
                          SQLITE_TRANSIENT) != SQLITE_OK)
        throw errorOf(sqlite3_db_handle(mStatement.get()));
    return *this;
}

bool Sql::step()
{
    const int result = sqlite3_step(mStatement.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        throw errorOf(sqlite3_db_handle(mStatement.get()));
    return result == SQLITE_ROW;
}

void Sql::reset()
{
    sqlite3_reset(mStatement.get());
    mBound = 0;
}

std::string Sql::text(int column) const
{
    const void* bytes = sqlite3_column_blob(mStatement.get(), column);
    const int size = sqlite3_column_bytes(mStatement.get(), column);
    return bytes == nullptr ? std::string()
                            : std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size));
}

// -------------------------------------------------------------------------------------------------
// BridgeFile

BridgeFile::BridgeFile(std::string path) : mPath(std::move(path))
{
    if (!mPath.empty())
        open();
}

void BridgeFile::reopen(TimePoint now)
{
    constexpr std::chrono::seconds pace{1};
    if (mPath.empty() || isOpen() || now < mNextAttempt)
        return;
    mNextAttempt = now + pace;
    open();
}

// An unreadable file is moved aside once; a new one is readable.
void BridgeFile::open()
{
    try
    {
        openOnce();
    }
    catch (const DatabaseError& error)
    {
        mDatabase.reset();
        if (!error.isUnreadable() || !moveAside())
            return failed(error);
        OV_LOG(0, "The file %s was unreadable (%s) and is now %s.bad; a new one is started", mPath.c_str(),
               error.what(), mPath.c_str());
        attempt([this] { openOnce(); });
    }
}

void BridgeFile::openOnce()
{
    constexpr std::size_t longestValue = std::size_t{64} * 1024 * 1024;
    mDatabase.reset(DatabaseFile::openForWriting(mPath));
    if (mDatabase == nullptr)
        throw DatabaseError("no memory", DatabaseError::Kind::Other);
    if (sqlite3_errcode(mDatabase.get()) != SQLITE_OK)
        throw errorOf(mDatabase.get());
    DatabaseFile::harden(mDatabase.get(), longestValue);
    prepare();
    ++mOpenings;
    if (std::exchange(mIsReported, false))
        OV_LOG(5, "The file %s can be written again", mPath.c_str());
}

void BridgeFile::prepare()
{
    sqlite3* const database = mDatabase.get();
    const DatabaseFile::PrivateFiles restricted; // for the log beside the file
    run(database, "PRAGMA locking_mode=EXCLUSIVE");
    run(database, "PRAGMA journal_mode=WAL");
    run(database, "PRAGMA synchronous=NORMAL");
    run(database, "PRAGMA wal_autocheckpoint=64");
    run(database, "PRAGMA journal_size_limit=262144");
    run(database, "PRAGMA cache_size=-128");
    if (objectsIn(database).empty())
        run(database, (std::string("BEGIN IMMEDIATE;") + schema + "COMMIT").c_str());
    Sql check(database, "PRAGMA quick_check(1)");
    if (!hasOurTables(database) || !check.step() || check.text(0) != "ok")
        throw DatabaseError("its content is not the bridge's", DatabaseError::Kind::Unreadable);
}

bool BridgeFile::moveAside()
{
    for (const char* suffix : {"-wal", "-shm", "-journal"})
        std::remove((mPath + suffix).c_str());
    return std::rename(mPath.c_str(), (mPath + ".bad").c_str()) == 0;
}

bool BridgeFile::write(const std::function<void(sqlite3*)>& work)
{
    return isOpen() && attempt(
                           [&]
                           {
                               run(mDatabase.get(), "BEGIN IMMEDIATE");
                               work(mDatabase.get());
                               run(mDatabase.get(), "COMMIT");
                           });
}

bool BridgeFile::read(const std::function<void(sqlite3*)>& work)
{
    return isOpen() && attempt([&] { work(mDatabase.get()); });
}

// After a failure the file is closed, which rolls back, and is opened again from the beginning: that also
// finds damage.
bool BridgeFile::attempt(const std::function<void()>& work)
{
    try
    {
        work();
        return true;
    }
    catch (const DatabaseError& error)
    {
        failed(error);
        return false;
    }
}

void BridgeFile::failed(const DatabaseError& error)
{
    mDatabase.reset();
    if (!std::exchange(mIsReported, true))
        OV_LOG(0, "The file %s cannot be used, which is tried again: %s", mPath.c_str(), error.what());
}

int64_t BridgeFile::numberOf(const char* name)
{
    int64_t number = 0;
    read(
        [&](sqlite3* database)
        {
            Sql row(database, "SELECT value FROM numbers WHERE name = ?");
            if (row.bind(std::string_view(name)).step())
                number = row.number(0);
        });
    return number;
}

void BridgeFile::setNumber(sqlite3* database, const char* name, int64_t number)
{
    Sql(database, "INSERT OR REPLACE INTO numbers VALUES (?, ?)")
        .bind(std::string_view(name))
        .bind(number)
        .step();
}
