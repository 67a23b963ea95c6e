#ifndef BROKER_STATE_DATABASEERROR_H
#define BROKER_STATE_DATABASEERROR_H

#include <stdexcept>
#include <string>

/// Why an operation on the state file failed.
class DatabaseError : public std::runtime_error
{
public:
    enum class Kind
    {
        Unreadable, ///< the file is there, but is not what it should be: no use in trying again
        Locked,     ///< by somebody else
        Other,
    };

    DatabaseError(const std::string& what, Kind kind) : std::runtime_error(what), mKind(kind) {}

    bool isUnreadable() const { return mKind == Kind::Unreadable; }
    bool isLocked() const { return mKind == Kind::Locked; }

private:
    Kind mKind;
};

#endif
