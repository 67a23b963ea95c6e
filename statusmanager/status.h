#ifndef STATUSMANAGER_STATUS_H
#define STATUSMANAGER_STATUS_H

#include <stddef.h>
#include <stdint.h>

/// @file
/// The status of a device for programs in C, and in every language that can call C. The library
/// libstatusmanager-c contains the code; link `-lstatusmanager-c`. C99.
///
/// A program opens the status, posts values and events, asks for values, and takes changes, events and
/// answers from one queue. One descriptor is readable while the queue has something, so it fits in any event
/// loop.
///
/// These rules hold for all functions, unless a comment says otherwise:
///
/// - **Results.** 0 or more is success. Less is one of the codes STATUS_E...; status_strerror() explains it.
///   A function that fails has done nothing and has left its results unchanged.
/// - **Threads.** Any thread may call any function at any time, also several threads with the same status_t.
///   Calls of one thread keep their order. The library calls none of the program's code, and its own threads
///   block signals. A thread is not cancelled (pthread_cancel()) inside a call, but after it. Signal handlers
///   must not call these functions.
/// - **Waiting.** Only functions with a `timeout_ms` wait, and no longer than that many milliseconds of the
///   monotonic clock. A negative time-out means no limit. With 0 a question is not even asked: the result is
///   STATUS_ETIMEOUT.
/// - **Memory.** The caller keeps what it passes; the library copies it. Returned pointers belong to the
///   caller, who releases each with one status_free(). Everything that the library stores has a limit.
/// - **Texts.** Names and values are UTF-8, and end at the first NUL. A name has 1 to STATUS_NAME_BYTES
///   bytes, a value 0 to STATUS_VALUE_BYTES. The empty value is the same as a reset.
/// - **Wrong arguments.** A null pointer or an empty name is STATUS_EINVAL, a text that is too long
///   STATUS_ETOOLONG, a text that is not UTF-8 STATUS_EUTF8. A message whose length is a multiple of 512
///   bytes would lose its end, and is refused: STATUS_EUNSENDABLE. Make the text one byte longer or shorter,
///   or post several values in two calls.
/// - **After status_close().** Every function returns STATUS_ECLOSED for that status_t, also calls that are
///   still waiting.
/// - **fork().** In a child of a process that has called status_open(), every function returns
///   STATUS_EFORKED. So open after fork(), or call one of the exec functions. Nothing needs to be closed in
///   the child.
///
/// All that a process has open uses one connection to the broker. Posts and questions of the process are sent
/// one after another.

#ifdef __cplusplus
extern "C"
{
#endif

#if defined(__GNUC__)
/// Marks what the library exports.
#define STATUS_EXPORT __attribute__((visibility("default")))
/// Marks functions whose result must not be ignored.
#define STATUS_CHECKED __attribute__((warn_unused_result))
#else
#define STATUS_EXPORT
#define STATUS_CHECKED
#endif

/// The most bytes of a name, without its NUL. A broker accepts no longer ones by default.
#define STATUS_NAME_BYTES 255
/// The most bytes of a value, without its NUL. A broker accepts no longer ones by default.
#define STATUS_VALUE_BYTES 65536
/// The most bytes of a message: several values that are posted together, or the names of a question.
#define STATUS_MESSAGE_BYTES 1048576
/// The most names or pairs in one call.
#define STATUS_COUNT_MOST 10000
/// The most objects of type status_t that a process may have open.
#define STATUS_OPEN_MOST 64
/// The most subscribed keys of one status_t, and the most subscribed events.
#define STATUS_SUBSCRIBED_MOST 10000
/// The most questions and subscriptions of one status_t whose item has not been taken by status_next().
#define STATUS_ASKED_MOST 256
/// The most items that wait in the queue of one status_t before it is full.
#define STATUS_QUEUED_MOST 4096
/// The most bytes of names and values that wait in the queue of one status_t before it is full.
#define STATUS_QUEUED_BYTES 1048576
/// The most bytes of names and values in answers that wait in the queue of one status_t. One longer answer is
/// accepted if it is the only one.
#define STATUS_ANSWERS_BYTES 8388608
/// The most calls of the process that wait in the library because the broker is slow or silent: posts,
/// delayed events included, questions of status_ask(), and begins and ends of subscriptions. Each open
/// status_t counts as one, too.
#define STATUS_PENDING_MOST 10000
/// The most bytes of the texts of these calls.
#define STATUS_PENDING_BYTES 4194304

    /// Results of functions. The numbers never change.
    enum status_result
    {
        STATUS_OK = 0,           ///< Success.
        STATUS_EINVAL = -1,      ///< A null pointer, an empty name, an unknown question, or no names at all.
        STATUS_ETOOLONG = -2,    ///< A name, a value or a message is longer than its limit.
        STATUS_EUTF8 = -3,       ///< A text is not UTF-8.
        STATUS_EUNSENDABLE = -4, ///< The message would lose its end; see above.
        STATUS_ETIMEOUT = -5,    ///< The time has run out.
        STATUS_EUNUSABLE = -6,   ///< This process gets no more answers. End it, and have it started again.
        STATUS_ELOST = -7,    ///< Posts of this process may have been lost. Post the important values again.
        STATUS_EFULL = -8,    ///< One of the limits above is reached.
        STATUS_ENOMEM = -9,   ///< Not enough memory.
        STATUS_ECLOSED = -10, ///< The status_t is closed, or was never open.
        STATUS_EFORKED = -11, ///< The process is a child of the process that called status_open().
        STATUS_ENOENT = -12,  ///< The key is unknown.
        STATUS_ESYSTEM = -13  ///< The system gave no descriptor or no thread.
    };

    /// The access to the device's status, from status_open() to status_close().
    typedef struct status_handle status_t;

    /// A key and its value.
    typedef struct status_pair
    {
        const char* key;   ///< The key.
        const char* value; ///< Its value.
    } status_pair_t;

    /// Keys and their values, sorted by key. One status_free() releases all of it.
    typedef struct status_values
    {
        size_t count;               ///< The number of pairs.
        const status_pair_t* pairs; ///< The pairs; null if there is none.
    } status_values_t;

    /// The kinds of items.
    enum status_kind
    {
        STATUS_CHANGE = 1, ///< A subscribed key has this value.
        STATUS_EVENT = 2,  ///< A subscribed event occurred.
        STATUS_SYNCED =
            3, ///< The items before this one contain the values that one status_subscribe() asked for.
        STATUS_ANSWER = 4 ///< The answer to status_ask() or status_ask_many().
    };

    /// One item of the queue. One status_free() releases it with everything that it points to. Later versions
    /// of the library may append members.
    typedef struct status_item
    {
        int kind;        ///< One of enum status_kind. Ignore unknown kinds.
        int result;      ///< Of SYNCED and ANSWER: 0, or why there are no values. Otherwise 0.
        uint64_t tag;    ///< Of ANSWER: as passed to the question. Otherwise 0.
        uint64_t number; ///< Of an ANSWER about a timer or a counter. Otherwise 0.
        const char* key; ///< Of CHANGE and EVENT, and of the ANSWER about one value, timer or counter: the
                         ///< name. Otherwise "".
        const char*
            value; ///< Of CHANGE, EVENT and the ANSWER about one value. A reset key has "". Otherwise "".
        status_values_t values; ///< Of the ANSWER about several values. Otherwise empty.
    } status_item_t;

    /// What status_ask() asks for.
    enum status_question
    {
        STATUS_ASK_VALUE = 1,         ///< The value of a key, as status_get().
        STATUS_ASK_ALL = 2,           ///< All values, as status_get_all(); the name must be null.
        STATUS_ASK_TIMER_ELAPSED = 3, ///< As status_timer_elapsed().
        STATUS_ASK_TIMER_STARTED = 4, ///< As status_timer_started().
        STATUS_ASK_COUNTER = 5,       ///< As status_counter_get().
        STATUS_ASK_INCREMENT = 6,     ///< As status_counter_increment().
        STATUS_ASK_SYNC = 7           ///< As status_sync(); the name must be null.
    };

    // --------------------------------------------------------------------------------------------- lifecycle

    /// Connects to the broker. The first call of the process connects, and needs a broker that answers; later
    /// calls need none, and return within moments. After a time-out the attempt continues in the background:
    /// a later call waits for the same attempt. The first call that succeeds starts the library's threads,
    /// which run until the process ends.
    /// @param timeout_ms the longest wait. With 0 it only begins an attempt, also in a process that is
    ///                   connected, or takes the result of an earlier attempt.
    /// @param status     gets the open status, which the caller ends with status_close()
    /// @returns 0; STATUS_EINVAL, STATUS_ETIMEOUT, STATUS_EFULL, STATUS_ENOMEM, STATUS_ESYSTEM,
    /// STATUS_EFORKED
    STATUS_EXPORT int status_open(int timeout_ms, status_t** status) STATUS_CHECKED;

    /// Closes the status: ends its subscriptions, its questions and its descriptor, and drops its queue.
    /// Returns at once, whatever the broker does. Posts made before are still sent; call status_sync() first
    /// if they matter. The process stays connected to the broker.
    /// @returns 0; STATUS_EINVAL, STATUS_ECLOSED, STATUS_EFORKED
    STATUS_EXPORT int status_close(status_t* status);

    // ------------------------------------------------------------------------------------------------- posts
    //
    // All posts return at once: the library sends them in the background, and meanwhile they wait in this
    // process. STATUS_EFULL tells that the limit is reached. Then wait with status_sync(), or post again
    // later. If the broker takes no posts for a second, or too few, the library drops posts. The next
    // status_sync() returns STATUS_ELOST. Results of all: 0; STATUS_EINVAL, STATUS_ETOOLONG,
    // STATUS_EUTF8, STATUS_EUNSENDABLE, STATUS_EFULL, STATUS_ENOMEM, STATUS_ECLOSED, STATUS_EFORKED.

    /// Posts a value. Subscribers are told only if the value changed.
    STATUS_EXPORT int status_post(status_t* status, const char* key, const char* value);

    /// Posts several values in one message, so that subscribers in all processes get them together. Posts all
    /// or none.
    /// @param pairs the keys and their values; of the same key, the last value counts
    /// @param count their number, at least 1
    STATUS_EXPORT int status_post_many(status_t* status, const status_pair_t* pairs, size_t count);

    /// Resets a key: sets its value to "". This also makes an unknown key known.
    STATUS_EXPORT int status_reset(status_t* status, const char* key);

    /// Posts an event. Events are not stored: only the subscribers of that moment get it.
    /// @param value    a text, "" if there is nothing to tell
    /// @param delay_ms the event leaves this process after this time. If the process ends earlier, the event
    /// is
    ///                 never sent. status_close() does not drop it, and status_sync() does not wait for it.
    STATUS_EXPORT int status_post_event(status_t* status, const char* name, const char* value,
                                        uint32_t delay_ms);

    // ----------------------------------------------------------------------------------- questions that wait
    //
    // The library asks one question of the process at a time. A question waits for its turn and for its
    // answer no longer than its time-out. If its turn has not come by then, it is never asked. If it is under
    // way, its answer is dropped when it comes, and until then no other question is asked. So while the
    // broker is silent, every question times out; when it answers again, the next question works. A broker
    // that is restarted is asked again by the library.
    //
    // STATUS_EUNUSABLE tells that the connection of this process to the broker is broken for good, for
    // example after the time-out of a sync() that other code of the process called in C++. Posts, changes and
    // events may still work. Questions see all posts that this thread made before.
    //
    // Results of all, besides those named: 0; STATUS_EINVAL, STATUS_ETOOLONG, STATUS_EUTF8,
    // STATUS_EUNSENDABLE, STATUS_ETIMEOUT, STATUS_EUNUSABLE, STATUS_EFULL, STATUS_ENOMEM, STATUS_ECLOSED,
    // STATUS_EFORKED.

    /// Asks for the value of a key.
    /// @param value gets the value, "" for a reset key; release it with status_free()
    /// @returns also STATUS_ENOENT when the key is unknown
    STATUS_EXPORT int status_get(status_t* status, const char* key, int timeout_ms,
                                 char** value) STATUS_CHECKED;

    /// Asks for the values of several keys.
    /// @param keys   the keys
    /// @param count  their number, at least 1
    /// @param values gets the keys that are known, with their values; release it with status_free()
    STATUS_EXPORT int status_get_many(status_t* status, const char* const* keys, size_t count, int timeout_ms,
                                      status_values_t** values) STATUS_CHECKED;

    /// Asks for all values, including those of reset keys.
    /// @param values gets them; release it with status_free()
    STATUS_EXPORT int status_get_all(status_t* status, int timeout_ms,
                                     status_values_t** values) STATUS_CHECKED;

    /// Waits until the broker has taken all posts that this thread made before.
    /// @returns also STATUS_ELOST: posts of this process may have been lost, because the broker was restarted
    ///          or closed a connection, did not take posts for too long, or because there was no memory. Each
    ///          open status is told once. Post the important values again, and sync again.
    STATUS_EXPORT int status_sync(status_t* status, int timeout_ms) STATUS_CHECKED;

    // ---------------------------------------------------------------------------- questions that do not wait

    /// Asks a question and returns at once. The answer comes through status_next(), whenever the broker gives
    /// it: an item of the kind STATUS_ANSWER, whose result is what the waiting function would have returned.
    /// There is no time-out; status_close() drops the question.
    /// @param question one of enum status_question
    /// @param name     the key, timer or counter; null if the question has no name
    /// @param tag      any number; the answer brings it back
    /// @returns 0; STATUS_EFULL if STATUS_ASKED_MOST are unanswered; the results of posts
    STATUS_EXPORT int status_ask(status_t* status, int question, const char* name,
                                 uint64_t tag) STATUS_CHECKED;

    /// As status_ask(), for the values of several keys, as status_get_many().
    STATUS_EXPORT int status_ask_many(status_t* status, const char* const* keys, size_t count,
                                      uint64_t tag) STATUS_CHECKED;

    // ----------------------------------------------------------------------------------------- subscriptions
    //
    // All return at once. Results: 0; STATUS_EINVAL, STATUS_ETOOLONG, STATUS_EUTF8, STATUS_EFULL,
    // STATUS_ENOMEM, STATUS_ECLOSED, STATUS_EFORKED.

    /// Subscribes to keys. First comes a STATUS_CHANGE for each of these keys that is known, then one
    /// STATUS_SYNCED, and then a STATUS_CHANGE for each later post that changes one of them. The same value
    /// may come twice, for example after the broker was restarted. The STATUS_SYNCED of several calls come in
    /// the order of the calls. For a key that is subscribed already, the present value comes again.
    /// @param keys  full keys; patterns are not supported
    /// @param count their number, at least 1
    STATUS_EXPORT int status_subscribe(status_t* status, const char* const* keys, size_t count);

    /// Ends the subscription to keys. From now on status_next() returns no change of them, not even one that
    /// was waiting. The STATUS_SYNCED of the subscription still comes. Keys that are not subscribed are
    /// ignored.
    STATUS_EXPORT int status_unsubscribe(status_t* status, const char* const* keys, size_t count);

    /// Subscribes to events. Each later event of these names comes as a STATUS_EVENT.
    STATUS_EXPORT int status_subscribe_events(status_t* status, const char* const* names, size_t count);

    /// Ends the subscription to events, as status_unsubscribe().
    STATUS_EXPORT int status_unsubscribe_events(status_t* status, const char* const* names, size_t count);

    // -------------------------------------------------------------------------------------- timers, counters
    //
    // The broker keeps them for the whole device. The first use of a name makes the timer or counter.

    /// Starts a timer, which continues from its present time. Does nothing while it runs. Results as of a
    /// post.
    STATUS_EXPORT int status_timer_start(status_t* status, const char* name);
    /// Stops a timer and keeps its time. Results as of a post.
    STATUS_EXPORT int status_timer_stop(status_t* status, const char* name);
    /// Clears the time of earlier runs. A run in progress still counts from its start. Results as of a post.
    STATUS_EXPORT int status_timer_reset(status_t* status, const char* name);
    /// Clears a timer and starts it from now. Results as of a post.
    STATUS_EXPORT int status_timer_restart(status_t* status, const char* name);

    /// Asks how long a timer has run. Results as of a question.
    /// @param microseconds gets the time
    STATUS_EXPORT int status_timer_elapsed(status_t* status, const char* name, int timeout_ms,
                                           uint64_t* microseconds) STATUS_CHECKED;
    /// Asks when a timer was last started. Results as of a question.
    /// @param microseconds gets the microseconds since the Unix epoch, 0 if it was never started
    STATUS_EXPORT int status_timer_started(status_t* status, const char* name, int timeout_ms,
                                           uint64_t* microseconds) STATUS_CHECKED;

    /// Asks for a counter's value. Results as of a question.
    /// @param value gets the value; a new counter has 0
    STATUS_EXPORT int status_counter_get(status_t* status, const char* name, int timeout_ms,
                                         uint32_t* value) STATUS_CHECKED;
    /// Adds one to a counter; no two calls on the device get the same value. Results as of a question. After
    /// STATUS_ETIMEOUT the broker may have counted or not.
    /// @param value gets the new value; may be null
    STATUS_EXPORT int status_counter_increment(status_t* status, const char* name, int timeout_ms,
                                               uint32_t* value) STATUS_CHECKED;
    /// Sets a counter. Results as of a post.
    STATUS_EXPORT int status_counter_set(status_t* status, const char* name, uint32_t value);

    // --------------------------------------------------------------------------------------------- the queue

    /// Returns a descriptor that is readable (POLLIN) exactly while status_next() has something to return.
    /// Only wait for it with poll(), epoll, or an event loop: do not read, write or close it. It lives until
    /// status_close(), and is closed by the exec functions. With edge-triggered epoll, call status_next()
    /// until it returns 0.
    /// @returns the descriptor; STATUS_EINVAL, STATUS_ECLOSED, STATUS_EFORKED
    STATUS_EXPORT int status_fd(status_t* status);

    /// Takes the next change, event or answer. Never waits.
    ///
    /// If the queue is full (STATUS_QUEUED_MOST, STATUS_QUEUED_BYTES) because the program takes items slower
    /// than they come, a new value of a key replaces the latest one of that key that is waiting, so values in
    /// between are lost, but never the latest value. One value of each other subscribed key still finds room.
    /// A new event is dropped and counted (status_dropped()). Answers are never lost.
    /// @param item gets the item; release it with status_free()
    /// @returns 1 if there was an item, 0 if there is none now; STATUS_EINVAL, STATUS_ECLOSED,
    /// STATUS_EFORKED;
    ///          STATUS_ENOMEM, if there is no memory for the item, which stays in the queue, or, once, if
    ///          changes were lost because there was no memory: then subscribe again to get the present values
    STATUS_EXPORT int status_next(status_t* status, status_item_t** item) STATUS_CHECKED;

    /// Returns how many events were dropped since status_open() because the queue was full.
    /// @returns the number; STATUS_EINVAL, STATUS_ECLOSED, STATUS_EFORKED
    STATUS_EXPORT int64_t status_dropped(status_t* status);

    // ------------------------------------------------------------------------------------------------ others

    /// Explains a result of these functions in English.
    /// @returns a text that lives until the process ends; never null. Works always, also in a forked child.
    STATUS_EXPORT const char* status_strerror(int result);

    /// Releases a value, values or an item that these functions returned. Null is ignored. Works always, also
    /// after status_close() and in a forked child.
    STATUS_EXPORT void status_free(const void* memory);

#ifdef __cplusplus
}
#endif

#endif
