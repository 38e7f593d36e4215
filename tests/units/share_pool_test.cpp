// Which share an operation gets.  The linker sends the calls that make and end share handles through this file, which
// counts what lives.
#include "share_pool.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

int g_shares = 0;
bool g_noneLeft = false;

}  // namespace

extern "C" {

CURLSH* __real_curl_share_init(void);
CURLSHcode __real_curl_share_cleanup(CURLSH* share);

CURLSH* __wrap_curl_share_init(void) {
  if (g_noneLeft) return nullptr;
  ++g_shares;
  return __real_curl_share_init();
}

CURLSHcode __wrap_curl_share_cleanup(CURLSH* share) {
  --g_shares;
  return __real_curl_share_cleanup(share);
}
}

namespace {

using xfer::originOf;
using xfer::ShareLease;
using xfer::SharePool;
using xfer::TlsTrust;
using xfer::Wire;

class Shares : public testing::Test {
 protected:
  Shares() { pool_.open(); }
  ~Shares() override {
    pool_.close();
    EXPECT_EQ(g_shares, 0) << "closing ends them all";
  }

  SharePool pool_;
};

TEST_F(Shares, firstTakerGetsThePrimaryOneAndAConcurrentOneAnother) {
  const ShareLease first = pool_.lease("http://a");
  EXPECT_EQ(first.handle(), pool_.primary());
  const ShareLease second = pool_.lease("http://a");
  ASSERT_NE(second.handle(), nullptr);
  EXPECT_NE(second.handle(), first.handle());
  EXPECT_EQ(g_shares, 2);
}

TEST_F(Shares, sequentialTakersShareOne) {
  for (int i = 0; i < 50; ++i) EXPECT_EQ(pool_.lease("http://a").handle(), pool_.primary());
  EXPECT_EQ(g_shares, 1);
}

// Whoever trusts less may have accepted what the other one would refuse.
TEST_F(Shares, areOnlyForTransfersThatTrustTheSame) {
  const std::vector<TlsTrust> trusts = {{},
                                        {true, {}, {}},
                                        {true, "a.pem", {}},
                                        {true, "b.pem", {}},
                                        {false, {}, "sha256//A"},
                                        {true, {}, "sha256//A"},
                                        {true, "a.pem", "sha256//A"}};
  std::vector<CURLSH*> handles;
  for (const TlsTrust& trust : trusts) handles.push_back(pool_.lease("https://a", Wire::Http1, trust).handle());
  EXPECT_EQ(handles[0], pool_.primary());
  EXPECT_EQ(std::set<CURLSH*>(handles.begin(), handles.end()).size(), trusts.size());
  for (std::size_t i = 0; i < trusts.size(); ++i) {
    EXPECT_EQ(pool_.lease("https://a", Wire::Http1, trusts[i]).handle(), handles[i])
        << "kept for the same trust: " << i;
    EXPECT_EQ(pool_.lease("https://b", Wire::Http1, trusts[i]).handle(), handles[i]) << "for any host: " << i;
  }
}

TEST_F(Shares, keepTheDriverThatATakerAskedFor) {
  const CURLM* multi = nullptr;
  {
    const ShareLease first = pool_.lease("http://a");
    ASSERT_NE(first.driver(), nullptr);
    multi = first.driver()->multi.get();
    EXPECT_TRUE(first.driver()->canBeWoken);
    EXPECT_EQ(first.driver()->multi.get(), multi);
    const ShareLease second = pool_.lease("http://a");
    EXPECT_NE(second.driver()->multi.get(), multi) << "each at work has its own";
  }
  EXPECT_EQ(pool_.lease("http://a").driver()->multi.get(), multi);
  pool_.close();
  EXPECT_EQ(pool_.lease("http://a").driver(), nullptr) << "there is no share that could keep one";
}

TEST_F(Shares, idleOneLastUsedForTheSameHostGoesFirst) {
  CURLSH* second = nullptr;
  {
    const ShareLease a = pool_.lease("http://a");
    const ShareLease b = pool_.lease("http://b");
    second = b.handle();
  }
  EXPECT_EQ(pool_.lease("http://a").handle(), pool_.primary());
  EXPECT_EQ(pool_.lease("http://b").handle(), second);
  EXPECT_EQ(pool_.lease("http://c").handle(), pool_.primary()) << "of those that know nothing of a host";
}

TEST_F(Shares, idleOneIsOfTheHostThatItWasLastUsedFor) {
  ShareLease primary = pool_.lease("http://a");
  static_cast<void>(pool_.lease("http://b"));
  CURLSH* const second = pool_.lease("http://c").handle();
  primary = {};
  EXPECT_EQ(pool_.lease("http://c").handle(), second);
}
TEST_F(Shares, idleOnesAreTakenBeforeANewOneIsMade) {
  {
    const ShareLease a = pool_.lease("http://a");
    const ShareLease b = pool_.lease("http://b");
  }
  const ShareLease c = pool_.lease("http://c");
  const ShareLease d = pool_.lease("http://d");
  EXPECT_EQ(g_shares, 2);
}

TEST_F(Shares, noneIsEverUsedForBothWires) {
  std::set<CURLSH*> http2;
  {
    const ShareLease a = pool_.lease("https://a", Wire::Http2);
    const ShareLease b = pool_.lease("https://b", Wire::Http2);
    http2 = {a.handle(), b.handle()};
  }
  EXPECT_EQ(http2.count(pool_.primary()), 0U);
  std::vector<ShareLease> leases;
  for (int i = 0; i < 3; ++i) {
    leases.push_back(pool_.lease("https://a", Wire::Http1));
    EXPECT_EQ(http2.count(leases.back().handle()), 0U);
  }
  EXPECT_EQ(http2.count(pool_.lease("https://a", Wire::Http2).handle()), 1U);
}

TEST_F(Shares, idleOnesBeyondABoundAreDestroyedButNeverThePrimaryOne) {
  constexpr int kTakers = 100;
  for (int round = 0; round < 2; ++round) {
    std::vector<ShareLease> leases;
    for (int i = 0; i < kTakers; ++i) leases.push_back(pool_.lease("http://host" + std::to_string(i)));
    EXPECT_EQ(g_shares, kTakers);
    leases.clear();
    EXPECT_GT(g_shares, 1);
    EXPECT_LE(g_shares, kTakers / 4);
  }
  std::set<CURLSH*> alive;
  std::vector<ShareLease> leases;
  for (int left = g_shares; left > 0; --left) {
    leases.push_back(pool_.lease("http://new"));
    alive.insert(leases.back().handle());
  }
  EXPECT_EQ(alive.count(pool_.primary()), 1U);
}

TEST_F(Shares, leaseThatOutlivesThePoolsEndIsStillGood) {
  ShareLease lease = pool_.lease("http://a");
  pool_.close();
  EXPECT_EQ(pool_.primary(), nullptr);
  EXPECT_EQ(pool_.lease("http://a").handle(), nullptr) << "there is nothing to lend any more";
  EXPECT_EQ(g_shares, 1);
  CURL* const easy = curl_easy_init();
  EXPECT_EQ(curl_easy_setopt(easy, CURLOPT_SHARE, lease.handle()), CURLE_OK);
  curl_easy_cleanup(easy);
  lease = {};
  EXPECT_EQ(g_shares, 0);
}

TEST_F(Shares, movedLeaseIsGivenBackOnce) {
  ShareLease first = pool_.lease("http://a");
  CURLSH* const handle = first.handle();
  ShareLease second = std::move(first);
  EXPECT_EQ(second.handle(), handle);
  second = pool_.lease("http://b");
  EXPECT_NE(second.handle(), handle);
  EXPECT_EQ(pool_.lease("http://a").handle(), handle);
  EXPECT_EQ(g_shares, 2);
}

TEST(UnopenedShares, areNoneAndLeasesAreEmpty) {
  SharePool pool;
  EXPECT_EQ(pool.primary(), nullptr);
  EXPECT_EQ(pool.lease("http://a").handle(), nullptr);
}

TEST(UnopenedShares, libcurlWithoutAShareToGiveMeansWorkingUnshared) {
  g_noneLeft = true;
  {
    SharePool pool;
    pool.open();
    EXPECT_EQ(pool.primary(), nullptr);
    EXPECT_EQ(pool.lease("http://a").handle(), nullptr);
    pool.close();
  }
  g_noneLeft = false;
}

TEST(Origin, isSchemeHostAndPortAsWritten) {
  EXPECT_EQ(originOf("http://host/path"), "http://host");
  EXPECT_EQ(originOf("https://host:8443?query"), "https://host:8443");
  EXPECT_EQ(originOf("http://host#part"), "http://host");
  EXPECT_EQ(originOf("http://host"), "http://host");
  EXPECT_EQ(originOf("host:80/path"), "host:80");
  EXPECT_EQ(originOf(""), "");
}

}  // namespace
