// Runs every case and prints the table. Options are the benchmark library's, --benchmark_filter=REGEX among
// them.
#include <cstdio>
#include "bench/cases.h"
#include "bench/measure.h"
#include "platform/host/rtl/debug_sink.h"

int main(int count, char** arguments) {
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments)) return 2;
    host::SetDebugCapture(false);
    bench::Layout layout{64, 64, 0, 1024 * bench::kMiB};
    layout.scattered = 1'000'000 - layout.Chunks();
    std::fprintf(stderr, "making a volume with %u swapped chunks\n", layout.Chunks());
    bench::Computer computer(layout);
    computer.SwapChunks(true);
    computer.Restart();
    // In this order: loading the map anew, unlike a boot, scatters its records over memory that was used
    // before.
    bench::RegisterRequestCases(computer);
    bench::RegisterMapCases(computer);
    bench::RegisterFirstWriteCases(computer);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return bench::PrintTable() ? 0 : 1;
}
