#ifndef STATUSCTL_BASE_DESCENDANTS_H
#define STATUSCTL_BASE_DESCENDANTS_H

#include <set>
#include <sys/types.h>

/// As long as it lives, processes whose parent has gone become children of this process. Its end ends them
/// all: the children that this process has made meanwhile, theirs, and so on.
class Descendants
{
public:
    Descendants();
    ~Descendants();

    Descendants(const Descendants&) = delete;
    Descendants& operator=(const Descendants&) = delete;

private:
    bool endChildren() const;

    // This process has taken the place of another program, such as a shell, and these were its children.
    const std::set<pid_t> mInherited;
};

#endif
