#include "statusctl/text/OutputFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/support/TemporaryFolder.h"

namespace
{

mode_t modeBefore = 0; // of the file that fchmod() has last changed

} // namespace

// Takes the place of the C library's function, whose parameters have reserved names.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int fchmod(int file, mode_t mode) noexcept
{
    struct stat status
    {
    };
    fstat(file, &status);
    modeBefore = status.st_mode & 0777U;
    return static_cast<int>(syscall(SYS_fchmod, file, mode));
}

TEST(OutputFileTest, nobodyElseCanOpenTheNewFileBeforeItHasTheModeOfTheOldOne)
{
    const TemporaryFolder folder;
    writeFile(folder / "file", "old");
    chmod((folder / "file").c_str(), 0640);
    OutputFile::replace(folder / "file", "new");
    EXPECT_EQ(modeBefore, 0600U);
    EXPECT_EQ(readFile(folder / "file"), "new");
}
