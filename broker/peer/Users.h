#ifndef BROKER_PEER_USERS_H
#define BROKER_PEER_USERS_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>
#include <vector>

/// Names of users, and their groups, from /etc/passwd and /etc/group.
///
/// It reads only the files and does not use the name service switch (getpwuid()). The switch loads libraries
/// into the broker, and may wait for a network. The broker's only thread must not wait.
class Users
{
public:
    /// Larger files are not read, nor more entries of one file.
    static constexpr std::size_t mostBytes = std::size_t{1024} * 1024;
    static constexpr std::size_t mostEntries = 10000;

    /// Reads the files; without them no user has a name.
    explicit Users(std::string passwd = "/etc/passwd", std::string group = "/etc/group");

    /// Reads the files again if one of them has changed. Takes some microseconds if none has.
    /// @returns false if a file cannot be read; then everything stays as it was
    bool refresh();

    /// Whether both files have been read completely.
    bool isComplete() const { return mContent.isComplete; }

    /// Whether the user is in the file, so that its groups are known.
    bool isKnown(uid_t uid) const { return mContent.users.find(uid) != mContent.users.end(); }

    /// The first name in the file, or the number.
    std::string name(uid_t uid) const;

    std::optional<uid_t> uid(std::string_view name) const;

    std::optional<gid_t> gid(std::string_view name) const;

    /// The groups of the user, sorted: the group in its own entry, and the groups that list it.
    std::vector<gid_t> groups(uid_t uid) const;

private:
    struct User
    {
        std::string name;
        gid_t group;
    };

    struct Group
    {
        std::string name;
        gid_t number;
        std::vector<std::string> members;
    };

    // The state of a file, for comparison with a later one.
    struct State
    {
        ino_t inode = 0;
        off_t size = -1;
        timespec modified{};

        bool operator==(const State& other) const;
    };

    struct Content
    {
        std::unordered_map<uid_t, User> users; ///< the first entry for each number
        std::unordered_map<std::string, uid_t> numbers;
        std::vector<Group> groups;
        bool isComplete = false;
    };

    static State stateOf(const std::string& path);
    static bool readUsers(const std::string& path, Content& content);
    static bool readGroups(const std::string& path, Content& content);

    const std::string mPasswd;
    const std::string mGroup;
    State mPasswdState;
    State mGroupState;
    Content mContent;
};

#endif
