#ifndef BROKER_PEER_USERNAMESPACE_H
#define BROKER_PEER_USERNAMESPACE_H

#include <string>
#include <string_view>
#include <sys/types.h>

/// The numbers of users as this process sees them. In a user namespace (PrivateUsers= in a unit), all users
/// from outside have the same number, which is also that of "nobody".
class UserNamespace
{
public:
    /// @param proc "/proc"
    explicit UserNamespace(const std::string& proc);

    /// Every user of the machine has a number here.
    bool isWhole() const { return mIsWhole; }

    /// The number may stand for any user from outside.
    bool isOutside(uid_t uid) const { return !mIsWhole && uid == mOverflow; }

    /// Whether a map of users leaves nobody out: "0 0 4294967295".
    static bool isWholeMap(std::string_view map);

private:
    bool mIsWhole;
    uid_t mOverflow;
};

#endif
