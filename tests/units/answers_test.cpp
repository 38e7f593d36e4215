// What response heads say, what becomes of their bodies, and when a piece of them may pass.
#include <gtest/gtest.h>

#include <utility>

#include "body_placement.h"
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

TEST(ResponseHead, tellsTheEncodingOfTheBodyUnlessItIsIdentity) {
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "CONTENT-ENCODING: gzip, br "}).contentEncoding, "gzip, br");
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "Content-Encoding: IDENTITY"}).contentEncoding, "");
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "Content-Encodings: gzip"}).contentEncoding, "");
}

TEST(ResponseHead, onlyStrongEntityTagsAreKept) {
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "etag:  \"x\""}).strongEtag, "\"x\"");
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "ETag: W/\"x\""}).strongEtag, "");
}

TEST(ResponseHead, entityTagsReplaceEachOther) {
  const ResponseHead weak = head({"HTTP/1.1 200 OK", "ETag: \"x\"", "ETag: W/\"y\""});
  EXPECT_EQ(weak.weakEtag, "W/\"y\"");
  EXPECT_EQ(weak.strongEtag, "");
  const ResponseHead strong = head({"HTTP/1.1 200 OK", "ETag: W/\"y\"", "ETag: \"x\" "});
  EXPECT_EQ(strong.weakEtag, "");
  EXPECT_EQ(strong.strongEtag, "\"x\"");
}

TEST(ResponseHead, fieldsAreFoundByTheirWholeNamesInAnyCase) {
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "X-Content-Length: 5", "X: Content-Length: 5", " Content-Length: 5",
                  "Content-Length : 5", "Content-Length-Was: 5", "Content-Length"})
                .contentLength,
            std::nullopt);
  const ResponseHead all =
      head({"HTTP/1.1 200 OK", "CONTENT-LENGTH:\t 5\t", "accept-ranges:Bytes", "cOnTeNt-TyPe:  text/html ; charset=x",
            "LAST-modified: Sun, 06 Nov 1994 08:49:37 GMT ", "transfer-ENCODING:"});
  EXPECT_EQ(all.contentLength, 5U);
  EXPECT_TRUE(all.acceptRangesBytes);
  EXPECT_EQ(all.contentType, "text/html");
  EXPECT_EQ(all.lastModified, "Sun, 06 Nov 1994 08:49:37 GMT");
  EXPECT_TRUE(all.transferEncoding);
}

TEST(ResponseHead, rangesAreAcceptedWhereBytesIsOneOfTheUnits) {
  EXPECT_TRUE(head({"HTTP/1.1 200 OK", "Accept-Ranges: items, bytes"}).acceptRangesBytes);
  EXPECT_FALSE(head({"HTTP/1.1 200 OK", "Accept-Ranges: none"}).acceptRangesBytes);
  EXPECT_FALSE(head({"HTTP/1.1 200 OK", "Accept-Ranges: bytes", "Accept-Ranges: none"}).acceptRangesBytes);
  EXPECT_FALSE(head({"HTTP/1.1 200 OK", "Accept-Ranges: kilobytes"}).acceptRangesBytes);
  EXPECT_FALSE(head({"HTTP/1.1 200 OK"}).acceptRangesBytes);
}

TEST(ResponseHead, lengthIsDigitsThatFit64Bits) {
  const auto length = [](const std::string& text) {
    return head({"HTTP/1.1 200 OK", ("Content-Length: " + text).c_str()}).contentLength;
  };
  EXPECT_EQ(length("0"), 0U);
  EXPECT_EQ(length("007"), 7U);
  EXPECT_EQ(length("18446744073709551615"), 18446744073709551615U);
  for (const char* bad : {"", "3x", "-5", "+5", "1 2", "0x10", "18446744073709551616", "99999999999999999999", ","}) {
    EXPECT_EQ(length(bad), std::nullopt) << bad;
  }
}

TEST(ResponseHead, lengthsThatDifferAreNoLength) {
  for (const auto& [first, second] : {std::pair("3", "4"), {"4", "3"}, {"3", "3x"}, {"99999999999999999999", "1"}}) {
    const std::string one = "Content-Length: " + std::string(first);
    const std::string two = "Content-Length: " + std::string(second);
    const ResponseHead fields = head({"HTTP/1.1 200 OK", one.c_str(), two.c_str()});
    EXPECT_TRUE(fields.contentLengthsDiffer) << one << " " << two;
    EXPECT_EQ(fields.bodyLength(), std::nullopt);
    const ResponseHead list = head({"HTTP/1.1 200 OK", (one + ", " + second).c_str()});
    EXPECT_TRUE(list.contentLengthsDiffer) << one << " " << second;
    EXPECT_EQ(list.bodyLength(), std::nullopt);
  }
}

TEST(ResponseHead, lengthThatIsRepeatedCounts) {
  const ResponseHead repeated = head({"HTTP/1.1 200 OK", "Content-Length: 3, 03", "content-length: 3,"});
  EXPECT_FALSE(repeated.contentLengthsDiffer);
  EXPECT_EQ(repeated.bodyLength(), 3U);
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "Content-Length: , 3"}).bodyLength(), 3U);
}

TEST(ResponseHead, lengthBesideATransferEncodingIsNoLength) {
  EXPECT_EQ(head({"HTTP/1.1 200 OK", "Content-Length: 3"}).bodyLength(), 3U);
  const ResponseHead both = head({"HTTP/1.1 200 OK", "Content-Length: 3", "Transfer-Encoding: chunked"});
  EXPECT_EQ(both.bodyLength(), std::nullopt);
  EXPECT_EQ(both.contentLength, 3U);
}

TEST(ResponseHead, totalOfAnUnsatisfiedRangeIsRead) {
  const ResponseHead empty = head({"HTTP/1.1 416 x", "Content-Range: bytes */0"});
  EXPECT_EQ(empty.unsatisfiedTotal, 0U);
  EXPECT_FALSE(empty.contentRange);
  for (const char* bad : {"Content-Range: bytes */", "Content-Range: bytes */*", "Content-Range: bytes */-1",
                          "Content-Range: bytes */0 x", "Content-Range: */0", "Content-Range: bytes 0-0/1"}) {
    EXPECT_EQ(head({"HTTP/1.1 416 x", bad}).unsatisfiedTotal, std::nullopt) << bad;
  }
}

TEST(ResponseHead, nothingOfEarlierResponsesIsKept) {
  const ResponseHead last =
      head({"HTTP/1.1 200 Connection established", "Content-Length: 9", "", "HTTP/1.1 302 Found", "Content-Length: 145",
            "Content-Length: 146", "Transfer-Encoding: chunked", "Accept-Ranges: bytes", "Content-Type: text/html",
            "ETag: W/\"x\"", "Last-Modified: x", "Content-Range: bytes */0", "", "HTTP/1.1 200 OK", "Content-Length: 7",
            ""});
  EXPECT_EQ(last.bodyLength(), 7U);
  EXPECT_FALSE(last.contentLengthsDiffer);
  EXPECT_FALSE(last.transferEncoding);
  EXPECT_FALSE(last.acceptRangesBytes);
  EXPECT_EQ(last.contentType, "");
  EXPECT_EQ(last.weakEtag, "");
  EXPECT_EQ(last.lastModified, "");
  EXPECT_EQ(last.unsatisfiedTotal, std::nullopt);
}

TEST(ResponseHead, trailersSayNothing) {
  const ResponseHead chunked = head({"HTTP/1.1 200 OK", "Transfer-Encoding: chunked", "", "Content-Length: 3",
                                     "Content-Length: 4", "ETag: \"x\"", "Content-Range: bytes 0-0/5", ""});
  EXPECT_EQ(chunked.contentLength, std::nullopt);
  EXPECT_FALSE(chunked.contentLengthsDiffer);
  EXPECT_EQ(chunked.strongEtag, "");
  EXPECT_FALSE(chunked.contentRange);
}

TEST(ContentRange, isReadOnlyInItsOwnForm) {
  EXPECT_EQ(parseContentRange("bytes 5-9/100")->first, 5U);
  EXPECT_EQ(parseContentRange("bytes 5-9/100")->last, 9U);
  EXPECT_EQ(parseContentRange("bytes 5-9/100")->total, 100U);
  EXPECT_EQ(parseContentRange("BYTES 5-9/*")->total, std::nullopt);
  EXPECT_EQ(parseContentRange("bytes 5-5/6")->total, 6U);
  for (const char* bad : {"", "bytes", "bytes */100", "bytes 5/100", "bytes -5-9/100", "bytes 5-9", "bytes 5-9/",
                          "items 5-9/100", "bytes 99999999999999999999-9/100", "bytes 5-9/100 x", "bytes 5-4/100",
                          "bytes 5-9/9", "bytes 0-0/0", "bytes 5-9/99999999999999999999"}) {
    EXPECT_FALSE(parseContentRange(bad)) << bad;
  }
}

using Kind = AnswerClaim::Kind;

AnswerClaim claim(std::initializer_list<const char*> lines) {
  return readClaim(head(lines), 10);
}

TEST(AnswerClaim, ofTheRangeAskedForNamesItsEndAndTheTotal) {
  const AnswerClaim range = claim({"HTTP/1.1 206 x", "Content-Range: bytes 10-14/100"});
  EXPECT_EQ(range.kind, Kind::Range);
  EXPECT_EQ(range.namedEnd, 15U);
  EXPECT_EQ(range.total, 100U);
  EXPECT_EQ(claim({"HTTP/1.1 206 x", "Content-Range: bytes 10-14/*"}).total, std::nullopt);
}

TEST(AnswerClaim, withoutAReadableContentRangeIsTakenAsAsked) {
  for (const char* value : {"X: y", "Content-Range: nonsense", "Content-Range: bytes 10-5/100"}) {
    const AnswerClaim range = claim({"HTTP/1.1 206 x", value});
    EXPECT_EQ(range.kind, Kind::Range) << value;
    EXPECT_EQ(range.namedEnd, std::nullopt) << value;
    EXPECT_EQ(range.total, std::nullopt) << value;
  }
}

TEST(AnswerClaim, thatStartsElsewhereOrIsMultipartOrContradictsItselfIsUnusable) {
  EXPECT_EQ(claim({"HTTP/1.1 206 x", "Content-Range: bytes 11-19/100"}).kind, Kind::Unusable);
  EXPECT_EQ(claim({"HTTP/1.1 206 x", "Content-Type: Multipart/Byteranges; boundary=x"}).kind, Kind::Unusable);
  EXPECT_EQ(claim({"HTTP/1.1 206 x", "Content-Length: 3", "Content-Length: 4"}).kind, Kind::Unusable);
  EXPECT_EQ(claim({"HTTP/1.1 200 x", "Content-Length: 3", "Content-Length: 4"}).kind, Kind::Unusable);
  EXPECT_EQ(claim({"HTTP/1.1 200 x", "Content-Length: 0", "Transfer-Encoding: chunked"}).kind, Kind::Unusable);
}

TEST(AnswerClaim, of200IsTheWholeFileWithItsLengthOrAnEndThatIsSeenOrNot) {
  const AnswerClaim sized = claim({"HTTP/1.1 200 OK", "Content-Length: 77"});
  EXPECT_EQ(sized.kind, Kind::WholeFile);
  EXPECT_EQ(sized.length, 77U);
  EXPECT_TRUE(sized.endIsSeen);
  const AnswerClaim chunked = claim({"HTTP/1.1 200 OK", "Content-Length: 77", "Transfer-Encoding: chunked"});
  EXPECT_EQ(chunked.length, std::nullopt);
  EXPECT_TRUE(chunked.endIsSeen);
  const AnswerClaim open = claim({"HTTP/1.1 200 OK"});
  EXPECT_EQ(open.length, std::nullopt);
  EXPECT_FALSE(open.endIsSeen);
}

TEST(AnswerClaim, of200WithALengthOf0IsAnEmptyFile) {
  const AnswerClaim empty = claim({"HTTP/1.1 200 OK", "Content-Length: 0"});
  EXPECT_EQ(empty.kind, Kind::WholeFile);
  EXPECT_EQ(empty.length, 0U);
}
TEST(AnswerClaim, ofAnyOtherStatusBringsNoContent) {
  for (const char* status :
       {"HTTP/1.1 203 x", "HTTP/1.1 204 x", "HTTP/1.1 300 x", "HTTP/1.1 304 x", "HTTP/1.1 404 x"}) {
    EXPECT_EQ(claim({status, "Content-Length: 5"}).kind, Kind::NoContent) << status;
  }
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
