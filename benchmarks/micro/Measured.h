#ifndef BENCHMARKS_MICRO_MEASURED_H
#define BENCHMARKS_MICRO_MEASURED_H

#include <benchmark/benchmark.h>

#include "benchmarks/micro/Allocations.h"

/// When its scope ends, reports the rate of a benchmark's operations and the allocations per operation.
class Measured
{
public:
    explicit Measured(benchmark::State& state, std::size_t operationsPerIteration = 1)
        : mState(state), mPerIteration(static_cast<double>(operationsPerIteration))
    {
    }

    ~Measured()
    {
        const double operations = static_cast<double>(mState.iterations()) * mPerIteration;
        const auto allocations = static_cast<double>(Allocations::count() - mBefore);
        mState.counters["allocations"] = allocations / operations;
        mState.SetItemsProcessed(static_cast<int64_t>(operations));
    }

    Measured(const Measured&) = delete;
    Measured& operator=(const Measured&) = delete;

private:
    benchmark::State& mState;
    double mPerIteration;
    uint64_t mBefore = Allocations::count();
};

#endif
