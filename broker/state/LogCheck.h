#ifndef BROKER_STATE_LOGCHECK_H
#define BROKER_STATE_LOGCHECK_H

#include <string>

/// Finds out what became of the log (WAL) beside a database.
///
/// SQLite takes from a log what lies before the first page that does not fit its checksum, and overwrites the
/// rest without a word. That is right after a power cut or a kill, which leave the last transaction torn. It
/// would also drop everything that lies behind a damaged page.
struct LogCheck
{
    std::string damage; ///< what no power cut and no kill does; empty: nothing

    /// Whether the last transaction is there in full length and does not fit its checksum. A power cut may do
    /// that. Within one boot nothing does but damage: the kernel shows what was written in its order.
    bool hasBadEnd = false;

    /// Whether there is something, but no whole transaction.
    bool isBlank = false;
};

/// Reads the log, and changes nothing. No log at all is a good one.
LogCheck checkLog(const std::string& path);

#endif
