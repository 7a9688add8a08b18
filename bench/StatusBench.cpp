// A getStatus round trip through KsMEMConnection against the embedded service of the stand-in
// transport, beside the fixed costs it is made of, in the same run:
//   icu_converters  opening and closing the pair of ICU converters that converting the header
//                   block to UTF-8 opens in every request
//   xerces_reader   creating and deleting one Xerces-C SAX2 reader, which every operation with
//                   an XML reply does once (getStatus has no XML reply, so it does not)
#include <benchmark/benchmark.h>
#include <unicode/ucnv.h>

#include <cstdlib>
#include <memory>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include "client/KsMEMConnection.h"

using Kestrane::Net::KsModelEventManager::Client::KsMEMConnection;

namespace {

void statusByLibrary(benchmark::State& state) {
  // The transport reads the variable at its first start in this process, which is this one:
  // the other benchmarks of this program talk to a service only in child processes.
  setenv("KSMEM_SERVICE", "embedded", 1);
  KsMEMConnection connection;
  if (connection.getStatus() != 0) {
    state.SkipWithError("the embedded service did not echo the status check");
    return;
  }
  for (auto _ : state) {
    if (connection.getStatus() != 0) {
      state.SkipWithError("the embedded service did not echo the status check");
      break;
    }
  }
}

void openIcuConverters(benchmark::State& state) {
  for (auto _ : state) {
    UErrorCode status = U_ZERO_ERROR;
    UConverter* native = ucnv_open(nullptr, &status);
    UConverter* utf8 = ucnv_open("UTF-8", &status);
    benchmark::DoNotOptimize(utf8);
    ucnv_close(utf8);
    ucnv_close(native);
    if (U_FAILURE(status)) {
      state.SkipWithError(u_errorName(status));
      break;
    }
  }
}

void createXercesReader(benchmark::State& state) {
  xercesc::XMLPlatformUtils::Initialize();
  for (auto _ : state) {
    std::unique_ptr<xercesc::SAX2XMLReader> reader(xercesc::XMLReaderFactory::createXMLReader());
    benchmark::DoNotOptimize(reader.get());
  }
  xercesc::XMLPlatformUtils::Terminate();
}

const bool registered = [] {
  benchmark::RegisterBenchmark("getStatus/ksmem", statusByLibrary);
  benchmark::RegisterBenchmark("getStatus/icu_converters", openIcuConverters);
  benchmark::RegisterBenchmark("getStatus/xerces_reader", createXercesReader);
  return true;
}();

}  // namespace
