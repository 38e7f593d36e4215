#include "request_text.h"

#include <gtest/gtest.h>

#include "proxy_setting.h"

using namespace xfer;

namespace {

std::vector<std::string> lines(const char* text) {
  std::vector<std::string> out;
  splitLines(text, out);
  return out;
}

TEST(SplitLines, skipsEmptyLines) {
  EXPECT_EQ(lines("A: 1\n\nB: 2\n"), (std::vector<std::string>{"A: 1", "B: 2"}));
}

TEST(SplitLines, keepsACarriageReturn) {
  EXPECT_EQ(lines("A: 1\r\nB: 2"), (std::vector<std::string>{"A: 1\r", "B: 2"}));
}

TEST(SplitLines, appendsNothingForNullAndEmptyTexts) {
  EXPECT_TRUE(lines(nullptr).empty());
  EXPECT_TRUE(lines("").empty());
  EXPECT_TRUE(lines("\n\n").empty());
}

TEST(ParseRequestOptions, readsBodyAndRedirectPolicy) {
  const RequestOptions options = parseRequestOptions("OPT_POSTFIELDS=a=1&b=2\nREDIRECT_POLICY_NEVER");
  EXPECT_EQ(options.postFields, "a=1&b=2");
  EXPECT_TRUE(options.post);
  EXPECT_FALSE(options.followRedirects);
}

TEST(ParseRequestOptions, mindsTheCaseOfLetters) {
  const RequestOptions options = parseRequestOptions("opt_post");
  EXPECT_FALSE(options.post);
  EXPECT_TRUE(options.followRedirects);
  EXPECT_TRUE(options.postFields.empty());
}

TEST(ParseRequestOptions, takesTheLastBodyAndAnEmptyOne) {
  EXPECT_EQ(parseRequestOptions("OPT_POSTFIELDS=a\nOPT_POSTFIELDS=b").postFields, "b");
  const RequestOptions empty = parseRequestOptions("OPT_POSTFIELDS=");
  EXPECT_TRUE(empty.post);
  EXPECT_TRUE(empty.postFields.empty());
  EXPECT_TRUE(parseRequestOptions("OPT_POST").post);
}

TEST(ParseProxySpec, readsCredentialsHostAndPort) {
  const net::Proxy proxy = parseProxySpec("u:p@10.1.2.3:3128");
  EXPECT_EQ(proxy.host, "10.1.2.3");
  EXPECT_EQ(proxy.port, 3128);
  EXPECT_EQ(proxy.username, "u");
  EXPECT_EQ(proxy.password, "p");
}

TEST(ParseProxySpec, defaultsToPort80AndGivesPort0ForNoDigits) {
  EXPECT_EQ(parseProxySpec("proxy").port, 80);
  EXPECT_EQ(parseProxySpec("proxy:abc").port, 0);
  EXPECT_EQ(parseProxySpec("").port, 80);
  EXPECT_EQ(parseProxySpec("").host, "");
}

TEST(ParseProxySpec, knowsNoSchemesAndNoBrackets) {
  EXPECT_EQ(parseProxySpec("http://h:8080").host, "http");
  EXPECT_EQ(parseProxySpec("http://h:8080").port, 0);
  EXPECT_EQ(parseProxySpec("[::1]:8080").host, "[");
}

TEST(ParseProxySpec, takesCredentialsWithoutAColonAsUserName) {
  const net::Proxy proxy = parseProxySpec("user@h");
  EXPECT_EQ(proxy.username, "user");
  EXPECT_EQ(proxy.password, "");
  EXPECT_EQ(proxy.host, "h");
}

TEST(ProxyAddress, leavesAPortOf0Out) {
  EXPECT_EQ(proxyAddress({"h", 0, "", ""}), "h");
  EXPECT_EQ(proxyAddress({"10.0.0.1", 0, "", ""}), "10.0.0.1");
  EXPECT_EQ(proxyAddress({"10.0.0.1", 8080, "", ""}), "10.0.0.1:8080");
  EXPECT_EQ(proxyAddress({}), "");
}

TEST(ResolveProxy, prefersTheSpecToTheModulesSetting) {
  setModuleProxy(parseProxySpec("user:secret@10.0.0.5:3128"));
  EXPECT_EQ(resolveProxy("other:1").host, "other");
  const net::Proxy stored = resolveProxy(nullptr);
  EXPECT_EQ(proxyAddress(stored), "10.0.0.5:3128");
  EXPECT_EQ(stored.username, "user");
  EXPECT_EQ(stored.password, "secret");
  EXPECT_EQ(proxyAddress(resolveProxy("")), "10.0.0.5:3128");
  setModuleProxy({});
  EXPECT_EQ(resolveProxy("").host, "");
  EXPECT_EQ(resolveProxy("").port, 80);
}

TEST(ResolveProxy, storesPort80WhereTheSpecNamesNone) {
  setModuleProxy(parseProxySpec("10.0.0.5"));
  EXPECT_EQ(resolveProxy(nullptr).port, 80);
  setModuleProxy({});
}

TEST(UnworkableMethod, isNoneOfAnyToken) {
  std::string token = "!#$%&'*+-.^_`|~";
  for (char c = '0'; c <= '9'; ++c) token += c;
  for (char c = 'A'; c <= 'Z'; ++c) token += c;
  for (char c = 'a'; c <= 'z'; ++c) token += c;
  for (const std::uint64_t bodySize : {0U, 1U}) {
    EXPECT_EQ(unworkableMethod("", bodySize), nullptr);
    EXPECT_EQ(unworkableMethod("PUT", bodySize), nullptr);
    EXPECT_EQ(unworkableMethod(token, bodySize), nullptr);
    for (const char c : token) EXPECT_EQ(unworkableMethod(std::string(1, c), bodySize), nullptr) << c;
  }
}

TEST(UnworkableMethod, isAnyTextWithAnotherCharacter) {
  const std::string token = "!#$%&'*+-.^_`|~";
  for (int value = 0; value < 256; ++value) {
    const char c = static_cast<char>(value);
    const bool letterOrDigit = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (letterOrDigit || token.find(c) != std::string::npos) continue;
    for (const std::string& text :
         {std::string(1, c), c + std::string("PUT"), std::string("PUT") + c, std::string("P") + c + "UT"}) {
      EXPECT_STREQ(unworkableMethod(text, 0), "method") << value;
    }
  }
}

TEST(UnworkableMethod, isHeadWithABody) {
  EXPECT_EQ(unworkableMethod("HEAD", 0), nullptr);
  EXPECT_STREQ(unworkableMethod("HEAD", 1), "body");
}

TEST(MediaType, isReadWhateverTheCaseOfTheName) {
  EXPECT_EQ(mediaTypeFromHeaders("HTTP/1.1 200 OK\r\nContent-Type: video/mp4; codecs=x\r\n"), 1);
  EXPECT_EQ(mediaTypeFromHeaders("CONTENT-TYPE:video/webm"), 4);
  EXPECT_EQ(mediaTypeFromHeaders("Content-Type: Video/MP4\r\n"), 0);
  EXPECT_EQ(mediaTypeFromHeaders("Content-Type: audio/mp4\r\n"), 0);
}

TEST(MediaType, hasACodeForEachKnownType) {
  const std::vector<std::pair<std::string, int>> types{
      {"video/mpeg", 5},  {"video/mp4", 1},   {"video/x-flv", 2},
      {"video/webm", 4},  {"video/ogg", 6},   {"video/3gp", 3},
      {"video/3gpp", 3},  {"image/jpeg", 12}, {"application/octet-stream", 7},
      {"audio/mpeg", 11}, {"text/html", 0}};
  for (const auto& [type, code] : types)
    EXPECT_EQ(mediaTypeFromHeaders("content-type: " + type + "\r\n"), code) << type;
  EXPECT_EQ(mediaTypeFromHeaders("short"), 0);
}

// Hosts rely on the order too.
TEST(MediaType, thatNamesSeveralHasTheCodeOfTheFirstInTheTablesOrder) {
  const std::vector<std::pair<std::string, int>> order{
      {"video/mpeg", 5}, {"video/mp4", 1}, {"video/x-flv", 2}, {"video/webm", 4},
      {"video/ogg", 6},  {"video/3gp", 3}, {"image/jpeg", 12}, {"application/octet-stream", 7},
      {"audio/mpeg", 11}};
  for (std::size_t first = 0; first < order.size(); ++first) {
    for (std::size_t second = first; second < order.size(); ++second) {
      const std::string value = order[second].first + "+" + order[first].first;
      EXPECT_EQ(mediaTypeFromHeaders("Content-Type: " + value), order[first].second) << value;
    }
  }
}

TEST(MediaType, endsWithItsLineOrItsParameters) {
  EXPECT_EQ(mediaTypeFromHeaders("Content-Type: text/html; video/mp4\r\n"), 0);
  EXPECT_EQ(mediaTypeFromHeaders("Content-Type: text/html\r\nX: video/mp4\r\n"), 0);
  EXPECT_EQ(mediaTypeFromHeaders("Content-Type: text/html\nvideo/mp4\r\n"), 0);
  EXPECT_EQ(mediaTypeFromHeaders("X-Content-Type:   video/mp4"), 1) << "anywhere in the text";
  EXPECT_EQ(mediaTypeFromHeaders("Content-Type:"), 0);
}

TEST(MediaType, ofTheFirstResponseWinsAfterARedirect) {
  EXPECT_EQ(mediaTypeFromHeaders("HTTP/1.1 302 Found\r\nContent-Type: text/html\r\n\r\nContent-Type: video/mp4\r\n"),
            0);
}

TEST(RemoteSize, prefersTheTotalOfA206) {
  EXPECT_EQ(remoteSize(206, "CONTENT-RANGE: bytes 0-0/12345\r\nContent-Length: 1\r\n"), 12345U);
  EXPECT_EQ(remoteSize(206, "Content-Range: bytes 0-0/*\r\nContent-Length: 1\r\n"), 1U);
  EXPECT_EQ(remoteSize(200, "CONTENT-LENGTH:   777\r\n"), 777U);
  EXPECT_EQ(remoteSize(200, "Server: x\r\n"), std::nullopt);
  EXPECT_EQ(remoteSize(404, "Content-Length: 5\r\n"), std::nullopt);
}

TEST(RemoteSize, takesDigitsAlone) {
  EXPECT_EQ(remoteSize(206, "Content-Range: bytes 0-0/-5\r\n"), 0U);
  EXPECT_EQ(remoteSize(206, "Content-Range: bytes 0-0/+5\r\n"), 0U);
  EXPECT_EQ(remoteSize(200, "Content-Length: -5\r\n"), 0U);
  EXPECT_EQ(remoteSize(200, "Content-Length: 5x\r\n"), 5U);
  EXPECT_EQ(remoteSize(200, "Content-Length: \t5\r\n"), 5U);
}

TEST(RemoteSize, doesNotExceed64Bits) {
  EXPECT_EQ(remoteSize(206, "Content-Range: bytes 0-0/18446744073709551615\r\n"), 18446744073709551615U);
  EXPECT_EQ(remoteSize(206, "Content-Range: bytes 0-0/18446744073709551616\r\nContent-Length: 1\r\n"), std::nullopt);
  EXPECT_EQ(remoteSize(200, "Content-Length: 18446744073709551616\r\n"), std::nullopt);
}

TEST(WatchPagePath, needsElevenCharacters) {
  EXPECT_EQ(watchPagePath("https://h/watch?v=abcdefghijk"), "/watch?v=abcdefghijk");
  EXPECT_EQ(watchPagePath("https://h/watch?v=abcdefghij"), "/");
  EXPECT_EQ(watchPagePath("https://h/watch?v=abcdefghijk&t=10"), "/watch?v=abcdefghijk");
  EXPECT_EQ(watchPagePath("https://h/other"), "/");
}

TEST(ParseStatus, givesMinusOneForWhatIsNoNumber) {
  EXPECT_EQ(parseStatus("404"), 404);
  EXPECT_EQ(parseStatus("abc"), -1);
  EXPECT_EQ(parseStatus(""), -1);
  EXPECT_EQ(parseStatus("99999999999999"), -1);
}

}  // namespace
