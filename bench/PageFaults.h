// Counts the minor page faults that a benchmark's iterations cause, so that its report shows
// whether they wrote to fresh memory (about one fault per 4 KiB page) or to memory that the
// allocator handed out again warm. First touches are costly on virtual machines, so a ratio
// means little unless subject and reference stand alike here.
#ifndef KSMEM_BENCH_PAGEFAULTS_H_
#define KSMEM_BENCH_PAGEFAULTS_H_

#include <benchmark/benchmark.h>
#include <sys/resource.h>

class PageFaultCounter {
 public:
  PageFaultCounter() : start(minorFaults()) {}

  // Sets the counter "page_faults" to the faults per iteration since construction.
  void report(benchmark::State& state) const {
    state.counters["page_faults"] = benchmark::Counter(static_cast<double>(minorFaults() - start),
                                                       benchmark::Counter::kAvgIterations);
  }

 private:
  static long minorFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
  }

  long start;
};

#endif  // KSMEM_BENCH_PAGEFAULTS_H_
