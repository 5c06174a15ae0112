#include "bench/measure.h"
#include <time.h>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace bench {
namespace {

struct Row {
    std::string name;
    std::string unit;  // of the two figures
    double floor;      // 0: there is none
    double measured;
    double ratio;  // 0: the measured figure itself is held against the target
    double target;
    bool Met() const { return target == 0 || (ratio != 0 ? ratio : measured) <= target; }
};
std::vector<Row> rows;

double Read(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

void RunCase(benchmark::State& state, const Case& measured) {
    Rounds rounds(measured);
    for ([[maybe_unused]] auto round : state) state.SetIterationTime(rounds.Run() * measured.batch / 1e9);
    const Rounds::Result result = rounds.Median();
    rows.push_back({measured.name, "ns", result.floor, result.subject, result.ratio, measured.target});
    state.counters["floor_ns"] = result.floor;
    state.counters["ns"] = result.subject;
    state.counters["ratio"] = result.ratio;
}

}  // namespace

double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

double Rounds::Batch(const Operation& operation, unsigned& n) const {
    const double start = ThreadTime();
    for (unsigned i = 0; i < case_.batch; ++i) operation(n++);
    return (ThreadTime() - start) / case_.batch;
}

double Rounds::Run() {
    double subject = subjectFirst_ ? Batch(case_.subject, subjects_) : 0;
    const double floor = Batch(case_.floor, floors_);
    if (!subjectFirst_) subject = Batch(case_.subject, subjects_);
    subjectFirst_ = !subjectFirst_;
    floorTimes_.push_back(floor);
    subjectTimes_.push_back(subject);
    ratios_.push_back(subject / floor);
    return subject;
}

Rounds::Result Rounds::Median() const {
    return {bench::Median(floorTimes_), bench::Median(subjectTimes_), bench::Median(ratios_)};
}

double ThreadTime() {
    return Read(CLOCK_THREAD_CPUTIME_ID);
}

double Now() {
    return Read(CLOCK_MONOTONIC);
}

void Register(Case measured) {
    const unsigned rounds = measured.rounds;
    const std::string name = measured.name;
    auto shared = std::make_shared<const Case>(std::move(measured));
    benchmark::RegisterBenchmark(name.c_str(), [shared](benchmark::State& state) { RunCase(state, *shared); })
        ->Iterations(rounds)
        ->UseManualTime();
}

void RegisterFigure(const std::string& name, const std::string& unit, double target,
                    std::function<double()> run) {
    benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
        double figure = 0;
        for ([[maybe_unused]] auto once : state) figure = run();
        rows.push_back({name, unit, 0, figure, 0, target});
        state.counters[unit] = figure;
    })->Iterations(1);
}

bool PrintTable() {
    bool all = true;
    std::printf("\n%-58s %11s %11s %8s %8s  %s\n", "case", "floor", "measured", "ratio", "target", "met");
    for (const Row& row : rows) {
        const bool ratio = row.ratio != 0;
        char floor[24] = "-", figure[24] = "-", target[24] = "-";
        if (ratio) std::snprintf(floor, sizeof floor, "%.0f %s", row.floor, row.unit.c_str());
        if (ratio) std::snprintf(figure, sizeof figure, "%.3f", row.ratio);
        if (row.target != 0) std::snprintf(target, sizeof target, "%.4g", row.target);
        char measured[32];
        std::snprintf(measured, sizeof measured, ratio ? "%.0f %s" : "%.3f %s", row.measured, row.unit.c_str());
        std::printf("%-58s %11s %11s %8s %8s  %s\n", row.name.c_str(), floor, measured, figure, target,
                    row.target == 0 ? "-"
                    : row.Met()     ? "yes"
                                    : "NO");
        all = all && row.Met();
    }
    return all;
}

}  // namespace bench
