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

double Median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

// One kind of operation of a case.
class Side {
public:
    explicit Side(const Operation& operation) : operation_(operation) {}
    // Nanoseconds per operation of one batch.
    double Run(unsigned batch) {
        const double start = ThreadTime();
        for (unsigned i = 0; i < batch; ++i) operation_(n_++);
        times_.push_back((ThreadTime() - start) / batch);
        return times_.back();
    }
    double Median() const { return bench::Median(times_); }

private:
    const Operation& operation_;
    unsigned n_ = 0;
    std::vector<double> times_;
};

void RunCase(benchmark::State& state, const Case& measured) {
    Side floor(measured.floor);
    Side subject(measured.subject);
    std::vector<double> ratios;
    bool subjectFirst = false;
    for ([[maybe_unused]] auto round : state) {
        double subjectTime = subjectFirst ? subject.Run(measured.batch) : 0;
        const double floorTime = floor.Run(measured.batch);
        if (!subjectFirst) subjectTime = subject.Run(measured.batch);
        subjectFirst = !subjectFirst;
        ratios.push_back(subjectTime / floorTime);
        state.SetIterationTime(subjectTime * measured.batch / 1e9);
    }
    rows.push_back({measured.name, "ns", floor.Median(), subject.Median(), Median(ratios), measured.target});
    state.counters["floor_ns"] = rows.back().floor;
    state.counters["ns"] = rows.back().measured;
    state.counters["ratio"] = rows.back().ratio;
}

}  // namespace

double ThreadTime() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
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
