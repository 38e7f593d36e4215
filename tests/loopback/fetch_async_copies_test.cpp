// How often a request, or its body, is copied on its way.  This program's operator new counts the blocks that are large
// enough for the request's body; libcurl's own memory, which is not C++'s, is not counted.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "support/unused_port.h"
#include "xfer/fetch.h"
#include "xfer/xfer_request.h"

namespace {

constexpr std::size_t kBodyBytes = 4'000'000;

std::atomic<int> g_bodies{0};

// Not inlined: the compiler would take malloc and free here for a mistake of who calls new and delete.
[[gnu::noinline]] void* allocate(std::size_t size) {
  if (size >= kBodyBytes) ++g_bodies;
  void* const block = std::malloc(size != 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

[[gnu::noinline]] void release(void* block) {
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
  release(block);
}

namespace {

TEST(FetchAsync, copiesItsRequestOnce) {
  const support::UnusedPort nobody;
  xfer::Request request;
  request.url = nobody.url("/");
  request.body = std::string(kBodyBytes, 'x');
  g_bodies = 0;
  EXPECT_EQ(xfer::fetchAsync(request).get().curlCode, 7);
  EXPECT_EQ(g_bodies, 1);
}

TEST(Fetch, copiesNoBody) {
  const support::UnusedPort nobody;
  xfer::Request request;
  request.url = nobody.url("/");
  request.body = std::string(kBodyBytes, 'x');
  const xfer::FetchOptions options = xfer::FetchOptions().setUserAgent("host/1").setMethod("PUT").setMaxRedirects(1);
  g_bodies = 0;
  EXPECT_EQ(xfer::fetch(request, options).curlCode, 7);
  EXPECT_EQ(g_bodies, 0);
}

TEST(CRequest, copiesNoBody) {
  const support::UnusedPort nobody;
  const std::string url = nobody.url("/");
  const std::string body(kBodyBytes, 'x');
  xfer_request_options options;
  xfer_response response;
  xfer_requestOptionsInit(&options, sizeof options);
  xfer_responseInit(&response, sizeof response);
  options.url = url.c_str();
  options.body = body.data();
  options.bodySize = body.size();
  g_bodies = 0;
  EXPECT_EQ(xfer_request(&options, &response), 7);
  EXPECT_EQ(g_bodies, 0);
}

}  // namespace
