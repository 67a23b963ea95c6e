#include "broker/peer/Users.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <grp.h>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>

#include "daemon/Descriptor.h"

namespace
{

struct CloseFile
{
    void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

// Opens only a file of bounded size: the C library takes as much memory as the longest line.
File opened(const std::string& path)
{
    Descriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status
    {
    };
    if (!descriptor.isOpen() || fstat(descriptor.number(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > static_cast<off_t>(Users::mostBytes))
        return nullptr;
    File file(fdopen(descriptor.number(), "re"));
    if (file)
        descriptor.release();
    return file;
}

// Lines with "+" and "-" refer to users of a network. Their number is 0, which must not be taken for root. A
// name of digits would look like another user's number.
bool isName(const char* name)
{
    const std::string_view text = name == nullptr ? "" : name;
    return !text.empty() && text[0] != '+' && text[0] != '-' &&
           text.find_first_not_of("0123456789") != std::string_view::npos &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7f'; });
}

// (uid_t)-1 is not a user: it stands for numbers that do not fit.
bool isNumber(uint32_t number)
{
    return number != UINT32_MAX;
}

// Calls `take` with each entry of a file. `next` is the C library's function that reads the next entry, and
// skips broken lines. Returns false if the file cannot be read. If it has too many entries, isComplete
// becomes false.
template <class Entry, class Take>
bool forEachEntry(const std::string& path, Entry* (*next)(FILE*), Take take, bool& isComplete)
{
    const File file = opened(path);
    if (!file)
        return false;
    for (std::size_t count = 0; count != Users::mostEntries; ++count)
    {
        const Entry* entry = next(file.get()); // valid until the next call: the broker has one thread
        if (entry == nullptr)
            return true;
        take(*entry);
    }
    isComplete = false;
    return true;
}

} // namespace

bool Users::State::operator==(const State& other) const
{
    return inode == other.inode && size == other.size && modified.tv_sec == other.modified.tv_sec &&
           modified.tv_nsec == other.modified.tv_nsec;
}

Users::Users(std::string passwd, std::string group) : mPasswd(std::move(passwd)), mGroup(std::move(group))
{
    refresh();
}

Users::State Users::stateOf(const std::string& path)
{
    struct stat status
    {
    };
    return stat(path.c_str(), &status) == 0 ? State{status.st_ino, status.st_size, status.st_mtim} : State{};
}

bool Users::refresh()
{
    const State passwd = stateOf(mPasswd); // taken before reading: a file that changes meanwhile is read
                                           // again
    const State group = stateOf(mGroup);
    if (passwd == mPasswdState && group == mGroupState && passwd.size >= 0 && group.size >= 0)
        return true;
    Content content;
    content.isComplete = true;
    if (!readUsers(mPasswd, content) || !readGroups(mGroup, content))
        return false;
    mContent = std::move(content);
    mPasswdState = passwd;
    mGroupState = group;
    return true;
}

bool Users::readUsers(const std::string& path, Content& content)
{
    return forEachEntry<passwd>(
        path, fgetpwent,
        [&content](const passwd& entry)
        {
            if (!isName(entry.pw_name) || !isNumber(entry.pw_uid))
                return;
            content.users.try_emplace(entry.pw_uid, User{entry.pw_name, entry.pw_gid});
            content.numbers.try_emplace(entry.pw_name, entry.pw_uid);
        },
        content.isComplete);
}

bool Users::readGroups(const std::string& path, Content& content)
{
    return forEachEntry<group>(
        path, fgetgrent,
        [&content](const group& entry)
        {
            if (!isName(entry.gr_name) || !isNumber(entry.gr_gid))
                return;
            Group& added = content.groups.emplace_back(Group{entry.gr_name, entry.gr_gid, {}});
            for (char** member = entry.gr_mem; *member != nullptr; ++member)
                added.members.emplace_back(*member);
        },
        content.isComplete);
}

std::string Users::name(uid_t uid) const
{
    const auto found = mContent.users.find(uid);
    return found == mContent.users.end() ? std::to_string(uid) : found->second.name;
}

std::optional<uid_t> Users::uid(std::string_view name) const
{
    const auto found = mContent.numbers.find(std::string(name));
    return found == mContent.numbers.end() ? std::nullopt : std::optional(found->second);
}

std::optional<gid_t> Users::gid(std::string_view name) const
{
    const auto found = std::find_if(mContent.groups.begin(), mContent.groups.end(),
                                    [name](const Group& group) { return group.name == name; });
    return found == mContent.groups.end() ? std::nullopt : std::optional(found->number);
}

std::vector<gid_t> Users::groups(uid_t uid) const
{
    std::vector<gid_t> numbers;
    const auto user = mContent.users.find(uid);
    if (user == mContent.users.end())
        return numbers;
    const User& found = user->second;
    numbers.push_back(found.group);
    for (const Group& group : mContent.groups)
        if (std::find(group.members.begin(), group.members.end(), found.name) != group.members.end())
            numbers.push_back(group.number);
    std::sort(numbers.begin(), numbers.end());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}
