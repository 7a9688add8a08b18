#include "util/BaseObject.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "schemas/_2009_06/base/Namespace.h"
#include "schemas/_2009_06/base/SharedClientIDs.h"
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

TEST(BaseObjectTest, TheUnrefThatBringsTheCountToZeroDeletesTheObject) {
  bool deleted = false;
  BaseObject* object = new Probe(&deleted);
  EXPECT_EQ(object->askRefCount(), 0);

  object->ref();
  object->ref();
  object->unref();
  EXPECT_EQ(object->askRefCount(), 1);
  EXPECT_FALSE(deleted);

  object->unref();
  EXPECT_TRUE(deleted);
}

TEST(BaseObjectTest, ACountBelowZeroDeletesNothing) {
  bool deleted = false;
  Probe* object = new Probe(&deleted);
  object->unref();
  EXPECT_EQ(object->askRefCount(), -1);
  object->ref();
  EXPECT_EQ(object->askRefCount(), 0);
  EXPECT_FALSE(deleted);
  delete object;
}

TEST(BaseObjectTest, CloneStartsAtZeroWhileCopiesCarryTheCount) {
  SharedClientIDs source;
  source.addSharedClientID("a");
  source.ref();
  source.ref();
  source.ref();

  BaseObject* clone = source.clone();
  BaseObject* reallyClone = source.reallyClone();
  SharedClientIDs copy(source);
  SharedClientIDs assigned;
  assigned = source;
  const SharedClientIDs& self = assigned;
  assigned = self;

  EXPECT_EQ(clone->askRefCount(), 0);
  EXPECT_EQ(source.askRefCount(), 3);
  EXPECT_EQ(reallyClone->askRefCount(), 3);
  EXPECT_EQ(copy.askRefCount(), 3);
  EXPECT_EQ(assigned.askRefCount(), 3);
  auto* typed = dynamic_cast<SharedClientIDs*>(clone);
  ASSERT_NE(typed, nullptr);
  std::vector<std::string> entries;
  typed->getSharedClients(entries);
  assigned.getSharedClients(entries);
  EXPECT_EQ(entries, (std::vector<std::string>{"a", "a"}));

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
