#ifndef STATUSCTL_BASE_PRIVATENETWORK_H
#define STATUSCTL_BASE_PRIVATENETWORK_H

/// Moves this process into a network namespace of its own, with only a loopback interface. All ports are free
/// there, and nothing outside can connect. The process must have a single thread.
///
/// Without the privilege for that, it enters a user namespace as well, if users may create one. The user id
/// stays the same, so programs that look at it notice no difference.
/// @throws Failure if the kernel refuses
void enterPrivateNetwork();

#endif
