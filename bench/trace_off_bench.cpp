// The cost of the API trace while it is off.  Every call tests the trace bit
// once on entry and once on exit; nothing else of the trace runs.  The
// baseline is the same call frame without those tests, measured in the same
// run, and the program ends with the ratios.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "call_frame.h"

// The real call when the library core that provides it is linked in.
extern "C" void cmembs(CM_INT32 *maximum_buffer_size, CM_RETURN_CODE *return_code)
    __attribute__((weak));

namespace {

// The frame of a call with no conversation: lock, return code, unlock.
void BM_FrameUntraced(benchmark::State &state) {
  CM_RETURN_CODE rc = 0;
  CM_INT32 maximum = 0;
  for (auto _ : state) {
    CallFrame frame(kVerbCMEMBS, &rc);
    maximum = 32767;
    benchmark::DoNotOptimize(maximum);
  }
}
BENCHMARK(BM_FrameUntraced);

// The same frame with the entry and exit trace tests, tracing off.
void BM_FrameTraceOff(benchmark::State &state) {
  ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT;
  CM_RETURN_CODE rc = 0;
  CM_INT32 maximum = 0;
  for (auto _ : state) {
    CallFrame frame(kVerbCMEMBS, &rc);
    if (frame.tracing()) frame.request(nullptr, nullptr);
    maximum = 32767;
    benchmark::DoNotOptimize(maximum);
    if (frame.tracing()) frame.response(nullptr, &maximum);
  }
}
BENCHMARK(BM_FrameTraceOff);

// CMEMBS itself with tracing off, where the library core is linked.
void BM_CmembsTraceOff(benchmark::State &state) {
  if (cmembs == nullptr) {
    state.SkipWithError("cmembs not linked");
    return;
  }
  ptrc[SNANODE_TRACE_API_BYTE] &= ~SNANODE_TRACE_API_BIT;
  CM_RETURN_CODE rc = 0;
  CM_INT32 maximum = 0;
  for (auto _ : state) {
    cmembs(&maximum, &rc);
    benchmark::DoNotOptimize(maximum);
  }
}
BENCHMARK(BM_CmembsTraceOff);

// Prints the runs as usual, then each measured time against the baseline.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run> &runs) override {
    ConsoleReporter::ReportRuns(runs);
    // Single runs, or the mean when repetitions are aggregated.
    for (const Run &run : runs) {
      if (run.error_occurred) continue;
      if (!run.aggregate_name.empty() && run.aggregate_name != "mean") continue;
      times_[run.run_name.function_name] = run.GetAdjustedCPUTime();
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const auto baseline = times_.find("BM_FrameUntraced");
    if (baseline == times_.end() || baseline->second <= 0) return;
    for (const auto &[name, time] : times_) {
      std::printf("ratio (CPU time) %-20s / BM_FrameUntraced = %.3f\n", name.c_str(),
                  time / baseline->second);
    }
  }

 private:
  std::map<std::string, double> times_;
};

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
