// The control words that each source file hands over while the library is loaded.

#include <algorithm>
#include <array>
#include <cstddef>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <string>

#include "common/Logging.h"
#include "statusmanager/StatusManager.h"

namespace
{

struct Registration
{
    const char* path;
    unsigned int flags;
    int level;
};

// Filled while the libraries are loaded, before anything here is constructed.
std::array<Registration, 32> registrations;
std::size_t count = 0;

bool endsWith(const std::string& text, const std::string& ending)
{
    return text.size() >= ending.size() && text.substr(text.size() - ending.size()) == ending;
}

} // namespace

// Takes the place of the library's function, and passes the words on to it, which may change them.
extern "C" __attribute__((visibility("default"))) int
register_logging(const char* path, volatile unsigned int* flags, volatile int* level)
{
    if (count < registrations.size())
        registrations[count++] = {path, *flags, *level};
    return reinterpret_cast<decltype(&register_logging)>(dlsym(RTLD_NEXT, "register_logging"))(path, flags,
                                                                                               level);
}

TEST(ControlWords, ofEachSourceFileOfTheManagersAreHandedOverOnceAndBeforeMain)
{
    // Loads the library. A comparison alone is decided by some compilers, and then the library is not needed.
    auto* volatile usesTheLibrary = &StatusManager::getInstance;
    ASSERT_NE(usesTheLibrary, nullptr);
    for (const char* file : {"statusmanager/StatusManager.cpp", "statusmanager/StatusManagerProxy.cpp",
                             "statusmanager/StatusManagerStub.cpp"})
        EXPECT_EQ(std::count_if(registrations.begin(), registrations.begin() + count,
                                [&](const Registration& each) { return endsWith(each.path, file); }),
                  1)
            << file;
}

TEST(ControlWords, atFirstHaveAllFlagsAndLevelFive)
{
    ASSERT_GE(count, 3U);
    for (std::size_t index = 0; index < count; ++index)
    {
        EXPECT_EQ(registrations[index].flags, 0xFFFFFFFFU) << registrations[index].path;
        EXPECT_EQ(registrations[index].level, 5) << registrations[index].path;
    }
}
