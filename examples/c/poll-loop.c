/* Follows status values in a loop around poll(), as most daemons in C have one.
 *
 *     poll-loop KEY...
 *
 * Prints the values that are there, then "(synced)", then each change, until SIGTERM or SIGINT. */
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <statusmanager/status.h>

static int failed(const char* what, int result)
{
    fprintf(stderr, "%s: %s\n", what, status_strerror(result));
    return 1;
}

/* Takes all that waits. Returns 0, or a negative result. */
static int take_items(status_t* status)
{
    status_item_t* item;
    int result;
    while ((result = status_next(status, &item)) == 1) {
        if (item->kind == STATUS_CHANGE)
            printf("%s=%s\n", item->key, item->value);
        else if (item->kind == STATUS_SYNCED)
            printf("(synced)\n");
        status_free(item);
    }
    fflush(stdout);
    return result;
}

int main(int argc, char** argv)
{
    /* Blocked before status_open(), so that the signals wait for the descriptor. */
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, NULL);
    const int signal_fd = signalfd(-1, &signals, SFD_CLOEXEC);

    status_t* status;
    int result = status_open(5000, &status);
    if (result < 0)
        return failed("no broker", result);
    result = status_subscribe(status, (const char* const*)argv + 1, (size_t)argc - 1);
    if (result < 0)
        return failed("usage: poll-loop KEY...", result);

    struct pollfd fds[] = {{signal_fd, POLLIN, 0}, {status_fd(status), POLLIN, 0}};
    while (result >= 0 && fds[0].revents == 0) {
        poll(fds, 2, -1);
        result = take_items(status);
    }
    status_close(status);
    close(signal_fd);
    return result < 0 ? failed("status", result) : 0;
}
