#include "near_name.h"

#include <gtest/gtest.h>

#include <string_view>
#include <vector>

namespace {

using xfer_get::nearName;

const std::vector<std::string_view> kNames = {"overwrite", "output", "proxy", "print", "header", "head", "tries"};

TEST(NearName, isTheOneThatTakesTheFewestLetters) {
  EXPECT_EQ(nearName("overwite", kNames), "overwrite");    // one is missing
  EXPECT_EQ(nearName("overwritte", kNames), "overwrite");  // one too many
  EXPECT_EQ(nearName("otuput", kNames), "output");         // two are swapped
  EXPECT_EQ(nearName("prixy", kNames), "proxy");           // one is another
  EXPECT_EQ(nearName("heads", kNames), "head");            // "header" takes two
}

TEST(NearName, isTheOneThatBeginsSo) {
  EXPECT_EQ(nearName("over", kNames), "overwrite");
  EXPECT_EQ(nearName("out", kNames), "output");
  EXPECT_EQ(nearName("t", kNames), "tries");
}

TEST(NearName, isNoneOfSeveralOrFarOnes) {
  EXPECT_EQ(nearName("pr", kNames), "");
  EXPECT_EQ(nearName("pri", {"print", "prior"}), "");
  EXPECT_EQ(nearName("cat", {"bat", "car"}), "");  // both take one
  EXPECT_EQ(nearName("colour", kNames), "");
  EXPECT_EQ(nearName("prints-more", kNames), "");
  EXPECT_EQ(nearName("abc", {"xyz"}), "");
  EXPECT_EQ(nearName("", kNames), "");
  EXPECT_EQ(nearName(std::string(100000, 'o'), kNames), "");
}

TEST(NearName, mayTakeAThirdOfTheLetters) {
  EXPECT_EQ(nearName("trizz", kNames), "");  // two of five
  EXPECT_EQ(nearName("trizzs", kNames), "tries");
}

}  // namespace
