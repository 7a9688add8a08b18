#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "schemas/_2009_06/base/Namespace.h"
#include "schemas/_2009_06/base/SharedClientIDs.h"
#include "util/BaseObject.h"
#include "util/XmlStream.h"

namespace Kestrane::Net::KsModelEventManager::Util {
namespace {

using Schemas::KsModelEventManager::_2009_06::Base::kBaseNamespaceURI;
using Schemas::KsModelEventManager::_2009_06::Base::SharedClientIDs;

// A concrete schema object that reports its own end and its getNamespaces calls, and opens
// outputXMLBase to the tests.
class Probe : public SharedClientIDs {
 public:
  explicit Probe(bool* deleted = nullptr) : deleted(deleted) {}
  ~Probe() override {
    if (deleted != nullptr) *deleted = true;
  }
  Probe* reallyClone() override { return new Probe(*this); }
  void getNamespaces(std::set<std::string>& namespaces) const override {
    ++namespaceCalls;
    SharedClientIDs::getNamespaces(namespaces);
  }
  using BaseObject::outputXMLBase;

  bool* deleted;
  mutable int namespaceCalls = 0;
};

// The count, then the entries.
std::string state(const BaseObject* object) {
  std::vector<std::string> entries;
  dynamic_cast<const SharedClientIDs&>(*object).getSharedClients(entries);
  std::string text = std::to_string(object->askRefCount());
  for (const std::string& entry : entries) text += " " + entry;
  return text;
}

TEST(BaseObjectTest, OnlyTheUnrefThatBringsTheCountToZeroDeletesTheObject) {
  bool deleted = false;
  BaseObject* object = new Probe(&deleted);
  std::vector<int> counts = {object->askRefCount()};
  for (void (BaseObject::*step)() : {&BaseObject::unref, &BaseObject::ref, &BaseObject::ref,
                                     &BaseObject::ref, &BaseObject::unref}) {
    (object->*step)();
    ASSERT_FALSE(deleted) << "deleted after the count was " << counts.back();
    counts.push_back(object->askRefCount());
  }
  EXPECT_EQ(counts, (std::vector<int>{0, -1, 0, 1, 2, 1}));

  object->unref();
  EXPECT_TRUE(deleted);
}

TEST(BaseObjectTest, CloneStartsAtZeroWhileCopiesAndMovesCarryTheCount) {
  SharedClientIDs source, assigned, target;
  source.addSharedClientID("a");
  for (int i = 0; i < 3; ++i) source.ref();
  target.addSharedClientID("old");

  BaseObject* clone = source.clone();
  BaseObject* reallyClone = source.reallyClone();
  SharedClientIDs copy(source);
  assigned = source;
  assigned = static_cast<const SharedClientIDs&>(assigned);
  SharedClientIDs moved(std::move(copy));
  target = std::move(moved);
  target = std::move(static_cast<SharedClientIDs&>(target));

  EXPECT_EQ(state(clone), "0 a");
  EXPECT_EQ(state(reallyClone), "3 a");
  EXPECT_EQ(state(&source), "3 a");
  EXPECT_EQ(state(&assigned), "3 a");
  EXPECT_EQ(state(&copy), "3");  // moved from: the count stays, the list goes
  EXPECT_EQ(state(&moved), "3");
  EXPECT_EQ(state(&target), "3 a");
  clone->ref();
  clone->unref();
  delete static_cast<SharedClientIDs*>(reallyClone);
}

TEST(BaseObjectTest, OnlyTheFirstElementOfAStreamAsksForAndDeclaresNamespaces) {
  Probe object;
  XmlStream xml;
  EXPECT_TRUE(object.outputXMLBase(xml, "a", "test"));
  EXPECT_FALSE(object.outputXMLBase(xml, "b", "test"));
  EXPECT_EQ(object.namespaceCalls, 1);
  EXPECT_EQ(xml.str(), std::string("\n<ns0:a xmlns:ns0=\"") + kBaseNamespaceURI + "\"\n<ns0:b");
}

}  // namespace
}  // namespace Kestrane::Net::KsModelEventManager::Util
