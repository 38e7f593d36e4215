#include "digest.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <new>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "input_file.h"

namespace xfer_get {
namespace {

constexpr std::size_t kPiece = std::size_t{256} * 1024;

const EVP_MD* implementationOf(ChecksumAlgorithm algorithm) {
  switch (algorithm) {
    case ChecksumAlgorithm::Md5:
      return EVP_md5();
    case ChecksumAlgorithm::Sha1:
      return EVP_sha1();
    case ChecksumAlgorithm::Sha256:
      return EVP_sha256();
    case ChecksumAlgorithm::Sha512:
      return EVP_sha512();
  }
  return nullptr;
}

class Hash {
 public:
  explicit Hash(ChecksumAlgorithm algorithm) : algorithm_(algorithm), context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr) throw std::bad_alloc();
    restart();
  }

  void restart() { check(EVP_DigestInit_ex(context_.get(), implementationOf(algorithm_), nullptr)); }

  void add(const char* bytes, std::size_t count) { check(EVP_DigestUpdate(context_.get(), bytes, count)); }

  std::string finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned count = 0;
    check(EVP_DigestFinal_ex(context_.get(), bytes.data(), &count));
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string hex;
    for (unsigned i = 0; i < count; ++i) {
      hex += kDigits[bytes[i] >> 4];
      hex += kDigits[bytes[i] & 0xFU];
    }
    return hex;
  }

 private:
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };

  void check(int success) const {
    if (success == 1) return;
    throw std::system_error(std::make_error_code(std::errc::not_supported), std::string(nameOf(algorithm_)));
  }

  ChecksumAlgorithm algorithm_;
  std::unique_ptr<EVP_MD_CTX, Free> context_;
};

}  // namespace

class FileDigest::Impl {
 public:
  Impl(ChecksumAlgorithm algorithm, std::string path) : hash_(algorithm), path_(std::move(path)), piece_(kPiece) {}

  void take(std::uint64_t there, std::uint64_t most) {
    std::uint64_t left = std::min(most, there - std::min(there, read_));
    while (left > 0) {
      const std::uint64_t count = readPiece(left);
      if (count == 0) {
        throw std::system_error(std::make_error_code(std::errc::io_error),
                                path_ + " ends at byte " + std::to_string(read_) + " of " + std::to_string(there));
      }
      left -= count;
    }
  }

  void restart() {
    hash_.restart();
    file_.reset();
    read_ = 0;
  }

  [[nodiscard]] std::uint64_t read() const { return read_; }

  std::string finish() {
    while (readPiece(kPiece) > 0) {
    }
    file_.reset();
    return hash_.finish();
  }

 private:
  // Returns the number of bytes; 0: at the end of the file.
  std::size_t readPiece(std::uint64_t most) {
    if (!file_) file_.emplace(path_);
    const std::size_t count =
        file_->read(piece_.data(), static_cast<std::size_t>(std::min<std::uint64_t>(most, piece_.size())));
    hash_.add(piece_.data(), count);
    read_ += count;
    return count;
  }

  Hash hash_;
  std::string path_;
  std::optional<InputFile> file_;  // kept open: all bytes are to be of one file
  std::vector<char> piece_;
  std::uint64_t read_ = 0;
};

FileDigest::FileDigest(ChecksumAlgorithm algorithm, std::string path)
    : impl_(std::make_unique<Impl>(algorithm, std::move(path))) {}
FileDigest::FileDigest(FileDigest&&) noexcept = default;
FileDigest& FileDigest::operator=(FileDigest&&) noexcept = default;
FileDigest::~FileDigest() = default;

void FileDigest::take(std::uint64_t there, std::uint64_t most) {
  impl_->take(there, most);
}

void FileDigest::restart() {
  impl_->restart();
}

std::uint64_t FileDigest::read() const {
  return impl_->read();
}

std::string FileDigest::finish() {
  return impl_->finish();
}

class StreamDigest::Impl : public Hash {
 public:
  using Hash::Hash;
};

StreamDigest::StreamDigest(ChecksumAlgorithm algorithm) : impl_(std::make_unique<Impl>(algorithm)) {}
StreamDigest::StreamDigest(StreamDigest&&) noexcept = default;
StreamDigest& StreamDigest::operator=(StreamDigest&&) noexcept = default;
StreamDigest::~StreamDigest() = default;

void StreamDigest::add(const char* bytes, std::size_t count) {
  impl_->add(bytes, count);
}

std::string StreamDigest::finish() {
  return impl_->finish();
}

}  // namespace xfer_get
