// Replaces the fuzzer: passes the files of some folders to the target.

#include <filesystem>
#include <fstream>
#include <sstream>

#include "fuzz/Fuzz.h"

namespace
{

int replay(const std::filesystem::path& folder)
{
    int count = 0;
    if (!std::filesystem::is_directory(folder)) // there are no findings
        return count;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
    {
        std::ostringstream content;
        content << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        const std::string bytes = content.str();
        printf("%s\n", entry.path().c_str());
        fflush(stdout);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++count;
    }
    return count;
}

} // namespace

int main(int argc, char** argv)
{
    int count = 0;
    for (int index = 1; index < argc; ++index)
        count += replay(argv[index]);
    printf("%d inputs\n", count);
    return count > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
