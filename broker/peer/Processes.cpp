#include "broker/peer/Processes.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace
{

template <class Number>
bool readNumber(std::string_view text, Number& number)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

// Reads the number from "socket:[123]".
bool readSocket(std::string_view link, uint64_t& inode)
{
    constexpr std::string_view begin = "socket:[";
    return link.size() > begin.size() + 1 && link.substr(0, begin.size()) == begin && link.back() == ']' &&
           readNumber(link.substr(begin.size(), link.size() - begin.size() - 1), inode);
}

// The inode of the socket behind a link in a process's folder of descriptors; 0 if it is not a socket.
uint64_t socketAt(DIR* descriptors, const char* name)
{
    std::array<char, 64> link{};
    const ssize_t size = readlinkat(dirfd(descriptors), name, link.data(), link.size());
    uint64_t inode = 0;
    const bool isSocket = size > 0 && readSocket({link.data(), static_cast<std::size_t>(size)}, inode);
    return isSocket ? inode : 0;
}

std::string programOf(const Descriptor& process)
{
    std::array<char, 64> name{};
    const Descriptor file(openat(process.number(), "comm", O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    const ssize_t size = file.isOpen() ? read(file.number(), name.data(), name.size()) : 0;
    std::string text(name.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return Processes::printable(text);
}

Descriptor openFolder(int parent, const std::string& path)
{
    return Descriptor(openat(parent, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

} // namespace

Processes::Processes(std::string proc) : mProc(std::move(proc)) {}

bool Processes::want(uint64_t inode)
{
    if (mWanted.size() + mNext.size() >= mostWanted)
        return false;
    Found found;
    found.inode = inode;
    mNext[inode] = found;
    return true;
}

void Processes::forget(uint64_t inode)
{
    mWanted.erase(inode);
    mNext.erase(inode);
}

std::vector<Processes::Found> Processes::work(Clock::duration atMost)
{
    if (!hasWork())
        return {};
    const TimePoint end = Clock::now() + atMost;
    if (!mProcesses)
        begin();
    do
        if (!step())
            return finish();
    while (Clock::now() < end);
    return {};
}

Processes::Folder Processes::folderAt(int parent, const std::string& path)
{
    Descriptor opened = openFolder(parent, path);
    Folder folder(opened.isOpen() ? fdopendir(opened.number()) : nullptr);
    if (folder)
        opened.release();
    return folder;
}

void Processes::begin()
{
    mWanted.swap(mNext);
    mProcesses = folderAt(AT_FDCWD, mProc);
}

// Looks at one descriptor, or opens one process. Returns false at the end of the pass.
bool Processes::step()
{
    if (!mProcesses || mWanted.empty())
        return false;
    const bool isInProcess = mDescriptors != nullptr;
    const dirent* entry = readdir(isInProcess ? mDescriptors.get() : mProcesses.get());
    if (entry == nullptr && !isInProcess)
        return false;
    if (entry == nullptr)
        mDescriptors.reset();
    else if (isInProcess)
        lookAt(entry->d_name);
    else
        openProcess(entry->d_name);
    return true;
}

void Processes::openProcess(const char* name)
{
    if (!readNumber(std::string_view(name), mPid) || mPid <= 0)
        return;
    mProcess = openFolder(dirfd(mProcesses.get()), name);
    if (mProcess.isOpen())
        mDescriptors = folderAt(mProcess.number(), "fd");
}

void Processes::lookAt(const char* descriptor)
{
    const auto wanted = mWanted.find(socketAt(mDescriptors.get(), descriptor));
    if (wanted != mWanted.end() && wanted->second.pid != mPid)
        note(wanted->second);
}

void Processes::note(Found& found)
{
    found.others = found.pid != 0;
    if (found.pid != 0 && found.pid < mPid)
        return;
    // Reads through the open folder: another process may have the number by now, but not the folder.
    found.pid = mPid;
    found.program = programOf(mProcess);
}

Processes::Sockets Processes::socketsOf(pid_t pid, const std::string& program) const
{
    constexpr int mostDescriptors = 1024; // one process must not delay others
    constexpr int fewDescriptors = 32;    // always read: other programs may have used the time
    const TimePoint end = Clock::now() + std::chrono::milliseconds(1);
    const Descriptor process = openFolder(AT_FDCWD, mProc + "/" + std::to_string(pid));
    Sockets sockets;
    if (!process.isOpen() || programOf(process) != program)
        return sockets;
    const Folder descriptors = folderAt(process.number(), "fd");
    for (int count = 0;
         descriptors && count < mostDescriptors && (count < fewDescriptors || Clock::now() < end); ++count)
    {
        const dirent* entry = readdir(descriptors.get());
        sockets.areAll = entry == nullptr;
        if (sockets.areAll)
            break;
        if (const uint64_t inode = socketAt(descriptors.get(), entry->d_name); inode != 0)
            sockets.inodes.insert(inode);
    }
    return sockets;
}

std::vector<Processes::Found> Processes::finish()
{
    std::vector<Found> done;
    done.reserve(mWanted.size());
    for (auto& wanted : mWanted)
        done.push_back(std::move(wanted.second));
    mWanted.clear();
    mDescriptors.reset();
    mProcess.close();
    mProcesses.reset();
    return done;
}

std::string Processes::printable(std::string name)
{
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return name;
}
