#include "benchmarks/micro/Samples.h"

namespace
{

std::string padded(std::size_t number, std::size_t width)
{
    const std::string digits = std::to_string(number);
    return std::string(width - digits.size(), '0') + digits;
}

} // namespace

std::string Samples::name(std::size_t index)
{
    return "Sensor" + padded(index, 5);
}

std::string Samples::value(std::size_t number)
{
    return "a value of the usual len" + padded(number, 8);
}

StatusKeys Samples::names(std::size_t count)
{
    StatusKeys names;
    for (std::size_t i = 0; i < count; ++i)
        names.push_back(name(i));
    return names;
}

StatusMap Samples::values(std::size_t count, std::size_t firstNumber)
{
    StatusMap values;
    for (std::size_t i = 0; i < count; ++i)
        values[name(i)] = value(firstNumber + i);
    return values;
}
