#include "outcome.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using xfer::DownloadSnapshot;
using xfer::JobState;
using xfer_get::downloadOutcome;
using xfer_get::infoOutcome;
using xfer_get::Outcome;
using xfer_get::responseOutcome;

DownloadSnapshot failed(std::int32_t errorCode, std::int32_t httpStatus = 0) {
  DownloadSnapshot snapshot;
  snapshot.state = JobState::Failed;
  snapshot.errorCode = errorCode;
  snapshot.httpStatus = httpStatus;
  return snapshot;
}

TEST(DownloadOutcome, ofACompletedOneIsSilentSuccess) {
  DownloadSnapshot snapshot;
  snapshot.state = JobState::Completed;
  EXPECT_EQ(downloadOutcome(snapshot).code, xfer_get::kDone);
  EXPECT_EQ(downloadOutcome(snapshot).message, "");
}

TEST(DownloadOutcome, ofACancelledOneIs130) {
  DownloadSnapshot snapshot;
  snapshot.state = JobState::Cancelled;
  EXPECT_EQ(downloadOutcome(snapshot).code, 130);
  EXPECT_EQ(downloadOutcome(snapshot).message, "cancelled") << "before the size was known there was no file";
  snapshot.totalBytes = 1000;
  EXPECT_EQ(downloadOutcome(snapshot).code, 130);
  EXPECT_EQ(downloadOutcome(snapshot).message, "cancelled; the partial file was left in place");
}

TEST(DownloadOutcome, tellsTheKindsOfFailureApart) {
  const std::pair<DownloadSnapshot, int> cases[] = {
      {failed(1), 2},        {failed(3), 2},        {failed(43), 2},       // usage
      {failed(-1), 3},       {failed(100004), 3},   {failed(100024), 3},   // file
      {failed(6), 4},        {failed(7), 4},        {failed(28, 206), 4},  // network
      {failed(33), 4},       {failed(52), 4},       {failed(61), 4},       // network, the last one without words
      {failed(60), 6},       {failed(77), 6},       {failed(90), 6},       // trust
      {failed(404), 5},      {failed(403, 403), 5}, {failed(18, 503), 5},  // HTTP status
      {failed(204, 204), 5}, {failed(100000), 1},
  };
  for (const auto& [snapshot, code] : cases) {
    const Outcome outcome = downloadOutcome(snapshot);
    EXPECT_EQ(outcome.code, code) << snapshot.errorCode << ", " << snapshot.httpStatus;
    EXPECT_NE(outcome.message, "") << snapshot.errorCode;
  }
}

TEST(DownloadOutcome, namesTheStatusOrTheCode) {
  EXPECT_NE(downloadOutcome(failed(18, 503)).message.find("503"), std::string::npos);
  EXPECT_NE(downloadOutcome(failed(404)).message.find("404"), std::string::npos);
  EXPECT_NE(downloadOutcome(failed(7)).message.find("(code 7)"), std::string::npos);
  EXPECT_NE(downloadOutcome(failed(92)).message.find("(code 92)"), std::string::npos);
}

// Whatever libcurl makes up: no failure ends in exit code 0, without a word, or in a sentence that hides its number.
TEST(DownloadOutcome, ofAnyLibcurlCodeIsAFailureWithItsNumber) {
  for (std::int32_t code = 1; code < 100; ++code) {
    const Outcome outcome = downloadOutcome(failed(code));
    EXPECT_NE(outcome.code, xfer_get::kDone) << code;
    EXPECT_NE(outcome.code, xfer_get::kHttpStatus) << code;
    EXPECT_NE(outcome.message.find("(code " + std::to_string(code) + ")"), std::string::npos) << outcome.message;
  }
}

TEST(DownloadOutcome, ofAnyErrorStatusIs5) {
  for (std::int32_t status = 400; status < 600; ++status) {
    EXPECT_EQ(downloadOutcome(failed(status)).code, 5) << "met by the question for the size: " << status;
    EXPECT_EQ(downloadOutcome(failed(status, status)).code, 5) << "met by a range: " << status;
  }
}

TEST(ResponseOutcome, isTheStatusUnlessTheTransferFailed) {
  xfer::Response response;
  response.status = 200;
  EXPECT_EQ(responseOutcome(response).code, 0);
  response.status = 302;
  EXPECT_EQ(responseOutcome(response).code, 0) << "a redirect that was not to be followed is what was asked for";
  response.status = 404;
  EXPECT_EQ(responseOutcome(response).code, 5);
  response.curlCode = 7;
  EXPECT_EQ(responseOutcome(response).code, 4);
  response.curlCode = -1;
  EXPECT_EQ(responseOutcome(response).code, 1);
}

TEST(InfoOutcome, tellsAStatusFromALibcurlCode) {
  xfer::RemoteFileInfo info;
  info.httpStatus = 206;
  EXPECT_EQ(infoOutcome(info).code, 0);
  info.httpStatus = info.error = 404;
  EXPECT_EQ(infoOutcome(info).code, 5);
  info.httpStatus = 0;
  info.error = 6;
  EXPECT_EQ(infoOutcome(info).code, 4);
}

}  // namespace
