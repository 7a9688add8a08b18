// XercesFixture: base of test suites that parse, which need the XML library initialised for the
// suite's lifetime (the connection does this in the library itself). Initialise and terminate
// are counted by the library, so suites of other files may do the same.
#ifndef KSMEM_TESTS_XERCESFIXTURE_H_
#define KSMEM_TESTS_XERCESFIXTURE_H_

#include <gtest/gtest.h>

#include <xercesc/util/PlatformUtils.hpp>

class XercesFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { xercesc::XMLPlatformUtils::Initialize(); }
  static void TearDownTestSuite() { xercesc::XMLPlatformUtils::Terminate(); }
};

#endif  // KSMEM_TESTS_XERCESFIXTURE_H_
