#ifndef TESTS_BROKER_PEER_PROCESSESFIXTURE_H
#define TESTS_BROKER_PEER_PROCESSESFIXTURE_H

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "broker/peer/Processes.h"
#include "tests/support/TemporaryFolder.h"

/// A folder of processes, like /proc.
class ProcessesFixture : public testing::Test
{
protected:
    void addProcess(const std::string& pid, const std::string& name, const std::vector<std::string>& links)
    {
        std::filesystem::create_directories(proc / (pid + "/fd"));
        writeFile(proc / (pid + "/comm"), name);
        for (const std::string& link : links)
            std::filesystem::create_symlink(link, proc / (pid + "/fd/" + std::to_string(mNext++)));
    }

    TemporaryFolder proc;
    Processes processes{proc / ""};

private:
    int mNext = 0;
};

#endif
