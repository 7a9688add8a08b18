// escapeXML of 1 MiB of text with 0 %, 5 % and 50 % special bytes, beside a plain copy of the
// same text, in the same run. Both make a new string in every iteration, so both get their
// memory from the allocator alike (the page_faults counter shows whether it came back warm).
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <string_view>

#include "bench/PageFaults.h"
#include "util/XmlEscape.h"

using Kestrane::Net::KsModelEventManager::Util::escapeXML;

namespace {

constexpr size_t kTextSize = 1 << 20;

// Letters, digits and blanks, with `percent` of the bytes, at random places, drawn from the
// eight that escapeXML replaces. Always the same text for the same percentage.
std::string textWithSpecialBytes(int percent) {
  const std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 ";
  const std::string_view special = "\t\n\"%&'<>";
  std::mt19937 random(20090601);
  std::uniform_int_distribution<int> hundred(0, 99);
  std::string text(kTextSize, ' ');
  for (char& byte : text) {
    byte = hundred(random) < percent ? special[random() % special.size()]
                                     : plain[random() % plain.size()];
  }
  return text;
}

void escapeByLibrary(benchmark::State& state, int percent) {
  const std::string text = textWithSpecialBytes(percent);
  const PageFaultCounter faults;
  for (auto _ : state) {
    const std::string escaped = escapeXML(text);
    benchmark::DoNotOptimize(escaped.data());
  }
  faults.report(state);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

void escapeByCopy(benchmark::State& state, int percent) {
  const std::string text = textWithSpecialBytes(percent);
  const PageFaultCounter faults;
  for (auto _ : state) {
    const std::string copy(text);
    benchmark::DoNotOptimize(copy.data());
  }
  faults.report(state);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

const bool registered = [] {
  for (const int percent : {0, 5, 50}) {
    const std::string row = "escape_1MiB_" + std::to_string(percent) + "pct/";
    benchmark::RegisterBenchmark((row + "ksmem").c_str(), escapeByLibrary, percent);
    benchmark::RegisterBenchmark((row + "copy").c_str(), escapeByCopy, percent);
  }
  return true;
}();

}  // namespace
