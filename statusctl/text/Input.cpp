#include "statusctl/text/Input.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "statusctl/base/Failure.h"

namespace
{

std::string contentOf(std::FILE* file, const std::string& name)
{
    std::string text;
    std::array<char, 4096> part{};
    std::size_t size = 0;
    while ((size = std::fread(part.data(), 1, part.size(), file)) > 0)
        text.append(part.data(), size);
    if (std::ferror(file) != 0)
        throw Failure(ExitCode::Failed, "cannot read " + name + ": " + std::strerror(errno));
    return text;
}

} // namespace

std::string Input::all()
{
    return contentOf(stdin, "standard input");
}

std::string Input::all(const std::string& fileName)
{
    if (fileName == "-")
        return all();
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(fileName.c_str(), "re"),
                                                               &std::fclose);
    if (!file)
        throw Failure(ExitCode::Failed, "cannot read " + fileName + ": " + std::strerror(errno));
    return contentOf(file.get(), fileName);
}
