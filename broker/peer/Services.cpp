#include "broker/peer/Services.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <new>
#include <sstream>
#include <sys/stat.h>
#include <vector>

#include "daemon/Descriptor.h"

namespace
{

constexpr std::size_t mostMissing = 1024;

bool endsIn(const std::string& name, std::string_view end)
{
    return name.size() > end.size() && name.compare(name.size() - end.size(), end.size(), end) == 0;
}

// The kernel's own number of the control group. On 32 bits, the inode's number is only its lower half.
uint64_t idOf(const Descriptor& folder)
{
    constexpr int ofTheTree = 0xfe; // FILEID_KERNFS
    uint64_t id = 0;
    alignas(file_handle) char place[sizeof(file_handle) + sizeof(id)] = {};
    auto* handle = new (place) file_handle; // with room for the number behind it
    handle->handle_bytes = sizeof(id);
    int mount = 0;
    if (name_to_handle_at(folder.number(), "", handle, &mount, AT_EMPTY_PATH) == 0 &&
        handle->handle_type == ofTheTree && handle->handle_bytes == sizeof(id))
    {
        memcpy(&id, place + sizeof(file_handle), sizeof(id));
        return id;
    }
    struct stat status
    {
    };
    return fstat(folder.number(), &status) == 0 ? status.st_ino : 0;
}

struct CloseFolder
{
    void operator()(DIR* folder) const { closedir(folder); }
};
using OpenFolder = std::unique_ptr<DIR, CloseFolder>;

// Replaces escapes: "\040" is a space.
std::string unescaped(const std::string& text)
{
    constexpr std::size_t digits = 3;
    std::string plain;
    for (std::size_t i = 0; i != text.size(); ++i)
    {
        const bool isEscaped = text[i] == '\\' && text.size() - i > digits &&
                               text.find_first_not_of("01234567", i + 1) > i + digits;
        plain += isEscaped ? static_cast<char>(std::stoi(text.substr(i + 1, digits), nullptr, 8)) : text[i];
        i += isEscaped ? digits : 0;
    }
    return plain;
}

} // namespace

// One walk over the tree, higher folders first. So the owner of a deep folder cannot hide services beside it.
class Services::Walk
{
public:
    Walk(const std::string& root, std::unordered_map<uint64_t, std::string>& names)
        : mRoot(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), mNames(names)
    {
        mFolders.push_back({".", none, 0, true});
    }

    /// Returns how many folders it has looked at.
    std::size_t run()
    {
        std::size_t count = 0;
        for (; !mFolders.empty() && count != mostFolders; ++count)
        {
            const Folder folder = std::move(mFolders.front());
            mFolders.pop_front();
            look(folder);
        }
        mIsComplete = mIsComplete && mFolders.empty();
        return count;
    }

    /// Whether no folder was left out.
    bool isComplete() const { return mIsComplete && mRoot.isOpen(); }

private:
    static constexpr std::size_t none = SIZE_MAX;
    static constexpr unsigned deepest = 32;

    struct Folder
    {
        std::string path;
        std::size_t service; ///< index in mServices, or none
        unsigned depth;
        bool hasOnlySlices; ///< on the path to it
    };

    struct Service
    {
        std::string name;
        std::size_t folders;
    };

    void look(const Folder& folder)
    {
        Descriptor opened(
            openat(mRoot.number(), folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!opened.isOpen())
            return; // gone since then
        mNames[idOf(opened)] = folder.service == none ? std::string() : mServices[folder.service].name;
        OpenFolder entries(fdopendir(opened.number()));
        if (!entries)
            return;
        opened.release();
        while (const dirent* entry = readdir(entries.get()))
            if ((entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) && entry->d_name[0] != '.')
                if (!add(folder, entry->d_name))
                    break;
    }

    // Returns false if the parent's service has no room for more folders.
    bool add(const Folder& parent, const std::string& name)
    {
        const bool isFull = parent.service != none
                                ? mServices[parent.service].folders == mostFoldersOfAService
                                : mFolders.size() >= mostFolders;
        if (isFull || parent.depth == deepest)
        {
            mIsComplete = false;
            return false;
        }
        Folder folder{parent.path + "/" + name, parent.service, parent.depth + 1,
                      parent.hasOnlySlices && endsIn(name, ".slice")};
        if (parent.hasOnlySlices && !unitOf(name).empty())
        {
            folder.service = mServices.size();
            mServices.push_back({unitOf(name), 0});
        }
        if (folder.service != none)
            ++mServices[folder.service].folders;
        mFolders.push_back(std::move(folder));
        return true;
    }

    const Descriptor mRoot;
    std::unordered_map<uint64_t, std::string>& mNames;
    std::deque<Folder> mFolders; ///< yet to be looked at
    std::vector<Service> mServices;
    bool mIsComplete = true;
};

Services::Services(std::string root, TimePoint (*now)()) : mRoot(std::move(root)), mNow(now), mRefilled(now())
{
}

std::string Services::rootIn(const std::string& proc)
{
    std::ifstream mounts(proc + "/self/mountinfo");
    std::string line;
    while (std::getline(mounts, line))
    {
        // 41 31 0:38 / /sys/fs/cgroup rw,relatime shared:9 - cgroup2 cgroup2 rw
        const std::size_t dash = line.find(" - ");
        if (dash == std::string::npos || line.compare(dash + 3, 8, "cgroup2 ") != 0)
            continue;
        std::istringstream words(line);
        std::string ignored;
        std::string part;
        std::string place;
        // For a mounted part of the tree, the folders above it are unknown.
        if (words >> ignored >> ignored >> ignored >> part >> place && part == "/")
            return unescaped(place);
    }
    return "";
}

Services::Answer Services::find(uint64_t controlGroup)
{
    if (mRoot.empty() || mMissing.count(controlGroup) != 0)
        return {Knowledge::Unknown, ""};
    if (mNames.count(controlGroup) == 0)
    {
        if (!mayWalk())
            return {Knowledge::Later, ""};
        walk(controlGroup);
    }
    return known(controlGroup);
}

Services::Answer Services::known(uint64_t controlGroup) const
{
    const auto found = mNames.find(controlGroup);
    if (found == mNames.end())
        return {Knowledge::Unknown, ""};
    return {found->second.empty() ? Knowledge::NoService : Knowledge::Named, found->second};
}

bool Services::mayWalk()
{
    using std::chrono::milliseconds;
    const TimePoint now = mNow();
    const auto passed = std::chrono::duration_cast<milliseconds>(now - mRefilled);
    const long refill =
        static_cast<long>(std::min<long long>(passed.count(), 60000)) * foldersPerSecond / 1000;
    if (refill > 0)
    {
        mAllowance = std::min(burst, mAllowance + refill);
        mRefilled = now;
    }
    return mAllowance > 0;
}

void Services::walk(uint64_t wanted)
{
    mNames.clear(); // folders that are gone never return with the same id
    Walk walk(mRoot, mNames);
    mAllowance -= static_cast<long>(walk.run());
    if (mNames.count(wanted) != 0 || !walk.isComplete())
        return;
    if (mMissing.size() == mostMissing)
        mMissing.clear();
    mMissing.insert(wanted);
}

std::string Services::unitOf(const std::string& folder)
{
    const std::string name = folder[0] == '_' ? folder.substr(1) : folder;
    return endsIn(name, ".service") || endsIn(name, ".scope") ? name : "";
}
