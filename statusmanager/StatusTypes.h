#ifndef STATUSMANAGER_STATUSTYPES_H
#define STATUSMANAGER_STATUSTYPES_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>

/// @file
/// The types of the status manager's arguments and results.

/// Status values by key, in byte-wise order of the keys.
using StatusMap = std::map<std::string, std::string>;

/// An ordered list of status keys; duplicates are kept.
using StatusKeys = std::deque<std::string>;

/// An ordered list of event names.
using EventKeys = StatusKeys;

/// A named counter: its name and its value.
using Counter = std::pair<std::string, uint32_t>;

#endif
