// Lists of checksums come from anywhere: reading one neither crashes nor breaks its promises, whatever the text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "checksum.h"
#include "fuzz/promise.h"

namespace {

using fuzz::promise;

void isWhole(const xfer_get::Checksum& checksum) {
  const std::map<std::string_view, std::size_t> digits = {{"md5", 32}, {"sha1", 40}, {"sha256", 64}, {"sha512", 128}};
  promise(checksum.hex.size() == digits.at(xfer_get::nameOf(checksum.algorithm)),
          "as many digits as the algorithm has");
  promise(checksum.hex.find_first_not_of("0123456789abcdef") == std::string::npos, "and nothing but digits");
}

std::string escaped(std::string_view name) {
  std::string text;
  for (const char c : name) {
    if (c == '\\' || c == '\n' || c == '\r') text += '\\';
    text += c == '\n' ? 'n' : c == '\r' ? 'r' : c;
  }
  return text;
}

void readsAChecksum(const std::string& text) {
  const auto checksum = xfer_get::checksumFromText(text);
  if (!checksum) return;
  isWhole(*checksum);
  const auto again =
      xfer_get::checksumFromText(std::string(xfer_get::nameOf(checksum->algorithm)) + '=' + checksum->hex);
  promise(again && again->algorithm == checksum->algorithm && again->hex == checksum->hex, "it is read as it is told");
}

void readsAList(const std::string& text) {
  std::size_t badLine = 0;
  const auto list = xfer_get::checksumListFromText(text, &badLine);
  if (!list) {
    const auto lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    return promise(badLine >= 1 && badLine <= lines, "a bad line is one of the text's");
  }
  promise(badLine == 0, "no line is bad when there is a list");
  std::string plain;
  std::string tagged;
  for (const auto& [name, checksum] : *list) {
    isWhole(checksum);
    promise(!name.empty() && name.find('\0') == std::string::npos, "a name can be a file's");
    plain.append("\\").append(checksum.hex).append("  ").append(escaped(name)).append("\n");
    tagged.append("\\").append(xfer_get::nameOf(checksum.algorithm)).append(" (").append(escaped(name)).append(") = ");
    tagged.append(checksum.hex).append("\r\n");
  }
  for (const std::string& again : {plain, tagged, plain + tagged}) {
    const auto same = xfer_get::checksumListFromText(again, &badLine);
    promise(same.has_value() && same->size() == list->size(), "a list is read as it is told");
    promise(std::equal(list->begin(), list->end(), same->begin(),
                       [](const auto& one, const auto& other) {
                         return one.first == other.first && one.second.algorithm == other.second.algorithm &&
                                one.second.hex == other.second.hex;
                       }),
            "and says the same");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  readsAChecksum(text);
  readsAList(text);
  return 0;
}
