// Reading the client identifiers of a reply (SAXToNodeParser::parseString, then
// SharedClientIDs::parse) beside two references on the same text, in the same run:
//   xerces_sax2_empty  a Xerces-C SAX2 reader with a handler that does nothing: what the XML
//                      library costs before anything is built
//   pugixml            pugixml loading the text and collecting the identifiers: what a user
//                      might pick instead
// Each iteration reads one reply from scratch, as each operation of a connection does: the
// library and the Xerces reference create their reader, pugixml its document. The library's
// tree (some 270 bytes a client) is built in warm memory, as the references' memory is, and
// again in fresh pages for the larger replies (ksmem_fresh_tree: the freed memory goes back to
// the system between iterations, as the allocator does by default once a tree is large).
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <pugixml.hpp>
#include <string>
#include <vector>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/sax2/SAX2XMLReader.hpp>
#include <xercesc/sax2/XMLReaderFactory.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include "bench/PageFaults.h"
#include "schemas/_2009_06/base/Namespace.h"
#include "schemas/_2009_06/base/SharedClientIDs.h"
#include "util/SAXToNodeParser.h"

using Kestrane::Net::KsModelEventManager::Util::SAXToNodeParser;
using Kestrane::Schemas::KsModelEventManager::_2009_06::Base::kBaseNamespaceURI;
using Kestrane::Schemas::KsModelEventManager::_2009_06::Base::SharedClientIDs;

namespace {

// The reply document that the service sends for `count` clients.
std::string sharedClientsReply(int count) {
  std::string reply = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><SharedClientIDs xmlns=\"";
  reply += kBaseNamespaceURI;
  reply += "\">";
  for (int i = 0; i < count; ++i) {
    reply += "<sharedClients>client-" + std::to_string(i) + "</sharedClients>";
  }
  reply += "</SharedClientIDs>";
  return reply;
}

// Holds the XML library started for one benchmark.
struct XmlLibrary {
  XmlLibrary() { xercesc::XMLPlatformUtils::Initialize(); }
  ~XmlLibrary() { xercesc::XMLPlatformUtils::Terminate(); }
};

// Times `readOnce` per iteration after one untimed call, so that the memory it uses is warm;
// with `freshMemory`, the memory freed goes back to the system before every call instead.
template <typename Read>
void measureReads(benchmark::State& state, size_t replySize, bool freshMemory, Read readOnce) {
  if (freshMemory) {
    malloc_trim(0);
  } else {
    readOnce();
  }
  const PageFaultCounter faults;
  for (auto _ : state) {
    readOnce();
    if (freshMemory) {
      state.PauseTiming();
      malloc_trim(0);
      state.ResumeTiming();
    }
  }
  faults.report(state);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * replySize));
}

void parseByLibrary(benchmark::State& state, int count, bool freshTree) {
  const XmlLibrary xml;
  const std::string reply = sharedClientsReply(count);
  measureReads(state, reply.size(), freshTree, [&reply] {
    SAXToNodeParser parser;
    SharedClientIDs clients;
    clients.parse(*parser.parseString(reply));
    benchmark::DoNotOptimize(clients);
  });
  SAXToNodeParser parser;
  SharedClientIDs clients;
  clients.parse(*parser.parseString(reply));
  std::vector<std::string> identifiers;
  clients.getSharedClients(identifiers);
  if (identifiers.size() != static_cast<size_t>(count)) {
    state.SkipWithError("the library read a different number of clients");
  }
}

void parseByEmptyHandler(benchmark::State& state, int count) {
  const XmlLibrary xml;
  const std::string reply = sharedClientsReply(count);
  xercesc::DefaultHandler handler;
  measureReads(state, reply.size(), false, [&reply, &handler] {
    std::unique_ptr<xercesc::SAX2XMLReader> reader(xercesc::XMLReaderFactory::createXMLReader());
    reader->setContentHandler(&handler);
    reader->setErrorHandler(&handler);
    xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(reply.data()), reply.size(),
                                      "bench", false);
    reader->parse(source);
  });
}

void parseByPugixml(benchmark::State& state, int count) {
  const std::string reply = sharedClientsReply(count);
  size_t read = 0;
  measureReads(state, reply.size(), false, [&reply, &read] {
    pugi::xml_document document;
    document.load_buffer(reply.data(), reply.size());
    std::vector<std::string> identifiers;
    for (const pugi::xml_node client : document.document_element().children("sharedClients")) {
      identifiers.emplace_back(client.child_value());
    }
    read = identifiers.size();
    benchmark::DoNotOptimize(identifiers.data());
  });
  if (read != static_cast<size_t>(count)) {
    state.SkipWithError("pugixml read a different number of clients");
  }
}

const bool registered = [] {
  for (const int count : {10, 1000, 100000}) {
    const std::string row = "parse_" + std::to_string(count) + "_clients/";
    benchmark::RegisterBenchmark((row + "ksmem").c_str(), parseByLibrary, count, false);
    if (count >= 1000) {
      benchmark::RegisterBenchmark((row + "ksmem_fresh_tree").c_str(), parseByLibrary, count, true);
    }
    benchmark::RegisterBenchmark((row + "xerces_sax2_empty").c_str(), parseByEmptyHandler, count);
    benchmark::RegisterBenchmark((row + "pugixml").c_str(), parseByPugixml, count);
  }
  return true;
}();

}  // namespace
