#include "statusctl/text/OutputFile.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>

#include "statusctl/base/Failure.h"
#include "statusctl/base/SignalsBlocked.h"

namespace
{

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& name)
{
    throw Failure(ExitCode::Failed, "cannot write " + name + ": " + std::strerror(errno));
}

/// Closes its file.
class Descriptor
{
public:
    explicit Descriptor(int descriptor) : mDescriptor(descriptor) {}
    ~Descriptor() { close(); }

    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return mDescriptor; }

    bool write(const std::string& text) const
    {
        std::size_t written = 0;
        while (written < text.size())
        {
            const ssize_t size = ::write(mDescriptor, text.data() + written, text.size() - written);
            if (size < 0 && errno != EINTR)
                return false;
            written += size < 0 ? 0 : static_cast<std::size_t>(size);
        }
        return true;
    }

    // Some file systems report a full disk only here.
    bool close()
    {
        const int descriptor = std::exchange(mDescriptor, -1);
        return descriptor < 0 || ::close(descriptor) == 0;
    }

private:
    int mDescriptor;
};

/// A new file beside the target. The destructor removes it unless takePlaceOf() has succeeded.
class NewFile
{
public:
    // In the target's folder, so that it can replace the target. Its extension differs, because readers look
    // for files by extension.
    NewFile(const fs::path& target, mode_t mode)
        : mName(target.parent_path() / uniqueName()),
          mFile(open(mName.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, mode)) // less the umask
    {
        if (mFile.get() < 0)
            fail(target);
    }
    ~NewFile()
    {
        if (!mName.empty())
            unlink(mName.c_str());
    }

    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // Only root can change the owner; any other user owns the file already. If root cannot, the group may be
    // another group, and gets no rights.
    void takeOver(const struct stat& before) const
    {
        const bool isOwned = fchown(mFile.get(), before.st_uid, before.st_gid) == 0 || geteuid() != 0;
        (void)fchmod(mFile.get(),
                     before.st_mode & (isOwned ? 0777U : 0707U)); // some file systems have no modes
    }

    bool write(const std::string& text) { return mFile.write(text) && mFile.close(); }

    bool takePlaceOf(const fs::path& target)
    {
        if (rename(mName.c_str(), target.c_str()) != 0)
            return false;
        mName.clear();
        return true;
    }

private:
    // A name that no other process uses, and none has left behind. Short, because the target's name may be as
    // long as the file system allows.
    static std::string uniqueName()
    {
        const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
        return ".statusctl." + std::to_string(getpid()) + "." + std::to_string(now) + ".tmp";
    }

    std::string mName;
    Descriptor mFile;
};

bool isInProc(const fs::path& path)
{
    const fs::path folder = path.has_parent_path() ? path.parent_path() : ".";
    struct statfs status
    {
    };
    return statfs(folder.c_str(), &status) == 0 && status.f_type == PROC_SUPER_MAGIC;
}

// Follows symbolic links, also to a file that does not exist yet. The links of /proc are not names of files,
// although they look so: another process has the file open, and must keep it.
fs::path targetOf(const std::string& name)
{
    constexpr int most = 40; // as the kernel
    fs::path path = name;
    std::error_code error;
    for (int links = 0; links <= most; ++links)
    {
        if (isInProc(path))
            return path;
        const fs::path next = fs::read_symlink(path, error);
        if (error)
            return path; // not a link
        path = path.parent_path() / next;
    }
    errno = ELOOP;
    fail(name);
}

// A descriptor of this process, such as /dev/stdout, is used as it is. If it was opened anew, its file would
// be overwritten from the beginning.
int openExisting(const fs::path& path)
{
    std::error_code error;
    if (isInProc(path) && fs::exists(path, error) &&
        fs::canonical(path.parent_path(), error) == fs::canonical("/proc/self/fd", error))
        return fcntl(std::stoi(path.filename()), F_DUPFD_CLOEXEC, 0);
    return open(path.c_str(), O_WRONLY | O_CLOEXEC);
}

void writeTo(const fs::path& path, const std::string& text)
{
    Descriptor file(openExisting(path));
    if (file.get() < 0 || !file.write(text) || !file.close())
        fail(path);
}

} // namespace

// Does not synchronise the disk: that would wear it out, and the next text comes in a minute.
void OutputFile::replace(const std::string& name, const std::string& text)
{
    const fs::path target = targetOf(name);
    struct stat before
    {
    };
    const bool isThere = stat(target.c_str(), &before) == 0;
    if (isInProc(target) || (isThere && !S_ISREG(before.st_mode)))
        return writeTo(target, text);
    std::signal(SIGXFSZ, SIG_IGN); // a file size limit then fails like a full disk
    const SignalsBlocked blocked;  // a signal that ended the process would leave the new file behind
    NewFile file(target, isThere ? 0600 : 0666);
    if (isThere)
        file.takeOver(before);
    if (!file.write(text) || !file.takePlaceOf(target))
        fail(target);
}
