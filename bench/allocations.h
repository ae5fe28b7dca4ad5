// How often memory was allocated with new since the program began. The C library's own malloc, as
// in asprintf, is not counted.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>

std::size_t allocations();

// Counts the allocations from its construction to its end and reports them for each iteration, as
// the column "new": in every benchmark, since the columns are those of the first that reports.
class AllocationCounter {
public:
    explicit AllocationCounter(benchmark::State& state) : _state(state), _before(allocations()) {}
    ~AllocationCounter()
    {
        _state.counters["new"] = benchmark::Counter(static_cast<double>(allocations() - _before),
                                                    benchmark::Counter::kAvgIterations);
    }
    AllocationCounter(const AllocationCounter&) = delete;
    AllocationCounter& operator=(const AllocationCounter&) = delete;

private:
    benchmark::State& _state;
    std::size_t _before;
};
