#ifndef BROKER_STATE_LOGCHECK_H
#define BROKER_STATE_LOGCHECK_H

#include <string>

/// Finds out what happened to the log (WAL) beside a database.
///
/// SQLite applies a log up to the first page with a wrong checksum, and silently overwrites the rest. That is
/// right after a power cut or a kill, which leave the last transaction torn. But it also drops everything
/// behind a damaged page.
struct LogCheck
{
    std::string damage; ///< damage that no power cut and no kill causes; empty: none

    /// Whether the last transaction has its full length, but a wrong checksum. A power cut may cause that.
    /// Within one boot only damage does: the kernel keeps writes in order.
    bool hasBadEnd = false;

    /// Whether the log is not empty, but has no complete transaction.
    bool isBlank = false;
};

/// Reads the log without changing it. A missing log is valid.
LogCheck checkLog(const std::string& path);

#endif
