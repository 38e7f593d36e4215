// Which servers are trusted: certificates and keys of every kind, by every way that leads to a server.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "support/pattern.h"
#include "support/plan_under_test.h"
#include "support/process.h"
#include "support/real_servers.h"
#include "support/temp_dir.h"
#include "support/test_timeout.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "transfer_support.h"
#include "xfer/xfer.h"
#include "xfer/xfer.hpp"
#include "xfer/xfer_download.h"
#include "xfer/xfer_request.h"

namespace {

using servers_test::expectWhole;
using servers_test::manyRanges;
using support::Certificate;
using support::RealServer;
using support::RealServers;
using xfer::FetchOptions;

constexpr std::uint64_t kSize = RealServers::kSmallFileBytes;

// libcurl's codes.
constexpr int kBadArgument = 43;
constexpr int kCertificateRefused = 60;
constexpr int kCaFileUnusable = 77;
constexpr int kKeyRefused = 90;

constexpr int kCaFileUnreadable = 100030;
constexpr int kCaFileWithoutCertificate = 100031;

constexpr int kTrustExitCode = 6;  // of xfer-get

const std::string kOtherPin = "sha256//" + std::string(43, 'A') + "=";
const std::string kOldContent = "what was there before";

enum class Authority { System, Own, Other };
enum class Pin { None, Right, Wrong };

struct Trust {
  const char* outcome = "";
  Certificate certificate = Certificate::Valid;
  bool verify = false;
  Authority authority = Authority::System;
  Pin pin = Pin::None;
  int code = 0;
};

constexpr Trust kWithoutPin[] = {
    {"validIsAccepted", Certificate::Valid, true, Authority::Own, Pin::None, 0},
    {"expiredIsRefused", Certificate::Expired, true, Authority::Own, Pin::None, kCertificateRefused},
    {"otherHostIsRefused", Certificate::OtherHost, true, Authority::Own, Pin::None, kCertificateRefused},
    {"selfSignedIsRefused", Certificate::SelfSigned, true, Authority::Own, Pin::None, kCertificateRefused},
    {"otherAuthorityIsRefused", Certificate::Valid, true, Authority::Other, Pin::None, kCertificateRefused},
    {"authorityUnknownToTheSystemIsRefused", Certificate::Valid, true, Authority::System, Pin::None,
     kCertificateRefused},
    {"validIsAcceptedUnverified", Certificate::Valid, false, Authority::System, Pin::None, 0},
    {"expiredIsAcceptedUnverified", Certificate::Expired, false, Authority::System, Pin::None, 0},
    {"otherHostIsAcceptedUnverified", Certificate::OtherHost, false, Authority::System, Pin::None, 0},
    {"selfSignedIsAcceptedUnverified", Certificate::SelfSigned, false, Authority::System, Pin::None, 0},
};

constexpr Trust kWithPin[] = {
    {"validWithItsPinIsAccepted", Certificate::Valid, true, Authority::Own, Pin::Right, 0},
    {"validWithAnotherPinIsRefused", Certificate::Valid, true, Authority::Own, Pin::Wrong, kKeyRefused},
    {"selfSignedWithThePinOfValidIsRefused", Certificate::SelfSigned, true, Authority::Own, Pin::Right,
     kCertificateRefused},
    {"validWithItsPinIsAcceptedUnverified", Certificate::Valid, false, Authority::System, Pin::Right, 0},
    {"validWithAnotherPinIsRefusedUnverified", Certificate::Valid, false, Authority::System, Pin::Wrong, kKeyRefused},
    {"selfSignedWithThePinOfValidIsRefusedUnverified", Certificate::SelfSigned, false, Authority::System, Pin::Right,
     kKeyRefused},
};

std::string nameOfTrust(const testing::TestParamInfo<Trust>& info) {
  return info.param.outcome;
}

xfer::Request requestFor(const std::string& url) {
  xfer::Request request;
  request.url = url;
  return request;
}

// Asks by a record, which ask changes.
template <class Ask>
xfer::Response requestByNumbers(const std::string& url, const Ask& ask) {
  xfer_request_options options;
  xfer_response response;
  sys::DataBuff headers;
  sys::DataBuff body;
  xfer_requestOptionsInit(&options, sizeof options);
  xfer_responseInit(&response, sizeof response);
  options.url = url.c_str();
  response.headers = &headers;
  response.body = &body;
  ask(options);
  const std::int32_t code = xfer_request(&options, &response);
  EXPECT_EQ(response.error, code);
  return {code, response.httpStatus, headers.toString(), body.toString()};
}

// Downloads by a record, which ask changes.
template <class Ask>
xfer_status downloadByRecord(const std::string& url, const std::string& path, const Ask& ask) {
  xfer_download_options options;
  xfer_status status;
  std::uint64_t id = 0;
  xfer_downloadOptionsInit(&options, sizeof options);
  xfer_statusInit(&status, sizeof status);
  options.url = url.c_str();
  options.path = path.c_str();
  options.connections = 3;
  options.plan = support::adaptivePlan() ? XFER_PLAN_ADAPTIVE : XFER_PLAN_STATED;
  ask(options);
  EXPECT_EQ(xfer_downloadStart(&options, &id), 0);
  constexpr std::uint64_t kLong = 60'000;
  EXPECT_EQ(xfer_downloadWait(id, kLong), 0);
  EXPECT_EQ(xfer_downloadStatus(id, &status), 0);
  EXPECT_EQ(xfer_downloadForget(id), 0);
  return status;
}

std::uint64_t milliseconds(std::chrono::milliseconds duration) {
  return static_cast<std::uint64_t>(duration.count());
}

struct JobEnd {
  xfer::DownloadSnapshot snapshot;
  std::ptrdiff_t triesAgain = 0;
};

JobEnd runJob(const std::string& url, const std::string& path, xfer::DownloadOptions options,
              std::uint64_t knownSize = 0, RealServer like = RealServer::NginxTls) {
  xfer::DownloadRequest request;
  request.url = url;
  request.path = path;
  request.knownSize = knownSize;
  constexpr std::size_t kEvents = 1000;
  xfer::DownloadJob job(request, manyRanges(like, 4), options.setHistory(kEvents));
  // Nothing is tried again where trust is missing, so even a job that fails ends soon.
  job.start();
  EXPECT_TRUE(job.waitFor(milliseconds(support::testTimeout() / 4)));
  const std::vector<xfer::DownloadEvent> events = job.history();
  EXPECT_FALSE(events.empty());
  return {job.snapshot(), std::count_if(events.begin(), events.end(), [](const xfer::DownloadEvent& event) {
            return event.kind == xfer::DownloadEvent::Kind::TriedAgain;
          })};
}

class TrustTest : public testing::Test {
 protected:
  // Options: FetchOptions or DownloadOptions.
  template <class Options>
  Options verified(const std::string& caFile, Options options) const {
    options.setVerifyPeer(true);
    if (!caFile.empty()) options.setCaFile(caFile);
    return options;
  }

  [[nodiscard]] FetchOptions verified() const { return verified(servers_.caFile(), FetchOptions()); }
  static FetchOptions pinned(const std::string& pin) { return FetchOptions().setPinnedKey(pin); }

  // Paths that no other test asks for: the servers' log is everybody's.
  [[nodiscard]] std::string ownPath(const std::string& name, const std::string& mark = "") const {
    return "/" + name + "?" + support::toPath(folder_.path()).filename().string() + mark;
  }

  // The connection over which the server was asked for this, once.
  [[nodiscard]] std::uint64_t connectionOf(const std::string& path) const {
    EXPECT_TRUE(support::waitUntil([&] { return servers_.connectionsOf(path).size() == 1; })) << path;
    const std::vector<std::uint64_t> connections = servers_.connectionsOf(path);
    return connections.empty() ? 0 : connections.front();
  }

  // A request is in the log once it is answered, so one that is answered later shows that there was none before it.
  void expectNeverAsked(Certificate certificate, const std::string& path) const {
    const std::string last = path + "-last";
    const std::size_t before = servers_.connectionsOf(last).size();
    EXPECT_EQ(xfer::fetch(requestFor(servers_.url(certificate, last))).curlCode, 0);
    EXPECT_TRUE(support::waitUntil([&] { return servers_.connectionsOf(last).size() > before; }));
    EXPECT_TRUE(servers_.connectionsOf(path).empty());
  }

  [[nodiscard]] std::string file(const std::string& name) const { return folder_.file(name); }

  // The proxies of whoever runs the tests are none of theirs.
  [[nodiscard]] support::Finished get(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), support::siblingProgram("xfer-get"));
    return support::runProcess(arguments, {.environment = {"no_proxy=*"}, .folder = folder_.path()});
  }

  const RealServers servers_;
  const support::TempDir folder_;
};

// ---- Every certificate and key, by every way ----

class EachTrust : public TrustTest, public testing::WithParamInterface<Trust> {
 protected:
  EachTrust() { support::writeFile(file("out"), kOldContent); }

  [[nodiscard]] std::string caFile() const {
    if (GetParam().authority == Authority::Own) return servers_.caFile();
    return GetParam().authority == Authority::Other ? servers_.otherCaFile() : "";
  }

  [[nodiscard]] std::string pin() const { return GetParam().pin == Pin::Right ? servers_.pin() : kOtherPin; }

  template <class Options>
  Options trusting(Options options) const {
    if (GetParam().verify) options = verified(caFile(), std::move(options));
    if (GetParam().pin != Pin::None) options.setPinnedKey(pin());
    return options;
  }

  [[nodiscard]] std::string path() const { return ownPath("1m.bin"); }
  [[nodiscard]] std::string url() const { return servers_.url(GetParam().certificate, path()); }
  static bool accepted() { return GetParam().code == 0; }

  void expectAskedOnlyWhenAccepted() const {
    if (!accepted()) return expectNeverAsked(GetParam().certificate, path());
    EXPECT_TRUE(support::waitUntil([&] { return !servers_.connectionsOf(path()).empty(); }));
  }

  void expectResponse(const xfer::Response& response) const {
    EXPECT_EQ(response.curlCode, GetParam().code);
    EXPECT_EQ(response.status, accepted() ? 200 : 0);
    EXPECT_EQ(response.headers.empty(), !accepted()) << response.headers;
    EXPECT_TRUE(response.body == (accepted() ? support::patternBytes(0, kSize) : "")) << response.body.size();
    expectAskedOnlyWhenAccepted();
  }
};

TEST_P(EachTrust, requestEndsAsTheServerDeserves) {
  expectResponse(xfer::fetch(requestFor(url()), trusting(FetchOptions())));
}

TEST_P(EachTrust, backgroundRequestEndsAsTheServerDeserves) {
  expectResponse(xfer::fetchAsync(requestFor(url()), trusting(FetchOptions())).get());
}

TEST_P(EachTrust, requestByNumbersEndsAsTheServerDeserves) {
  const std::string ownCaFile = caFile();
  const std::string ownPin = pin();
  const auto ask = [&](xfer_request_options& options) {
    options.verifyPeer = GetParam().verify ? XFER_VERIFY_ON : XFER_VERIFY_OFF;
    options.caFile = GetParam().verify ? ownCaFile.c_str() : nullptr;
    options.pinnedKey = GetParam().pin != Pin::None ? ownPin.c_str() : nullptr;
  };
  // The record's wish counts, not the module's.
  EXPECT_EQ(xfer_setTls(!GetParam().verify, nullptr), 0);
  expectResponse(requestByNumbers(url(), ask));
  EXPECT_EQ(xfer_setTls(false, nullptr), 0);
}

TEST_P(EachTrust, jobByARecordEndsAsTheServerDeserves) {
  const std::string ownCaFile = caFile();
  const std::string ownPin = pin();
  const xfer_status end = downloadByRecord(url(), file("out"), [&](xfer_download_options& options) {
    options.verifyPeer = GetParam().verify ? XFER_VERIFY_ON : XFER_VERIFY_OFF;
    options.caFile = GetParam().verify ? ownCaFile.c_str() : nullptr;
    options.pinnedKey = GetParam().pin != Pin::None ? ownPin.c_str() : nullptr;
  });
  EXPECT_EQ(end.error, GetParam().code);
  EXPECT_EQ(end.state, static_cast<std::uint32_t>(accepted() ? XFER_STATE_COMPLETED : XFER_STATE_FAILED));
  EXPECT_EQ(support::patternError(file("out"), kSize).empty(), accepted());
  expectAskedOnlyWhenAccepted();
}

TEST_P(EachTrust, firstQuestionEndsAsTheServerDeserves) {
  const xfer::RemoteFileInfo info = xfer::probeRemoteFile(url(), {}, "", 10, trusting(FetchOptions()));
  EXPECT_EQ(info.error, GetParam().code);
  EXPECT_EQ(info.httpStatus, accepted() ? 206 : 0);
  EXPECT_EQ(info.size, accepted() ? kSize : 0U);
  expectAskedOnlyWhenAccepted();
}

TEST_P(EachTrust, jobEndsAtOnceAsTheServerDeserves) {
  for (const std::uint64_t knownSize : {std::uint64_t{0}, kSize}) {
    SCOPED_TRACE(knownSize);
    support::writeFile(file("out"), kOldContent);
    const JobEnd end = runJob(url(), file("out"), trusting(support::planUnderTest(64 * 1024)), knownSize);
    if (accepted()) {
      expectWhole(end.snapshot, file("out"), kSize);
      continue;
    }
    EXPECT_EQ(end.snapshot.state, xfer::JobState::Failed);
    EXPECT_EQ(end.snapshot.errorCode, GetParam().code);
    EXPECT_EQ(end.snapshot.bytesDone, 0U);
    EXPECT_EQ(end.triesAgain, 0);
    // The stated plan makes a file of known size before it asks for anything.
    if (support::adaptivePlan() || knownSize == 0) {
      EXPECT_EQ(support::readFile(file("out")), kOldContent);
    }
  }
  expectAskedOnlyWhenAccepted();
}

TEST_P(EachTrust, toolEndsAsTheServerDeserves) {
  std::vector<std::string> trust;
  if (!GetParam().verify) trust.emplace_back("-k");
  if (!caFile().empty()) trust.insert(trust.end(), {"--cacert", caFile()});
  if (GetParam().pin != Pin::None) trust.insert(trust.end(), {"--pinnedpubkey", pin()});
  const int exitCode = accepted() ? 0 : kTrustExitCode;
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), trust.begin(), trust.end());
    return get(std::move(arguments));
  };

  for (const char* plan : {"adaptive", "stated"}) {
    support::writeFile(file("out"), kOldContent);
    const support::Finished done = run({url(), "out", "--overwrite", "--plan", plan});
    EXPECT_EQ(done.exitCode, exitCode) << plan << ": " << done.err;
    if (accepted()) {
      EXPECT_EQ(support::patternError(file("out"), kSize), "");
    } else {
      EXPECT_EQ(support::readFile(file("out")), kOldContent);
      EXPECT_FALSE(done.err.empty());
    }
  }
  for (const char* question : {"--print", "--info"}) {
    const support::Finished done = run({url(), question});
    EXPECT_EQ(done.exitCode, exitCode) << question << ": " << done.err;
    EXPECT_EQ(done.out.empty(), !accepted());
  }
  expectAskedOnlyWhenAccepted();
}

INSTANTIATE_TEST_SUITE_P(Certificates, EachTrust, testing::ValuesIn(kWithoutPin), nameOfTrust);
INSTANTIATE_TEST_SUITE_P(Keys, EachTrust, testing::ValuesIn(kWithPin), nameOfTrust);

// ---- The C interface, whose setting holds for the whole module ----

std::uint32_t downloadFile(const std::string& url, const std::string& path) {
  const std::uint64_t id = xfer_downloadFile(url.c_str(), path.c_str(), "", 4, "", 0, 0, nullptr);
  std::uint64_t done = 0;
  std::uint32_t error = 0;
  std::uint8_t finished = 0;
  EXPECT_TRUE(support::waitUntil([&] {
    xfer_getProgress(id, &done, &error, &finished);
    return finished != 0;
  }));
  return error;
}

int downloadText(const std::string& url) {
  sys::DataBuff headers;
  sys::DataBuff body;
  return xfer_download(url.c_str(), "", "", &headers, &body, "", nullptr);
}

class EachTrustByNumbers : public EachTrust {
 protected:
  EachTrustByNumbers() { EXPECT_EQ(xfer_setTls(GetParam().verify, caFile().c_str()), 0); }
  ~EachTrustByNumbers() override { xfer_setTls(false, nullptr); }
};

TEST_P(EachTrustByNumbers, requestEndsAsTheServerDeserves) {
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_download(url().c_str(), "", "", &headers, &body, "", nullptr), GetParam().code);
  EXPECT_EQ(headers.empty(), !accepted());
  EXPECT_TRUE(body.toString() == (accepted() ? support::patternBytes(0, kSize) : "")) << body.size();
  expectAskedOnlyWhenAccepted();
}

TEST_P(EachTrustByNumbers, requestWithARecordEndsAsTheServerDeserves) {
  expectResponse(requestByNumbers(url(), [](xfer_request_options&) {}));
}

TEST_P(EachTrustByNumbers, requestWithARecordCanHaveAPinBesideTheSetting) {
  const std::string wrong = kOtherPin;
  const std::string right = servers_.pin();
  const bool hasTheRightKey = GetParam().certificate == Certificate::Valid;
  const auto codeWith = [&](const std::string& key) {
    return requestByNumbers(url(), [&](xfer_request_options& options) { options.pinnedKey = key.c_str(); }).curlCode;
  };
  EXPECT_EQ(codeWith(wrong), accepted() ? kKeyRefused : GetParam().code);
  EXPECT_EQ(codeWith(right), accepted() && !hasTheRightKey ? kKeyRefused : GetParam().code);
}

TEST_P(EachTrustByNumbers, backgroundRequestEndsAsTheServerDeserves) {
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(url().c_str(), &id, "", "", "", nullptr), 0);
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), GetParam().code);
  EXPECT_TRUE(body.toString() == (accepted() ? support::patternBytes(0, kSize) : "")) << body.size();
  expectAskedOnlyWhenAccepted();
}

TEST_P(EachTrustByNumbers, downloadIntoAFileEndsAsTheServerDeserves) {
  EXPECT_EQ(downloadFile(url(), file("out")), static_cast<std::uint32_t>(GetParam().code));
  if (accepted()) {
    EXPECT_EQ(support::patternError(file("out"), kSize), "");
  } else {
    EXPECT_EQ(support::readFile(file("out")), kOldContent);
  }
  expectAskedOnlyWhenAccepted();
}

TEST_P(EachTrustByNumbers, questionForTheSizeEndsAsTheServerDeserves) {
  std::uint64_t size = 0;
  std::uint32_t mediaType = 0;
  EXPECT_EQ(xfer_getRemoteFileSize(url().c_str(), &size, &mediaType, "", "", 2, nullptr), GetParam().code);
  EXPECT_EQ(size, accepted() ? kSize : 0U);
  std::int64_t length = 0;
  EXPECT_EQ(xfer_getContentLength(url(), &length), accepted());
  EXPECT_EQ(length, accepted() ? static_cast<std::int64_t>(kSize) : -1);
  expectAskedOnlyWhenAccepted();
}

INSTANTIATE_TEST_SUITE_P(Certificates, EachTrustByNumbers, testing::ValuesIn(kWithoutPin), nameOfTrust);

class TrustByNumbers : public TrustTest {
 protected:
  ~TrustByNumbers() override { xfer_setTls(false, nullptr); }

  [[nodiscard]] std::string page(Certificate certificate) const { return servers_.url(certificate, "/page.txt"); }
};

TEST_F(TrustByNumbers, isGivenToEveryServerUntilItIsSet) {
  EXPECT_EQ(downloadText(page(Certificate::SelfSigned)), 0);
  EXPECT_EQ(downloadText(page(Certificate::Expired)), 0);
}

TEST_F(TrustByNumbers, settingHoldsUntilTheNextOne) {
  const std::string url = page(Certificate::SelfSigned);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(xfer_setTls(true, servers_.caFile().c_str()), 0);
    EXPECT_EQ(downloadText(url), kCertificateRefused);
    EXPECT_EQ(downloadFile(url, file("out")), static_cast<std::uint32_t>(kCertificateRefused));
    EXPECT_EQ(xfer_setTls(true, nullptr), 0);
    EXPECT_EQ(downloadText(page(Certificate::Valid)), kCertificateRefused);
    EXPECT_EQ(xfer_setTls(false, ""), 0);
    EXPECT_EQ(downloadText(url), 0);
    EXPECT_EQ(downloadFile(url, file("out")), 0U);
  }
}

TEST_F(TrustByNumbers, jobsGoByTheSettingUnlessTheirRecordSaysOtherwise) {
  ASSERT_EQ(xfer_setTls(true, servers_.caFile().c_str()), 0);
  const auto errorOf = [this](Certificate certificate, std::uint32_t verify) {
    return downloadByRecord(servers_.url(certificate, "/1m.bin"), file("out"),
                            [verify](xfer_download_options& options) { options.verifyPeer = verify; })
        .error;
  };
  EXPECT_EQ(errorOf(Certificate::Valid, XFER_VERIFY_AS_SET), 0) << "its own authority is the setting's";
  EXPECT_EQ(errorOf(Certificate::SelfSigned, XFER_VERIFY_AS_SET), kCertificateRefused);
  EXPECT_EQ(errorOf(Certificate::SelfSigned, XFER_VERIFY_OFF), 0);
  EXPECT_EQ(errorOf(Certificate::Valid, XFER_VERIFY_ON), kCertificateRefused) << "the system does not know it";
  ASSERT_EQ(xfer_setTls(false, nullptr), 0);
  EXPECT_EQ(errorOf(Certificate::SelfSigned, XFER_VERIFY_AS_SET), 0);
}

TEST_F(TrustByNumbers, settingThatCannotWorkLeavesTheLastOne) {
  const auto expectRefusedSettings = [this] {
    EXPECT_EQ(xfer_setTls(true, file("missing.pem").c_str()), kCaFileUnreadable);
    EXPECT_EQ(xfer_setTls(true, folder_.path().c_str()), kCaFileUnreadable) << "a folder";
    EXPECT_EQ(xfer_setTls(true, servers_.emptyFile().c_str()), kCaFileWithoutCertificate);
    EXPECT_EQ(xfer_setTls(false, servers_.otherCaFile().c_str()), kBadArgument);
  };
  expectRefusedSettings();
  EXPECT_EQ(downloadText(page(Certificate::SelfSigned)), 0);
  ASSERT_EQ(xfer_setTls(true, servers_.caFile().c_str()), 0);
  expectRefusedSettings();
  EXPECT_EQ(downloadText(page(Certificate::Valid)), 0);
  EXPECT_EQ(downloadText(page(Certificate::SelfSigned)), kCertificateRefused);
}

TEST_F(TrustByNumbers, settingIsNotThatOfRequestsWithOptionsOfTheirOwn) {
  ASSERT_EQ(xfer_setTls(true, servers_.caFile().c_str()), 0);
  EXPECT_EQ(xfer::fetch(requestFor(page(Certificate::SelfSigned))).curlCode, 0);
  EXPECT_EQ(xfer::fetch(requestFor(page(Certificate::SelfSigned)), FetchOptions()).curlCode, 0);
  ASSERT_EQ(xfer_setTls(false, nullptr), 0);
  EXPECT_EQ(xfer::fetch(requestFor(page(Certificate::SelfSigned)), verified()).curlCode, kCertificateRefused);
}

// ---- Options that cannot work ----

class UnusableOptions : public TrustTest {
 protected:
  [[nodiscard]] std::string url() const { return servers_.url(Certificate::Valid, ownPath("1m.bin")); }

  template <class Set>
  void expectRequestsToEndWith(int code, const Set& set) const {
    FetchOptions options;
    set(options);
    const xfer::Response response = xfer::fetch(requestFor(url()), options);
    EXPECT_EQ(response.curlCode, code);
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(xfer::fetchAsync(requestFor(url()), options).get().curlCode, code);
    EXPECT_EQ(xfer::probeRemoteFile(url(), {}, "", 10, options).error, code);
    expectNeverAsked(Certificate::Valid, ownPath("1m.bin"));
  }

  template <class Set>
  void expectJobsToEndWith(int code, const Set& set) const {
    xfer::DownloadOptions options = support::planUnderTest();
    set(options);
    for (const std::uint64_t knownSize : {std::uint64_t{0}, kSize}) {
      const JobEnd end = runJob(url(), file("out"), options, knownSize);
      EXPECT_EQ(end.snapshot.state, xfer::JobState::Failed);
      EXPECT_EQ(end.snapshot.errorCode, code);
      EXPECT_EQ(end.triesAgain, 0);
    }
    expectNeverAsked(Certificate::Valid, ownPath("1m.bin"));
  }

  [[nodiscard]] std::vector<std::string> unusableFiles() const { return {file("missing.pem"), servers_.emptyFile()}; }
};

TEST_F(UnusableOptions, missingOrEmptyCaFileEndsRequests) {
  for (const std::string& caFile : unusableFiles()) {
    SCOPED_TRACE(caFile);
    expectRequestsToEndWith(kCaFileUnusable, [&](auto& options) { options.setVerifyPeer(true).setCaFile(caFile); });
  }
}

TEST_F(UnusableOptions, jobsEndWhenTheCaFileIsMissingOrEmpty) {
  for (const std::string& caFile : unusableFiles()) {
    SCOPED_TRACE(caFile);
    expectJobsToEndWith(kCaFileUnusable, [&](auto& options) { options.setVerifyPeer(true).setCaFile(caFile); });
  }
}

TEST_F(UnusableOptions, missingOrEmptyCaFileEndsTheTool) {
  for (const std::string& caFile : unusableFiles()) {
    const support::Finished done = get({url(), "out", "--cacert", caFile});
    EXPECT_EQ(done.exitCode, kTrustExitCode) << done.err;
    EXPECT_FALSE(support::exists(file("out")));
  }
}

TEST_F(UnusableOptions, caFileWithoutVerificationEndsRequests) {
  expectRequestsToEndWith(kBadArgument, [this](auto& options) { options.setCaFile(servers_.caFile()); });
}

TEST_F(UnusableOptions, jobsEndWhenThereIsACaFileWithoutVerification) {
  expectJobsToEndWith(kBadArgument, [this](auto& options) { options.setCaFile(servers_.caFile()); });
}

// ---- Trust is not inherited ----

class LaterTrust : public TrustTest {
 protected:
  int ask(Certificate certificate, const FetchOptions& options, const std::string& mark = "") const {
    return xfer::fetch(requestFor(servers_.url(certificate, ownPath("one.bin", mark))), options).curlCode;
  }

  // Two requests of the same trust share a connection, which then is there for the next one.
  void leaveConnection(Certificate certificate, const FetchOptions& options) const {
    EXPECT_EQ(ask(certificate, options, "-first"), 0);
    EXPECT_EQ(ask(certificate, options, "-second"), 0);
    EXPECT_EQ(connectionOf(ownPath("one.bin", "-first")), connectionOf(ownPath("one.bin", "-second")));
  }

  // Only the TLS session is left, which could be resumed.
  void leaveSession(Certificate certificate, const FetchOptions& options) const {
    xfer::Request request = requestFor(servers_.url(certificate, ownPath("one.bin")));
    request.headers = {"Connection: close"};
    EXPECT_EQ(xfer::fetch(request, options).curlCode, 0);
  }
};

TEST_F(LaterTrust, caFileThatIsReplacedCountsForTheNextConnection) {
  support::writeFile(file("trusted.pem"), support::readFile(servers_.caFile()).value_or(""));
  const FetchOptions options = verified(file("trusted.pem"), FetchOptions());
  EXPECT_EQ(ask(Certificate::Valid, options), 0);
  support::writeFile(file("trusted.pem"), support::readFile(servers_.otherCaFile()).value_or(""));
  std::string url = servers_.url(Certificate::Valid, ownPath("one.bin"));
  url.replace(url.find("127.0.0.1"), 9, "localhost");  // for which there is no connection yet
  EXPECT_EQ(xfer::fetch(requestFor(url), options).curlCode, kCertificateRefused);
}

TEST_F(LaterTrust, verifiedRequestIsRefusedAfterAnUnverifiedOne) {
  leaveConnection(Certificate::SelfSigned, FetchOptions());
  EXPECT_EQ(ask(Certificate::SelfSigned, verified()), kCertificateRefused);
  EXPECT_EQ(ask(Certificate::SelfSigned, FetchOptions()), 0);
  EXPECT_EQ(ask(Certificate::SelfSigned, verified()), kCertificateRefused);
}

TEST_F(LaterTrust, verifiedRequestIsRefusedAfterAnUnverifiedSession) {
  for (const Certificate certificate : {Certificate::SelfSigned, Certificate::Expired, Certificate::OtherHost}) {
    SCOPED_TRACE(support::nameOf(certificate));
    leaveSession(certificate, FetchOptions());
    EXPECT_EQ(ask(certificate, verified()), kCertificateRefused);
  }
}

TEST_F(LaterTrust, pinnedRequestIsRefusedAfterAnUnpinnedOne) {
  leaveConnection(Certificate::Valid, FetchOptions());
  EXPECT_EQ(ask(Certificate::Valid, pinned(kOtherPin)), kKeyRefused);
  EXPECT_EQ(ask(Certificate::Valid, FetchOptions()), 0);
  leaveSession(Certificate::Valid, FetchOptions());
  EXPECT_EQ(ask(Certificate::Valid, pinned(kOtherPin)), kKeyRefused);
  EXPECT_EQ(ask(Certificate::Valid, pinned(servers_.pin())), 0);
}

TEST_F(LaterTrust, wrongPinIsRefusedAfterTheRightOneAndAfterVerification) {
  leaveConnection(Certificate::Valid, pinned(servers_.pin()));
  EXPECT_EQ(ask(Certificate::Valid, pinned(kOtherPin)), kKeyRefused);
  EXPECT_EQ(ask(Certificate::Valid, verified()), 0);
  EXPECT_EQ(ask(Certificate::Valid, verified().setPinnedKey(kOtherPin)), kKeyRefused);
}

TEST_F(LaterTrust, otherAuthorityIsRefusedAfterTheRightOne) {
  leaveConnection(Certificate::Valid, verified());
  EXPECT_EQ(ask(Certificate::Valid, verified(servers_.otherCaFile(), FetchOptions())), kCertificateRefused);
  EXPECT_EQ(ask(Certificate::Valid, verified("", FetchOptions())), kCertificateRefused);
  EXPECT_EQ(ask(Certificate::Valid, verified()), 0);
}

TEST_F(LaterTrust, unverifiedRequestSucceedsAfterAVerifiedOne) {
  EXPECT_EQ(ask(Certificate::SelfSigned, verified()), kCertificateRefused);
  EXPECT_EQ(ask(Certificate::SelfSigned, FetchOptions()), 0);
  leaveConnection(Certificate::Valid, verified());
  EXPECT_EQ(ask(Certificate::Valid, FetchOptions()), 0);
  EXPECT_EQ(ask(Certificate::Valid, pinned(kOtherPin)), kKeyRefused);
  EXPECT_EQ(ask(Certificate::Valid, FetchOptions()), 0);
}

TEST_F(LaterTrust, firstQuestionIsRefusedAfterAnUnverifiedRequest) {
  leaveConnection(Certificate::SelfSigned, FetchOptions());
  const std::string url = servers_.url(Certificate::SelfSigned, ownPath("1m.bin"));
  EXPECT_EQ(xfer::probeRemoteFile(url, {}, "", 10, verified()).error, kCertificateRefused);
  EXPECT_EQ(xfer::probeRemoteFile(url, {}, "", 10).error, 0);
}

TEST_F(LaterTrust, jobIsRefusedAfterLooserOnesAndLooserRequests) {
  const std::string url = servers_.url(Certificate::SelfSigned, "/1m.bin");
  const auto loose = [] { return support::planUnderTest(64 * 1024); };
  leaveConnection(Certificate::SelfSigned, FetchOptions());
  for (const std::uint64_t knownSize : {std::uint64_t{0}, kSize}) {
    SCOPED_TRACE(knownSize);
    EXPECT_EQ(runJob(url, file("out"), verified(servers_.caFile(), loose()), knownSize).snapshot.errorCode,
              kCertificateRefused);
    expectWhole(runJob(url, file("out"), loose(), knownSize).snapshot, file("out"), kSize);
    EXPECT_EQ(runJob(url, file("out"), verified(servers_.caFile(), loose()), knownSize).snapshot.errorCode,
              kCertificateRefused);
    EXPECT_EQ(runJob(url, file("out"), loose().setPinnedKey(servers_.pin()), knownSize).snapshot.errorCode,
              kKeyRefused);
    expectWhole(runJob(url, file("out"), loose(), knownSize).snapshot, file("out"), kSize);
  }
}

TEST_F(LaterTrust, jobOverHttp2IsRefusedAfterALooserOne) {
  const std::string url = servers_.url(RealServer::NginxH2, "/1m.bin");
  const auto end = [&](const xfer::DownloadOptions& options) {
    return runJob(url, file("out"), options, 0, RealServer::NginxH2).snapshot;
  };
  const auto loose = [] { return support::planUnderTest(64 * 1024); };
  expectWhole(end(loose()), file("out"), kSize);
  EXPECT_EQ(end(verified(servers_.caFile(), loose())).errorCode, kCertificateRefused);
  expectWhole(end(verified(servers_.certificateFile(), loose())), file("out"), kSize);
  EXPECT_EQ(end(verified(servers_.certificateFile(), loose()).setPinnedKey(servers_.pin())).errorCode, kKeyRefused);
  expectWhole(end(loose()), file("out"), kSize);
}

TEST_F(LaterTrust, certificateIsCheckedBehindAProxyToo) {
  for (const auto& [certificate, code] :
       {std::pair{Certificate::Valid, 0}, {Certificate::OtherHost, kCertificateRefused}}) {
    xfer::Request request = requestFor(servers_.url(certificate, ownPath("one.bin")));
    request.proxy = {.host = "127.0.0.1", .port = servers_.proxyPort(), .username = {}, .password = {}};
    EXPECT_EQ(xfer::fetch(request).curlCode, 0) << support::nameOf(certificate);
    EXPECT_EQ(xfer::fetch(request, verified()).curlCode, code) << support::nameOf(certificate);
  }
}

}  // namespace
