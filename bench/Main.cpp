// The benchmark suite's entry. It runs the benchmarks like any Google
// Benchmark binary (the --benchmark_* flags apply, --benchmark_out writes the
// full results; only --benchmark_format is ignored, since the console always
// gets this table), but the console table comes at the end, in the order the
// benchmarks are declared, with only the median of each when there are
// repetitions (which may run in random order). It ends with the ratios that
// matter: each refresh against its floor, start-up against its floor, the
// rule service's refresh with nothing changed against the same refresh into a
// context that only counts, the rule service's refresh when every VRF changed
// against one when none did, and the disabled trace against no trace.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace {

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  using ConsoleReporter::ConsoleReporter;

  void ReportRuns(const std::vector<Run>& reports) override {
    for (const Run& run : reports) {
      if (run.repetitions > 1 &&
          (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median")) {
        continue;
      }
      std::cerr << "  " << run.benchmark_name() << '\n';
      runs_.push_back(run);
    }
  }

  void Finalize() override {
    std::stable_sort(runs_.begin(), runs_.end(), [](const Run& a, const Run& b) {
      return std::tie(a.family_index, a.per_family_instance_index) <
             std::tie(b.family_index, b.per_family_instance_index);
    });
    if (!runs_.empty()) ConsoleReporter::ReportRuns(runs_);
    for (const Run& run : runs_) {
      if (run.error_occurred) continue;
      const std::string name = nameOf(run);
      order_.push_back(name);
      cpuNs_[name] =
          run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
    }
    GetOutputStream().flush();

    printPairs("Refresh against its floor (CPU time per refresh)", "BM_Refresh/",
               "BM_RefreshFloor/", "refresh us", "floor us");
    printPairs("Start-up against its floor (CPU time per start-up)", "BM_StartUp/",
               "BM_StartUpFloor/", "start-up us", "floor us");
    printPairs(
        "Rule service, nothing changed, against a context that only counts (CPU time per refresh)",
        "BM_RuleServiceRefresh/Unchanged/", "BM_RuleServiceRefresh/Counting/", "service us",
        "counting us");
    printPairs("Rule service: every VRF changed against nothing changed (CPU time per refresh)",
               "BM_RuleServiceRefresh/Changed/", "BM_RuleServiceRefresh/Unchanged/", "changed us",
               "unchanged us");
    const auto traced = cpuNs_.find("BM_HandleLinkChange_TraceOff");
    const auto untraced = cpuNs_.find("BM_HandleLinkChange_NoTrace");
    if (traced != cpuNs_.end() && untraced != cpuNs_.end()) {
      std::printf("\nhandleLinkChange() with level 8 off, against no trace (CPU time per call)\n");
      std::printf("%14s %14s %8s\n%14.2f %14.2f %8.2f\n", "traced ns", "untraced ns", "ratio",
                  traced->second, untraced->second, traced->second / untraced->second);
    }
    std::fflush(stdout);
  }

 private:
  static std::string nameOf(const Run& run) {
    return run.run_name.args.empty() ? run.run_name.function_name
                                     : run.run_name.function_name + "/" + run.run_name.args;
  }

  // One line per size that both `first` and `second` were run with.
  void printPairs(const char* title, const std::string& first, const std::string& second,
                  const char* firstLabel, const char* secondLabel) const {
    bool header = false;
    for (const std::string& name : order_) {
      if (name.rfind(first, 0) != 0) continue;
      const std::string args = name.substr(first.size());
      const auto other = cpuNs_.find(second + args);
      if (other == cpuNs_.end()) continue;
      if (!header) {
        std::printf("\n%s\n%-16s %14s %14s %8s\n", title, "size", firstLabel, secondLabel, "ratio");
        header = true;
      }
      const double ns = cpuNs_.at(name);
      std::printf("%-16s %14.2f %14.2f %8.2f\n", args.c_str(), ns / 1e3, other->second / 1e3,
                  ns / other->second);
    }
  }

  std::vector<Run> runs_;
  // Median (or only) CPU time per iteration of each benchmark, in ns, and
  // the benchmarks in declaration order.
  std::map<std::string, double> cpuNs_;
  std::vector<std::string> order_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const auto options = isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                             : benchmark::ConsoleReporter::OO_Tabular;
  SummaryReporter reporter(options);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
