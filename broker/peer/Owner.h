#ifndef BROKER_PEER_OWNER_H
#define BROKER_PEER_OWNER_H

#include <cstdint>
#include <optional>
#include <sys/types.h>

/// The owner of the socket at the other end of a connection, as far as the kernel tells: the user that made
/// it. An unknown owner has no user: never root by default.
class Owner
{
public:
    /// How the user is known, or why it is not.
    enum class Knowledge
    {
        Known,
        NotAsked,
        NoConnection,         ///< the kernel has no such connection: reset, or not of this network namespace
        NotEstablished,       ///< the peer has ended, or has begun to
        NoProcess,            ///< no process has the peer's socket any more
        OutsideUserNamespace, ///< a user that has no number in the broker's user namespace
        WrongAnswer,          ///< about another socket, or not to be understood
        NoAnswer,             ///< the kernel had no room, or refused
        NoMeans,              ///< this kernel, or this sandbox, offers no way to ask
    };

    Owner() = default;

    /// @param uid (uid_t)-1 is none and makes the owner unknown
    /// @param cgroup the id of its control group, where the kernel tells it
    static Owner known(uid_t uid, uint64_t inode, std::optional<uint64_t> cgroup);

    static Owner unknown(Knowledge why) { return Owner(why); }

    /// The same socket, whose user cannot be told.
    Owner withoutUser(Knowledge why) const;

    bool isKnown() const { return mKnowledge == Knowledge::Known; }
    Knowledge knowledge() const { return mKnowledge; }

    /// It is unknown because the peer has ended.
    bool hasGone() const
    {
        return mKnowledge == Knowledge::NoConnection || mKnowledge == Knowledge::NotEstablished ||
               mKnowledge == Knowledge::NoProcess;
    }

    /// For a log line: "known", or why not.
    const char* reason() const;

    /// The user who made the socket, when it made it. A process that has changed its user since, or was
    /// handed the socket, does not count. None unless known.
    std::optional<uid_t> uid() const { return mUid; }

    /// Of the peer's socket; 0 if there is none. Also told where only the user is unknown.
    uint64_t inode() const { return mInode; }

    /// In which the socket was made. Also told where only the user is unknown.
    std::optional<uint64_t> cgroup() const { return mCgroup; }

private:
    explicit Owner(Knowledge knowledge) : mKnowledge(knowledge) {}

    Knowledge mKnowledge = Knowledge::NotAsked;
    std::optional<uid_t> mUid;
    uint64_t mInode = 0;
    std::optional<uint64_t> mCgroup;
};

#endif
