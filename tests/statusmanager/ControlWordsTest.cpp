// The control words that each source file registers when the library is loaded.

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

// Filled while the libraries are loaded, before any constructor runs here.
std::array<Registration, 32> registrations;
std::size_t count = 0;

bool endsWith(const std::string& text, const std::string& ending)
{
    return text.size() >= ending.size() && text.substr(text.size() - ending.size()) == ending;
}

} // namespace

// Replaces the library's function, and calls it. The library may change the words.
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
    // Needs the library at run time. Some compilers decide a plain comparison themselves, without the
    // library.
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
