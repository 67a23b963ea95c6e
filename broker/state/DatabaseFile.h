#ifndef BROKER_STATE_DATABASEFILE_H
#define BROKER_STATE_DATABASEFILE_H

#include <cstddef>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <sys/stat.h>

#include "broker/base/Limits.h"

/// How the state file is opened. Nothing in it, or beside it, is trusted.
namespace DatabaseFile
{

/// No name and no value that the broker can be told to take is longer. A longer row is none of its own.
constexpr std::size_t longestName = std::size_t{1024} * 1024;
constexpr std::size_t longestText = 64 * longestName;

/// Behind the name of the file: the log beside it.
constexpr std::string_view logSuffix = "-wal";

/// While it lives, files are made for their owner only: what devices hold is not everybody's business.
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

/// The path without links on the way to the file. A link in place of the file is refused when it is opened.
std::string direct(const std::string& path);

/// @throws DatabaseError if something is there that is no regular file. SQLite opens what lies beside the
///         file, too.
void refuseUnlessRegular(const std::string& path);

// ---- Each returns what SQLite has made, which is to be closed also if it is in error; null for want of
// memory.

/// Opens or makes it. @throws DatabaseError if it is not a regular file, or a log without a file.
sqlite3* openForWriting(const std::string& path);

sqlite3* openForReading(const std::string& path);

/// Where nothing can be written, nobody else writes either, and no lock can be had.
sqlite3* openUnwritable(const std::string& path);

/// To be called before anything is read. The file's content is data, whoever wrote it.
void harden(sqlite3* database, const Limits& limits);

/// SQLite makes no text, and takes none from the file, that is longer.
void limitLength(sqlite3* database, std::size_t bytes);

} // namespace DatabaseFile

#endif
