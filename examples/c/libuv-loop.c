/* Asks for status values in libuv's loop, once a second, without ever waiting for an answer.
 *
 *     libuv-loop KEY...
 *
 * Prints the values of each answer, until SIGTERM or SIGINT. */
#include <stdio.h>
#include <uv.h>

#include <statusmanager/status.h>

static status_t* status;
static const char* const* keys;
static size_t key_count;

static void on_items(uv_poll_t* handle, int error, int events)
{
    status_item_t* item;
    (void)handle;
    (void)error;
    (void)events;
    while (status_next(status, &item) == 1) {
        if (item->kind == STATUS_ANSWER && item->result < 0)
            fprintf(stderr, "question %u: %s\n", (unsigned)item->tag, status_strerror(item->result));
        for (size_t at = 0; at < item->values.count; ++at)
            printf("%s=%s\n", item->values.pairs[at].key, item->values.pairs[at].value);
        status_free(item);
    }
    fflush(stdout);
}

static void on_timer(uv_timer_t* timer)
{
    static uint64_t question;
    (void)timer;
    if (status_ask_many(status, keys, key_count, ++question) == STATUS_EFULL)
        fprintf(stderr, "the broker has been silent for long\n");
}

static void on_signal(uv_signal_t* handle, int number)
{
    (void)number;
    uv_stop(handle->loop);
}

int main(int argc, char** argv)
{
    uv_loop_t* loop = uv_default_loop();
    uv_poll_t items;
    uv_timer_t timer;
    uv_signal_t terminated, interrupted;
    keys = (const char* const*)argv + 1;
    key_count = (size_t)argc - 1;
    int result = status_open(5000, &status);
    if (result == STATUS_OK)
        result = status_ask_many(status, keys, key_count, 0);
    if (result < 0) {
        fprintf(stderr, "libuv-loop: %s\n", status_strerror(result));
        return 1;
    }
    uv_poll_init(loop, &items, status_fd(status));
    uv_poll_start(&items, UV_READABLE, on_items);
    uv_timer_init(loop, &timer);
    uv_timer_start(&timer, on_timer, 1000, 1000);
    uv_signal_init(loop, &terminated);
    uv_signal_start(&terminated, on_signal, SIGTERM);
    uv_signal_init(loop, &interrupted);
    uv_signal_start(&interrupted, on_signal, SIGINT);
    uv_run(loop, UV_RUN_DEFAULT);

    uv_poll_stop(&items); /* before the descriptor is closed */
    status_close(status);
    return 0;
}
