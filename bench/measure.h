// bench/: what the driver costs. Each case has a floor (the same request on a stack without the driver, or the
// moving of the data itself) and a subject. Both run in turns, a batch of one and a batch of the other, so that
// a machine that is busy with other things disturbs both alike; the result is the median of the rounds' ratios.
// Start with main.cpp.
#pragma once
#include <benchmark/benchmark.h>
#include <functional>
#include <string>
#include <vector>

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

// The rounds of a case: in each a batch of the floor and a batch of the subject.
class Rounds {
public:
    struct Result {
        double floor, subject;  // nanoseconds of processor time per operation
        double ratio;
    };
    explicit Rounds(const Case& measured) : case_(measured) {}
    // One round: nanoseconds per operation of the subject.
    double Run();
    // Medians of the rounds so far, of which there is one at least.
    Result Median() const;

private:
    double Batch(const Operation& operation, unsigned& n) const;

    const Case& case_;
    unsigned floors_ = 0, subjects_ = 0;
    bool subjectFirst_ = false;
    std::vector<double> floorTimes_, subjectTimes_, ratios_;
};

// Of one value at least.
double Median(std::vector<double> values);

// Registers the case. Its operations run when the benchmarks do, in the order of registration.
void Register(Case measured);
// Registers a case whose result is a number of its own: `run` returns it, `unit` says what it is, and it must
// not exceed `target` unless that is 0.
void RegisterFigure(const std::string& name, const std::string& unit, double target,
                    std::function<double()> run);

// Nanoseconds of processor time of this thread.
double ThreadTime();
// Nanoseconds on the clock.
double Now();
// Everything measured, as a table. True when every target was met.
bool PrintTable();

}  // namespace bench
