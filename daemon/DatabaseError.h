#ifndef DAEMON_DATABASEERROR_H
#define DAEMON_DATABASEERROR_H

#include <stdexcept>
#include <string>

/// Why an operation on the state file failed.
class DatabaseError : public std::runtime_error
{
public:
    enum class Kind
    {
        Unreadable, ///< the file exists, but its content is wrong: retrying is useless
        Locked,     ///< by another process
        Other,
    };

    DatabaseError(const std::string& what, Kind kind) : std::runtime_error(what), mKind(kind) {}

    bool isUnreadable() const { return mKind == Kind::Unreadable; }
    bool isLocked() const { return mKind == Kind::Locked; }

private:
    Kind mKind;
};

#endif
