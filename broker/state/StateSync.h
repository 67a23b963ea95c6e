#ifndef BROKER_STATE_STATESYNC_H
#define BROKER_STATE_STATESYNC_H

/// When changes of the state file reach the storage: SQLite's "synchronous".
enum class StateSync
{
    Off,
    Normal,
    Full,
};

#endif
