#include "broker/policy/PolicyFiles.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <dirent.h>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace
{

using Errors = std::vector<std::string>;

constexpr std::string_view ending = ".policy";

std::string systemError()
{
    return std::generic_category().message(errno);
}

class OpenFile
{
public:
    // Does not wait for a writer if the path is a pipe.
    explicit OpenFile(const std::string& path)
        : mDescriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
    {
    }

    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    ~OpenFile()
    {
        if (mDescriptor != -1)
            close(mDescriptor);
    }

    int descriptor() const { return mDescriptor; }

private:
    const int mDescriptor;
};

// Returns the error in the rights of a file or folder; empty if there is none.
std::string errorIn(const struct stat& status)
{
    if (status.st_uid != 0 && status.st_uid != geteuid())
        return "belongs to user " + std::to_string(status.st_uid) +
               ", but must belong to root or to the broker's user";
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return "users other than its owner can write to it (chmod go-w)";
    return {};
}

// Checks that nobody else can have written the file or folder. Returns nothing on an error.
std::optional<mode_t> check(const OpenFile& file, const std::string& path, Errors& errors)
{
    struct stat status
    {
    };
    std::string error;
    if (file.descriptor() == -1 || fstat(file.descriptor(), &status) == -1)
        error = "cannot be read: " + systemError();
    else
        error = errorIn(status);
    if (error.empty())
        return status.st_mode;
    errors.push_back(path + ": " + error);
    return std::nullopt;
}

// Reading one byte beyond the limit shows whether the file is too long.
std::optional<std::string> contentOf(const OpenFile& file, const std::string& path, Errors& errors)
{
    std::string text(PolicyLimits::fileBytes + 1, '\0');
    std::size_t size = 0;
    while (size < text.size())
    {
        const ssize_t count = read(file.descriptor(), text.data() + size, text.size() - size);
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1)
        {
            errors.push_back(path + ": cannot be read: " + systemError());
            return std::nullopt;
        }
        if (count == 0)
            break;
        size += static_cast<std::size_t>(count);
    }
    text.resize(size);
    return text;
}

void addFile(const std::string& path, std::vector<PolicySource>& sources, Errors& errors)
{
    const OpenFile file(path);
    const auto mode = check(file, path, errors);
    if (mode && !S_ISREG(*mode))
        errors.push_back(path + ": cannot be read: not a regular file");
    else if (mode)
    {
        if (auto text = contentOf(file, path, errors))
            sources.push_back({path, std::move(*text)});
    }
}

bool isPolicy(std::string_view name)
{
    return name.size() > ending.size() && name[0] != '.' &&
           name.substr(name.size() - ending.size()) == ending;
}

std::optional<std::vector<std::string>> policiesIn(const std::string& folder)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), &closedir);
    if (entries == nullptr)
        return std::nullopt;
    std::vector<std::string> names;
    while (const dirent* entry = readdir(entries.get()))
    {
        if (isPolicy(entry->d_name))
            names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void addFolder(const std::string& folder, std::vector<PolicySource>& sources, Errors& errors)
{
    const auto names = policiesIn(folder);
    if (!names)
        errors.push_back(folder + ": cannot be read: " + systemError());
    else if (names->size() > PolicyLimits::files)
        errors.push_back(folder + ": more than " + std::to_string(PolicyLimits::files) + " policy files");
    else
    {
        const std::string prefix = folder.back() == '/' ? folder : folder + "/";
        for (const std::string& name : *names)
            addFile(prefix + name, sources, errors);
    }
}

std::vector<PolicySource> sourcesIn(const std::string& path, Errors& errors)
{
    std::vector<PolicySource> sources;
    struct stat status
    {
    };
    if (stat(path.c_str(), &status) == -1 || !S_ISDIR(status.st_mode))
    {
        addFile(path, sources, errors);
        return sources;
    }
    const OpenFile folder(path);
    if (check(folder, path, errors))
        addFolder(path, sources, errors);
    return sources;
}

// A file that was emptied by accident is valid, too.
void warnOfNothing(PolicyContent& content, const std::string& path)
{
    const bool isDefault = content.rules.size() == 1 && content.rules.back().place.empty();
    if (isDefault && content.quotas.empty() && content.ties.empty())
        content.warnings.push_back(path + ": the policy says nothing, so everybody may do everything");
}

void finish(LoadedPolicy& loaded, const std::string& path, const std::vector<PolicySource>& sources,
            const PolicyNames& names)
{
    PolicyContent content = readPolicy(sources, names, loaded.errors);
    warnOfNothing(content, path);
    if (loaded.errors.empty())
        loaded.policy = std::make_unique<const Policy>(std::move(content));
}

// Running out of memory is an error like others: the policy in force stays.
template <typename Function>
LoadedPolicy guarded(const std::string& path, Function function)
{
    LoadedPolicy loaded;
    try
    {
        function(loaded);
    }
    catch (const std::exception& error)
    {
        loaded.policy.reset();
        loaded.errors.push_back(path + ": cannot be read: " + error.what());
    }
    return loaded;
}

} // namespace

LoadedPolicy makePolicy(const std::vector<PolicySource>& sources, const PolicyNames& names)
{
    const std::string name = sources.empty() ? "policy" : sources.front().name;
    return guarded(name, [&](LoadedPolicy& loaded) { finish(loaded, name, sources, names); });
}

LoadedPolicy loadPolicy(const std::string& path, const PolicyNames& names)
{
    return guarded(path, [&](LoadedPolicy& loaded)
                   { finish(loaded, path, sourcesIn(path, loaded.errors), names); });
}
