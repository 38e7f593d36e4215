#include "proxy_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using xfer_get::proxyFromText;

void expectProxy(const char* text, const std::string& host, int port, const std::string& username = "",
                 const std::string& password = "") {
  const auto proxy = proxyFromText(text);
  ASSERT_TRUE(proxy) << text;
  EXPECT_EQ(proxy->host, host) << text;
  EXPECT_EQ(proxy->port, port) << text;
  EXPECT_EQ(proxy->username, username) << text;
  EXPECT_EQ(proxy->password, password) << text;
}

TEST(ProxyText, namesAHostAndAPort) {
  expectProxy("proxy:3128", "proxy", 3128);
  expectProxy("proxy", "proxy", 80);
  expectProxy("http://proxy:3128/", "proxy", 3128);
  expectProxy("[::1]:3128", "[::1]", 3128);
  expectProxy("[::1]", "[::1]", 80);
}

TEST(ProxyText, mayHoldALogin) {
  expectProxy("user@proxy:3128", "proxy", 3128, "user");
  expectProxy("user:pass@proxy", "proxy", 80, "user", "pass");
  expectProxy("user:p@ss:word@proxy:1", "proxy", 1, "user", "p@ss:word");
}

TEST(ProxyText, isRefusedWhenItIsOfAnotherForm) {
  for (const char* text :
       {"",          ":",       ":3128",  "proxy:",      "proxy:0",   "proxy:65536",      "proxy:port",
        "proxy:80x", "user@",   "@proxy", ":pass@proxy", "pro xy:80", "socks5://proxy:1", "https://proxy:1",
        "a/b",       "::1",     "::1:80", "[::1",        "[]:80",     "[::1]x:80",        "[::1]80",
        "::1]",      "proxy\t", "proxy?", "http://",     "proxy:-1",  "proxy:+1",         "user@@"}) {
    EXPECT_FALSE(proxyFromText(text)) << text;
  }
}

}  // namespace
