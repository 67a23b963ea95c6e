#ifndef DAEMON_DATABASEFILE_H
#define DAEMON_DATABASEFILE_H

#include <cstddef>
#include <sqlite3.h>
#include <string>
#include <string_view>
#include <sys/stat.h>

/// Opens a daemon's file. Nothing in it, or beside it, is trusted.
namespace DatabaseFile
{

/// No name and no value is longer, whatever limits a daemon is given. So a longer row was not written by a
/// daemon.
constexpr std::size_t longestName = std::size_t{1024} * 1024;
constexpr std::size_t longestText = 64 * longestName;

/// Appended to the file's name: the log beside it.
constexpr std::string_view logSuffix = "-wal";

/// While this object lives, new files are readable by their owner only: a device's state is not for everyone.
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

/// The path without links in its folders. A link as the file itself is refused when it is opened.
std::string direct(const std::string& path);

/// @throws DatabaseError if the path exists and is not a regular file. SQLite also opens the files beside the
///     it.
void refuseUnlessRegular(const std::string& path);

// ---- Each returns SQLite's handle, which must be closed even if it is in error; null if memory is short.

/// Opens or creates the file. @throws DatabaseError if it is not a regular file, or a log without a file.
sqlite3* openForWriting(const std::string& path);

sqlite3* openForReading(const std::string& path);

/// For storage that cannot be written: no other process writes either, and no lock is available.
sqlite3* openUnwritable(const std::string& path);

/// Call this before reading anything. The file's content is data, no matter which program wrote it.
/// @param valueBytes the longest text beside a name that the daemon accepts
void harden(sqlite3* database, std::size_t valueBytes);

/// Makes SQLite refuse longer texts, both its own and the file's.
void limitLength(sqlite3* database, std::size_t bytes);

} // namespace DatabaseFile

#endif
