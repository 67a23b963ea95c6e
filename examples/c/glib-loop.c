/* Follows status values in GLib's main loop, and posts how many changes there were.
 *
 *     glib-loop KEY...
 *
 * Prints each value, until SIGTERM or SIGINT. */
#include <glib-unix.h>
#include <stdio.h>

#include <statusmanager/status.h>

static gboolean on_items(gint fd, GIOCondition condition, gpointer user_data)
{
    status_t* status = user_data;
    static unsigned changes;
    status_item_t* item;
    (void)fd;
    (void)condition;
    while (status_next(status, &item) == 1) {
        if (item->kind == STATUS_CHANGE) {
            char count[16];
            printf("%s=%s\n", item->key, item->value);
            snprintf(count, sizeof(count), "%u", ++changes);
            status_post(status, "glib-loop.changes", count); /* returns at once, whatever the broker does */
        }
        status_free(item);
    }
    fflush(stdout);
    return G_SOURCE_CONTINUE;
}

static gboolean on_signal(gpointer loop)
{
    g_main_loop_quit(loop);
    return G_SOURCE_REMOVE;
}

int main(int argc, char** argv)
{
    GMainLoop* loop = g_main_loop_new(NULL, FALSE);
    status_t* status;
    int result = status_open(5000, &status);
    if (result == STATUS_OK)
        result = status_subscribe(status, (const char* const*)argv + 1, (size_t)argc - 1);
    if (result < 0) {
        fprintf(stderr, "glib-loop: %s\n", status_strerror(result));
        return 1;
    }
    g_unix_signal_add(SIGTERM, on_signal, loop);
    g_unix_signal_add(SIGINT, on_signal, loop);
    const guint watch = g_unix_fd_add(status_fd(status), G_IO_IN, on_items, status);
    g_main_loop_run(loop);

    g_source_remove(watch); /* before the descriptor is closed */
    status_close(status);
    g_main_loop_unref(loop);
    return 0;
}
