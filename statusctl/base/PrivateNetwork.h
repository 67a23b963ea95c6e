#ifndef STATUSCTL_BASE_PRIVATENETWORK_H
#define STATUSCTL_BASE_PRIVATENETWORK_H

/// Moves this process to a network of its own, which has a loopback interface and nothing else: all ports are
/// free there, and nobody outside can connect. The process must have no other thread.
///
/// Without the right to do so, it takes a user namespace, too, where users have that right. The user stays
/// the same there: programs that look at it do as they always do.
/// @throws Failure where the kernel does not let it
void enterPrivateNetwork();

#endif
