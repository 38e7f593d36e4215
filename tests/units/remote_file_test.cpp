// What a job takes from the head of the answer to its first question.
#include "remote_file.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>

namespace {

using xfer::RemoteFileInfo;

constexpr std::int32_t kRangeError = 33;

RemoteFileInfo infoOf(std::initializer_list<const char*> lines) {
  xfer::ResponseHeadReader reader;
  for (const char* line : lines) reader.add(std::string(line) + "\r\n");
  return xfer::remoteFileInfo(reader.head());
}

TEST(RemoteFile, sizeOfA206IsTheTotalOfItsContentRange) {
  const RemoteFileInfo info = infoOf({"HTTP/1.1 206 x", "content-range: bytes 0-0/12345", "Content-Length: 1"});
  EXPECT_EQ(info.size, 12345U);
  EXPECT_TRUE(info.acceptRanges);
  EXPECT_EQ(info.httpStatus, 206);
  EXPECT_EQ(info.error, 0);
}

TEST(RemoteFile, sizeOfA206WithoutAReadableTotalIsUnknown) {
  for (const char* line : {"Content-Range: bytes 0-0/*", "Content-Range: bytes", "Content-Range: bytes 5-4/12345",
                           "Content-Range: bytes 0-0/99999999999999999999", "X-Content-Range: bytes 0-0/12345"}) {
    const RemoteFileInfo info = infoOf({"HTTP/1.1 206 x", line, "Content-Length: 1"});
    EXPECT_EQ(info.size, 0U) << line;
    EXPECT_TRUE(info.acceptRanges);
    EXPECT_EQ(info.error, 0);
  }
}

TEST(RemoteFile, sizeOfA200IsTheLengthOfItsBody) {
  EXPECT_EQ(infoOf({"HTTP/1.1 200 OK", "X-Stored-Content-Length: 100", "Content-Length: 7"}).size, 7U);
  EXPECT_EQ(infoOf({"HTTP/1.1 200 OK", "X-Stored-Content-Length: 100"}).size, 0U);
  EXPECT_EQ(infoOf({"HTTP/1.1 200 OK", "Content-Length: 99999999999999999999"}).size, 0U);
  EXPECT_EQ(infoOf({"HTTP/1.1 200 OK", "Content-Length: -5"}).size, 0U);
  EXPECT_EQ(infoOf({"HTTP/1.1 200 OK", "Content-Length: 7", "Transfer-Encoding: chunked"}).size, 0U);
  EXPECT_EQ(infoOf({"HTTP/1.1 200 OK", "Content-Range: bytes 0-0/12345", "Content-Length: 7"}).size, 7U);
}

TEST(RemoteFile, rangesOfA200AreServedWhereItSaysSo) {
  EXPECT_FALSE(infoOf({"HTTP/1.1 200 OK"}).acceptRanges);
  EXPECT_FALSE(infoOf({"HTTP/1.1 200 OK", "Accept-Ranges: none"}).acceptRanges);
  EXPECT_TRUE(infoOf({"HTTP/1.1 200 OK", "ACCEPT-RANGES: BYTES"}).acceptRanges);
}

TEST(RemoteFile, typeIsReadWhateverTheCaseOfItsName) {
  EXPECT_EQ(infoOf({"HTTP/1.1 200 OK", "content-type: text/html; charset=utf-8"}).contentType, "text/html");
  EXPECT_EQ(infoOf({"HTTP/1.1 404 No", "content-type: text/plain"}).contentType, "text/plain");
}

TEST(RemoteFile, onlyTheLastResponseCounts) {
  const RemoteFileInfo info =
      infoOf({"HTTP/1.1 200 Connection established", "Content-Length: 9", "", "HTTP/1.1 302 Found",
              "Content-Length: 145", "Accept-Ranges: bytes", "Content-Type: text/html", "", "HTTP/1.1 200 OK", ""});
  EXPECT_EQ(info.size, 0U);
  EXPECT_FALSE(info.acceptRanges);
  EXPECT_EQ(info.contentType, "");
  EXPECT_EQ(info.error, 0);
}

TEST(RemoteFile, lengthsThatDifferAreRefused) {
  for (const char* status : {"HTTP/1.1 200 OK", "HTTP/1.1 206 x"}) {
    const RemoteFileInfo info = infoOf({status, "Content-Length: 5", "Content-Length: 6"});
    EXPECT_EQ(info.error, kRangeError) << status;
    EXPECT_EQ(info.size, 0U);
  }
}

TEST(RemoteFile, unsatisfiedRangeOfNoBytesIsAnEmptyFile) {
  const RemoteFileInfo info = infoOf({"HTTP/1.1 416 x", "Accept-Ranges: bytes", "Content-Range: bytes */0"});
  EXPECT_EQ(info.error, 0);
  EXPECT_EQ(info.size, 0U);
  EXPECT_FALSE(info.acceptRanges);
  EXPECT_EQ(info.httpStatus, 416);
  EXPECT_EQ(infoOf({"HTTP/1.1 416 x", "Content-Range: bytes */1"}).error, 416);
  EXPECT_EQ(infoOf({"HTTP/1.1 416 x"}).error, 416);
}

TEST(RemoteFile, anyOtherStatusIsTheError) {
  for (const int status : {204, 301, 403, 404, 500}) {
    const std::string line = "HTTP/1.1 " + std::to_string(status);
    const RemoteFileInfo info = infoOf({line.c_str(), "Content-Length: 7", "Accept-Ranges: bytes"});
    EXPECT_EQ(info.error, status);
    EXPECT_EQ(info.httpStatus, status);
    EXPECT_EQ(info.size, 0U);
    EXPECT_FALSE(info.acceptRanges);
  }
}

}  // namespace
