#ifndef TESTS_MEMORY_LIBZMQCALLS_H
#define TESTS_MEMORY_LIBZMQCALLS_H

/// Stands between the broker client and libzmq in a program that links it: what libzmq takes of memory
/// neither counts nor fails. The exceptions are where libzmq reports want of memory instead of aborting:
/// zmq_msg_init_data(), zmq_msg_init_size() and zmq_send().
namespace LibzmqCalls
{

/// How many receives the notify loops of this process have begun. In the last of them, a loop waits.
unsigned notifyReceives();

/// How many sockets and contexts have been closed, by any thread.
unsigned closes();

} // namespace LibzmqCalls

#endif
