// bench/: what the driver costs. Each case has a floor (the same request on a stack without the driver, or the
// moving of the data itself) and a subject. Both run in turns, a batch of one and a batch of the other, so that
// a machine that is busy with other things disturbs both alike; the result is the median of the rounds' ratios.
// Start with main.cpp.
#pragma once
#include <benchmark/benchmark.h>
#include <functional>
#include <string>

namespace bench {

// One operation of a case; `n` counts the operations of its kind.
using Operation = std::function<void(unsigned n)>;

struct Case {
    std::string name;
    double target;  // the ratio that the case must not exceed; 0: only reported
    Operation floor;
    Operation subject;
    unsigned batch = 256;   // operations of one kind in a row
    unsigned rounds = 200;  // batches of each kind
};

// Registers the case. Its operations run when the benchmarks do, in the order of registration.
void Register(Case measured);
// Registers a case whose result is a number of its own: `run` returns it, `unit` says what it is, and it must
// not exceed `target` unless that is 0.
void RegisterFigure(const std::string& name, const std::string& unit, double target,
                    std::function<double()> run);

// Nanoseconds of processor time of this thread.
double ThreadTime();
// Everything measured, as a table. True when every target was met.
bool PrintTable();

}  // namespace bench
