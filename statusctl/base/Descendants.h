#ifndef STATUSCTL_BASE_DESCENDANTS_H
#define STATUSCTL_BASE_DESCENDANTS_H

#include <chrono>
#include <set>
#include <string>
#include <sys/types.h>

/// While it lives, orphaned descendants become children of this process. It can end all children
/// that are in another network than this process was at the start, with their descendants. So create it
/// before the private network.
///
/// This process may have replaced a shell that had started other processes. Their orphans become children of
/// this process as well, but stay in the network of the start, and are left alone.
class Descendants
{
public:
    Descendants();
    /// As end(), unless that was called: the patience would count twice.
    ~Descendants();

    /// Ends them.
    /// @return false if some are left: programs that start others all the time can be faster
    bool end(std::chrono::milliseconds patience = std::chrono::seconds(5));

    Descendants(const Descendants&) = delete;
    Descendants& operator=(const Descendants&) = delete;

private:
    bool killChildren() const;
    bool isOfSandbox(pid_t child) const;

    const std::set<pid_t> mInherited; // the children at the start
    const std::string mOuterNetwork;
    bool mIsTried = false;
};

#endif
