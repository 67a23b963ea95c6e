#ifndef BROKER_PEER_OWNER_H
#define BROKER_PEER_OWNER_H

#include <cstdint>
#include <optional>
#include <sys/types.h>

/// The owner of the socket at the other end of a connection: the user that made the socket, as the kernel
/// reports it. An unknown owner has no user: it is never root by default.
class Owner
{
public:
    /// Whether the user is known, or why not.
    enum class Knowledge
    {
        Known,
        NotAsked,
        NoConnection,         ///< the kernel has no such connection: it was reset, or is not of this network
                              ///< namespace
        NotEstablished,       ///< the peer has ended, or has begun to
        NoProcess,            ///< no process has the peer's socket any more
        OutsideUserNamespace, ///< the user has no number in the broker's user namespace
        WrongAnswer,          ///< the answer is about another socket, or cannot be understood
        NoAnswer,             ///< the kernel had no room, or refused to answer
        NoMeans,              ///< this kernel, or this sandbox, offers no way to ask
    };

    Owner() = default;

    /// @param uid (uid_t)-1 means none, and makes the owner unknown
    /// @param cgroup the id of its control group, where the kernel reports one
    static Owner known(uid_t uid, uint64_t inode, std::optional<uint64_t> cgroup);

    static Owner unknown(Knowledge why) { return Owner(why); }

    /// The same socket, with an unknown user.
    Owner withoutUser(Knowledge why) const;

    bool isKnown() const { return mKnowledge == Knowledge::Known; }
    Knowledge knowledge() const { return mKnowledge; }

    /// Whether it is unknown because the peer has ended.
    bool hasGone() const
    {
        return mKnowledge == Knowledge::NoConnection || mKnowledge == Knowledge::NotEstablished ||
               mKnowledge == Knowledge::NoProcess;
    }

    /// For a log line: "known", or why not.
    const char* reason() const;

    /// The user that made the socket, at that time. Not the user that the process has changed to since, nor
    /// the user of a process that was handed the socket. Nothing unless known.
    std::optional<uid_t> uid() const { return mUid; }

    /// The inode of the peer's socket; 0 if there is none. Also set where only the user is unknown.
    uint64_t inode() const { return mInode; }

    /// The control group in which the socket was made. Also set where only the user is unknown.
    std::optional<uint64_t> cgroup() const { return mCgroup; }

private:
    explicit Owner(Knowledge knowledge) : mKnowledge(knowledge) {}

    Knowledge mKnowledge = Knowledge::NotAsked;
    std::optional<uid_t> mUid;
    uint64_t mInode = 0;
    std::optional<uint64_t> mCgroup;
};

#endif
