#include "remote_version.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace xfer;

namespace {

Validator strong(const std::string& tag, const std::string& modified = "") {
  return {tag, "", modified};
}

Validator weak(const std::string& tag, const std::string& modified = "") {
  return {"", tag, modified};
}

Validator modified(const std::string& text) {
  return {"", "", text};
}

struct Comparison {
  Validator one;
  Validator other;
  Likeness likeness;
};

TEST(Validator, saysSomethingWhenAnyFieldDoes) {
  EXPECT_FALSE(Validator{}.says());
  EXPECT_TRUE(strong("a").says());
  EXPECT_TRUE(weak("a").says());
  EXPECT_TRUE(modified("x").says());
}

TEST(Validator, isReadFromAHead) {
  ResponseHead head;
  head.strongEtag = "s";
  head.weakEtag = "w";
  head.lastModified = "m";
  EXPECT_EQ(validatorOf(head), (Validator{"s", "w", "m"}));
}

TEST(RemoteVersion, comparisonsOfValidators) {
  const std::vector<Comparison> table{
      {{}, {}, Likeness::Same},
      {{}, strong("a"), Likeness::Same},
      {{}, weak("a", "x"), Likeness::Same},
      {strong("a"), strong("a"), Likeness::Same},
      {strong("a"), strong("b"), Likeness::Other},
      {strong("a", "x"), strong("a", "y"), Likeness::Same},  // a strong tag decides
      {strong("a", "x"), strong("b", "x"), Likeness::Other},
      {weak("a"), weak("a"), Likeness::Same},
      {weak("a"), weak("b"), Likeness::Doubt},
      {weak("a", "x"), weak("a", "y"), Likeness::Doubt},
      {weak("a", "x"), weak("b", "x"), Likeness::Doubt},
      {modified("x"), modified("x"), Likeness::Same},
      {modified("x"), modified("y"), Likeness::Doubt},
      {modified("x"), weak("a"), Likeness::Same},  // nothing that both say
      {strong("a"), weak("b"), Likeness::Same},
      {strong("a", "x"), weak("b", "y"), Likeness::Doubt},
  };
  for (const auto& [one, other, likeness] : table) {
    const std::string which = one.strongEtag + "|" + one.weakEtag + "|" + one.lastModified + " and " +
                              other.strongEtag + "|" + other.weakEtag + "|" + other.lastModified;
    EXPECT_EQ(compare(one, other), likeness) << which;
    EXPECT_EQ(compare(other, one), likeness) << which << ", the other way round";
  }
}

TEST(RemoteVersion, firstAnswerIsOfTheVersion) {
  const RemoteVersion version;
  EXPECT_EQ(version.judge(strong("a")), Likeness::Same);
}

TEST(RemoteVersion, answerThatSaysNothingIsNotKept) {
  RemoteVersion version;
  version.accept({});
  version.accept(weak("a"));
  EXPECT_EQ(version.judge(weak("b")), Likeness::Doubt);
}

TEST(RemoteVersion, nearestOfTheAcceptedValidatorsCounts) {
  RemoteVersion version;
  version.accept(weak("a"));
  version.accept(weak("b"));
  EXPECT_EQ(version.judge(weak("a")), Likeness::Same);
  EXPECT_EQ(version.judge(weak("b")), Likeness::Same);
  EXPECT_EQ(version.judge(weak("c")), Likeness::Doubt);
}

TEST(RemoteVersion, otherStrongTagIsAnotherVersion) {
  RemoteVersion version;
  version.accept(strong("a"));
  EXPECT_EQ(version.judge(strong("a")), Likeness::Same);
  EXPECT_EQ(version.judge(strong("b")), Likeness::Other);
}

TEST(RemoteVersion, whatAnAcceptedValidatorDidNotSayIsFilledIn) {
  RemoteVersion version;
  version.accept(weak("a"));
  version.accept(modified("x"));
  EXPECT_EQ(version.judge(modified("y")), Likeness::Doubt);
  version.accept(strong("s"));
  EXPECT_EQ(version.judge(strong("t")), Likeness::Other);
}

TEST(RemoteVersion, weakTagIsFilledInToo) {
  RemoteVersion version;
  version.accept(modified("x"));
  version.accept(weak("a", "x"));
  EXPECT_EQ(version.judge(weak("b")), Likeness::Doubt);
}

TEST(RemoteVersion, whatAnAcceptedValidatorSaidIsNotReplaced) {
  RemoteVersion version;
  version.accept(strong("s", "x"));
  version.accept(strong("s", "y"));
  EXPECT_EQ(version.judge(modified("x")), Likeness::Same);
  EXPECT_EQ(version.judge(modified("y")), Likeness::Doubt);
}

TEST(RemoteVersion, ofManyValidatorsTheOldestIsForgotten) {
  constexpr int kMostAccepted = 8;
  RemoteVersion version;
  for (int tag = 0; tag <= kMostAccepted; ++tag) version.accept(weak(std::to_string(tag)));
  EXPECT_EQ(version.judge(weak("0")), Likeness::Doubt);
  for (int tag = 1; tag <= kMostAccepted; ++tag) EXPECT_EQ(version.judge(weak(std::to_string(tag))), Likeness::Same);
}

TEST(RemoteVersion, forgetTakesAnyVersionAgain) {
  RemoteVersion version;
  version.accept(strong("a"));
  version.forget();
  EXPECT_EQ(version.judge(strong("b")), Likeness::Same);
}

}  // namespace
