#ifndef BROKER_PEER_USERNAMESPACE_H
#define BROKER_PEER_USERNAMESPACE_H

#include <string>
#include <string_view>
#include <sys/types.h>

/// The numbers of users as this process sees them. In a user namespace (PrivateUsers= in a unit), all users
/// from outside have the number of the user "nobody".
class UserNamespace
{
public:
    /// @param proc "/proc"
    explicit UserNamespace(const std::string& proc);

    /// Whether every user of the machine has a number here.
    bool isWhole() const { return mIsWhole; }

    /// Whether the number may stand for any user from outside.
    bool isOutside(uid_t uid) const { return !mIsWhole && uid == mOverflow; }

    /// Whether a map of users includes every user: "0 0 4294967295".
    static bool isWholeMap(std::string_view map);

private:
    bool mIsWhole;
    uid_t mOverflow;
};

#endif
