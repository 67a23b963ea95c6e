#include "daemon/DatabaseFile.h"

#include <algorithm>
#include <filesystem>

#include "daemon/DatabaseError.h"

namespace
{

// Refuses an empty file with a log beside it: SQLite would delete the log.
void refuseLostLog(const std::string& path)
{
    const auto isEmpty = [](const std::string& name)
    {
        struct stat status
        {
        };
        return lstat(name.c_str(), &status) != 0 || status.st_size == 0;
    };
    if (isEmpty(path) && !isEmpty(path + std::string(DatabaseFile::logSuffix)))
        throw DatabaseError("empty, with a log beside it", DatabaseError::Kind::Unreadable);
}

sqlite3* openFile(const std::string& name, int flags, const char* fileSystem = nullptr)
{
    sqlite3* database = nullptr;
    const DatabaseFile::PrivateFiles restricted;
    sqlite3_open_v2(name.c_str(), &database, flags | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE,
                    fileSystem);
    return database;
}

// The path as a URI, which can declare to SQLite that no process writes the file.
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

} // namespace

// Resolves links on the way to the file, such as /var/run. A link as the file itself is refused later.
std::string DatabaseFile::direct(const std::string& path)
{
    std::error_code ignored;
    const std::filesystem::path given(path);
    const auto folder =
        std::filesystem::canonical(given.has_parent_path() ? given.parent_path() : ".", ignored);
    return ignored ? path : (folder / given.filename()).string();
}

// Any other file could make the daemon wait in open(), or be a device that must not be written. SQLite opens
// the files beside it, too.
void DatabaseFile::refuseUnlessRegular(const std::string& path)
{
    for (const char* suffix : {"", "-wal", "-journal", "-shm"})
    {
        const std::string name = path + suffix;
        struct stat status
        {
        };
        if (lstat(name.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
            throw DatabaseError("[" + name + "] is not a regular file", DatabaseError::Kind::Other);
    }
}

sqlite3* DatabaseFile::openForWriting(const std::string& path)
{
    refuseUnlessRegular(path);
    refuseLostLog(path);
    return openFile(direct(path), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
}

sqlite3* DatabaseFile::openForReading(const std::string& path)
{
    return openFile(path, SQLITE_OPEN_READONLY);
}

sqlite3* DatabaseFile::openUnwritable(const std::string& path)
{
    std::error_code ignored;
    if (std::filesystem::exists(path + std::string(DatabaseFile::logSuffix), ignored))
        return openFile(path, SQLITE_OPEN_READONLY, "unix-none");
    return openFile(immutable(path), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
}

void DatabaseFile::harden(sqlite3* database, std::size_t valueBytes)
{
    constexpr std::size_t others = 65536; // for the other columns, and SQLite's own texts
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(database, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    limitLength(database, longestName + std::min(valueBytes, longestText) + others);
    sqlite3_limit(database, SQLITE_LIMIT_ATTACHED, 0);
}

void DatabaseFile::limitLength(sqlite3* database, std::size_t bytes)
{
    sqlite3_limit(database, SQLITE_LIMIT_LENGTH, static_cast<int>(bytes));
}
