#ifndef STATUSCTL_BASE_DESCENDANTS_H
#define STATUSCTL_BASE_DESCENDANTS_H

#include <set>
#include <sys/types.h>

/// While it lives, orphaned descendants become children of this process. Its destructor ends all children
/// that this process has started since, with their descendants.
class Descendants
{
public:
    Descendants();
    ~Descendants();

    Descendants(const Descendants&) = delete;
    Descendants& operator=(const Descendants&) = delete;

private:
    bool endChildren() const;

    // The children at the start: this process may have replaced a shell that had started some.
    const std::set<pid_t> mInherited;
};

#endif
