// Behaviours that the fuzz targets (fuzz/) found broken, kept as tests; the inputs that found
// them are in fuzz/corpus/.
#include <gtest/gtest.h>

#include <string>

#include "util/Utf8.h"

using namespace Kestrane::Net::KsModelEventManager;

namespace {

std::string toUtf8(const std::string& text) {
  return Util::toUtf8(text.data(), static_cast<int32_t>(text.size()));
}

std::string fromUtf8(const std::string& text) {
  return Util::fromUtf8(text.data(), static_cast<int32_t>(text.size()));
}

TEST(FuzzRegressionTest, CharacterSplitAcrossTwoConversionPassesComesOutWhole) {
  // A pass ends after 20480 UTF-16 units: with 20479 units in front, the two units of U+1F600
  // fall into two passes.
  const std::string text = std::string(20479, 'a') + "\xF0\x9F\x98\x80" + "b";

  EXPECT_EQ(text, toUtf8(text));
  EXPECT_EQ(text, fromUtf8(text));
}

}  // namespace
