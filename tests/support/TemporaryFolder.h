#ifndef TESTS_SUPPORT_TEMPORARYFOLDER_H
#define TESTS_SUPPORT_TEMPORARYFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

/// A folder for one test. The destructor removes it.
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "statusmanager-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary folder");
        mPath = name;
    }
    ~TemporaryFolder()
    {
        std::error_code error;
        std::filesystem::remove_all(mPath, error);
    }

    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string operator/(const std::string& name) const { return (mPath / name).string(); }

private:
    std::filesystem::path mPath;
};

inline void writeFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string readFile(const std::string& path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

#endif
