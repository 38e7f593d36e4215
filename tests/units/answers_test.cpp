// What response heads say, what becomes of their bodies, and when a piece of them may pass.
#include <gtest/gtest.h>

#include "range_answer.h"
#include "response_head.h"
#include "token_bucket.h"

using namespace xfer;

namespace {

ResponseHead head(std::initializer_list<const char*> lines) {
  ResponseHeadReader reader;
  for (const char* line : lines) reader.add(std::string(line) + "\r\n");
  return reader.head();
}

TEST(ResponseHead, lastStatusLineCounts) {
  EXPECT_EQ(head({"HTTP/1.1 301 Moved", "ETag: \"a\"", "", "HTTP/1.1 206 Partial Content"}).status, 206);
  EXPECT_EQ(head({"HTTP/1.1 301 Moved", "ETag: \"a\"", "", "HTTP/1.1 206 Partial Content"}).strongEtag, "");
  EXPECT_EQ(head({"HTTP/2 200"}).status, 200);
}

TEST(ResponseHead, statusLineWithoutASpaceLeavesTheStatus) {
  EXPECT_EQ(head({"HTTP/1.1 404 Not Found", "HTTP/1.1"}).status, 404);
}

TEST(ResponseHead, onlyStrongEntityTagsAreKept) {
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "etag:  \"x\""}).strongEtag, "\"x\"");
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "ETag: W/\"x\""}).strongEtag, "");
}

TEST(ContentRange, isReadOnlyInItsOwnForm) {
  EXPECT_EQ(parseContentRange("bytes 5-9/100")->first, 5U);
  EXPECT_EQ(parseContentRange("bytes 5-9/100")->total, 100U);
  EXPECT_EQ(parseContentRange("BYTES 5-9/*")->total, std::nullopt);
  for (const char* bad : {"", "bytes", "bytes */100", "bytes 5/100", "bytes -5-9/100", "bytes 5-9", "bytes 5-9/",
                          "items 5-9/100", "bytes 99999999999999999999-9/100", "bytes 5-9/100 x"}) {
    EXPECT_FALSE(parseContentRange(bad)) << bad;
  }
}

RangeAnswer::Kind judged(const ResponseHead& answer, RemoteIdentity identity = {}) {
  return judgeAnswer(answer, 10, 20, identity).kind;
}

TEST(RangeAnswer, rangeThatWasAskedForIsTaken) {
  EXPECT_EQ(judged(head({"HTTP/1.1 206 x", "Content-Range: bytes 10-19/100"})), RangeAnswer::Kind::Range);
}

TEST(RangeAnswer, withoutAReadableContentRangeIsTakenAsAsked) {
  EXPECT_EQ(judged(head({"HTTP/1.1 206 x"})), RangeAnswer::Kind::Range);
  EXPECT_EQ(judged(head({"HTTP/1.1 206 x", "Content-Range: nonsense"})), RangeAnswer::Kind::Range);
}

TEST(RangeAnswer, thatStartsElsewhereOrIsMultipartIsMisplaced) {
  EXPECT_EQ(judged(head({"HTTP/1.1 206 x", "Content-Range: bytes 11-19/100"})), RangeAnswer::Kind::Misplaced);
  EXPECT_EQ(judged(head({"HTTP/1.1 206 x", "Content-Type: Multipart/Byteranges; boundary=x"})),
            RangeAnswer::Kind::Misplaced);
}

TEST(RangeAnswer, withAnotherTotalOrEntityTagMeansAChangedFile) {
  EXPECT_EQ(judged(head({"HTTP/1.1 206 x", "Content-Range: bytes 10-19/100"}), {101, ""}),
            RangeAnswer::Kind::FileChanged);
  EXPECT_EQ(judged(head({"HTTP/1.1 206 x", "ETag: \"b\""}), {std::nullopt, "\"a\""}), RangeAnswer::Kind::FileChanged);
  EXPECT_EQ(judged(head({"HTTP/1.1 206 x", "ETag: W/\"b\""}), {std::nullopt, "\"a\""}), RangeAnswer::Kind::Range);
}

TEST(RangeAnswer, identityIsLearntFromUsableAnswersOnly) {
  RemoteIdentity identity;
  judgeAnswer(head({"HTTP/1.1 206 x", "Content-Range: bytes 0-9/77", "ETag: \"m\""}), 10, 20, identity);
  EXPECT_FALSE(identity.total);
  judgeAnswer(head({"HTTP/1.1 206 x", "Content-Range: bytes 10-19/77", "ETag: \"m\""}), 10, 20, identity);
  EXPECT_EQ(identity.total, 77U);
  EXPECT_EQ(identity.strongEtag, "\"m\"");
}

TEST(RangeAnswer, of200IsTheWholeFileAndOthersAreNoContent) {
  EXPECT_EQ(judged(head({"HTTP/1.1 200 OK"})), RangeAnswer::Kind::WholeFile);
  EXPECT_EQ(judged(head({"HTTP/1.1 304 Not Modified"})), RangeAnswer::Kind::NoContent);
  RemoteIdentity identity;
  EXPECT_EQ(judgeAnswer(head({"HTTP/1.1 200 OK"}), 0, 0, identity).kind, RangeAnswer::Kind::Range);
}

constexpr std::uint64_t kSecond = 1'000'000'000;

TEST(TokenBucket, withoutARateLetsEverythingPass) {
  TokenBucket bucket;
  EXPECT_TRUE(bucket.take(1 << 30, 1));
}

TEST(TokenBucket, neverLetsMoreThroughThanTheRateAndOneBurst) {
  TokenBucket bucket;
  std::uint64_t now = 1;
  bucket.setRate(1000, now);
  std::uint64_t passed = 0;
  for (int turn = 0; turn < 1000; ++turn, now += kSecond / 100) {
    while (bucket.take(50, now)) passed += 50;
  }
  EXPECT_LE(passed, 10'000U + 100U);
  EXPECT_GE(passed, 9'900U);
}

TEST(TokenBucket, pieceLargerThanATenthOfASecondPassesInTheEnd) {
  TokenBucket bucket;
  bucket.setRate(100, 1);
  EXPECT_FALSE(bucket.take(1000, 1));
  EXPECT_FALSE(bucket.wouldTake(1000, 9 * kSecond));
  EXPECT_TRUE(bucket.take(1000, 11 * kSecond));
  EXPECT_FALSE(bucket.take(1000, 11 * kSecond));
}

TEST(TokenBucket, lullEarnsNoMoreThanATenthOfASecond) {
  TokenBucket bucket;
  bucket.setRate(1000, 1);
  std::uint64_t passed = 0;
  while (bucket.take(10, 60 * kSecond)) passed += 10;
  EXPECT_EQ(passed, 100U);
}

}  // namespace
