#include "broker/peer/Owner.h"

Owner Owner::known(uid_t uid, uint64_t inode, std::optional<uint64_t> cgroup)
{
    Owner owner(Knowledge::Known);
    owner.mUid = uid;
    owner.mInode = inode;
    owner.mCgroup = cgroup;
    constexpr auto none = static_cast<uid_t>(-1);
    return uid == none ? owner.withoutUser(Knowledge::WrongAnswer) : owner;
}

Owner Owner::withoutUser(Knowledge why) const
{
    Owner owner = *this;
    owner.mKnowledge = why;
    owner.mUid.reset();
    return owner;
}

const char* Owner::reason() const
{
    switch (mKnowledge)
    {
    case Knowledge::Known:
        return "known";
    case Knowledge::NotAsked:
        return "not asked";
    case Knowledge::NoConnection:
        return "the kernel knows no such connection";
    case Knowledge::NotEstablished:
        return "the connection has ended";
    case Knowledge::NoProcess:
        return "no process has the socket";
    case Knowledge::OutsideUserNamespace:
        return "outside the user namespace";
    case Knowledge::WrongAnswer:
        return "the kernel's answer does not match";
    case Knowledge::NoAnswer:
        return "the kernel did not answer";
    case Knowledge::NoMeans:
        return "no way to ask the kernel";
    }
    return "";
}
