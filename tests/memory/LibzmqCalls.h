#ifndef TESTS_MEMORY_LIBZMQCALLS_H
#define TESTS_MEMORY_LIBZMQCALLS_H

/// Intercepts the broker client's calls of libzmq in a program that links it. libzmq's own allocations
/// neither count nor fail, except in three functions that report a lack of memory instead of aborting:
/// zmq_msg_init_data(), zmq_msg_init_size() and zmq_send().
namespace LibzmqCalls
{

/// How many receives the notify loops of this process have started. A loop waits in its last receive.
unsigned notifyReceives();

/// How many sockets and contexts all threads have closed.
unsigned closes();

} // namespace LibzmqCalls

#endif
