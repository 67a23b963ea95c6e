#ifndef BENCHMARKS_MICRO_SAMPLES_H
#define BENCHMARKS_MICRO_SAMPLES_H

#include <cstddef>
#include <string>

#include "statusmanager/StatusTypes.h"

/// Names and values of usual lengths.
namespace Samples
{

std::string name(std::size_t index);

/// 32 bytes, different for each number.
std::string value(std::size_t number);

StatusKeys names(std::size_t count);

/// The first `count` names; their values have consecutive numbers from `firstNumber`.
StatusMap values(std::size_t count, std::size_t firstNumber = 0);

} // namespace Samples

#endif
