#include "checksum.h"

#include <algorithm>
#include <array>
#include <utility>

namespace xfer_get {
namespace {

struct Known {
  ChecksumAlgorithm algorithm;
  std::string_view name;
  std::size_t digits;
};

constexpr std::array<Known, 4> kKnown{{{ChecksumAlgorithm::Md5, "md5", 32},
                                       {ChecksumAlgorithm::Sha1, "sha1", 40},
                                       {ChecksumAlgorithm::Sha256, "sha256", 64},
                                       {ChecksumAlgorithm::Sha512, "sha512", 128}}};

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string lower(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lowered;
}

bool isHex(std::string_view lowered) {
  return lowered.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::optional<Checksum> checksumFromParts(std::string_view name, std::string_view digits) {
  const auto known =
      std::find_if(kKnown.begin(), kKnown.end(), [name = lower(name)](const Known& each) { return each.name == name; });
  std::string hex = lower(digits);
  if (known == kKnown.end() || hex.size() != known->digits || !isHex(hex)) return std::nullopt;
  return Checksum{known->algorithm, std::move(hex)};
}

std::optional<Checksum> checksumFromDigits(std::string_view digits) {
  const auto known =
      std::find_if(kKnown.begin(), kKnown.end(), [&](const Known& each) { return each.digits == digits.size(); });
  return known == kKnown.end() ? std::nullopt : checksumFromParts(known->name, digits);
}

struct Entry {
  std::string name;
  Checksum checksum;
};

// "HEX  NAME" or "HEX *NAME".
std::optional<Entry> plainEntry(std::string_view line) {
  const auto space = line.find(' ');
  if (space == std::string_view::npos) return std::nullopt;
  const std::string_view rest = line.substr(space + 1);
  if (!rest.starts_with(' ') && !rest.starts_with('*')) return std::nullopt;
  auto checksum = checksumFromDigits(line.substr(0, space));
  if (!checksum) return std::nullopt;
  return Entry{std::string(rest.substr(1)), *std::move(checksum)};
}

// "ALGO (NAME) = HEX".
std::optional<Entry> taggedEntry(std::string_view line) {
  constexpr std::string_view kOpen = " (";
  constexpr std::string_view kClose = ") = ";
  const auto open = line.find(kOpen);
  if (open == std::string_view::npos) return std::nullopt;
  const std::string_view rest = line.substr(open + kOpen.size());
  const auto close = rest.rfind(kClose);  // the name may contain the same characters
  if (close == std::string_view::npos) return std::nullopt;
  auto checksum = checksumFromParts(line.substr(0, open), rest.substr(close + kClose.size()));
  if (!checksum) return std::nullopt;
  return Entry{std::string(rest.substr(0, close)), *std::move(checksum)};
}

std::optional<std::string> unescape(std::string_view name) {
  std::string plain;
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] != '\\') {
      plain += name[i];
      continue;
    }
    switch (++i < name.size() ? name[i] : '\0') {
      case '\\':
        plain += '\\';
        break;
      case 'n':
        plain += '\n';
        break;
      case 'r':
        plain += '\r';
        break;
      default:
        return std::nullopt;
    }
  }
  return plain;
}

std::optional<Entry> entryFromLine(std::string_view line) {
  const bool escaped = line.starts_with('\\');
  if (escaped) line.remove_prefix(1);
  auto entry = plainEntry(line);
  if (!entry) entry = taggedEntry(line);
  if (!entry) return std::nullopt;
  if (escaped) {
    auto name = unescape(entry->name);
    if (!name) return std::nullopt;
    entry->name = *std::move(name);
  }
  // No file has such a name; cut at the NUL, it would be another file's.
  if (entry->name.empty() || entry->name.find('\0') != std::string::npos) return std::nullopt;
  return entry;
}

}  // namespace

std::string_view nameOf(ChecksumAlgorithm algorithm) {
  return std::find_if(kKnown.begin(), kKnown.end(),
                      [algorithm](const Known& each) { return each.algorithm == algorithm; })
      ->name;
}

std::optional<Checksum> checksumFromText(std::string_view text) {
  const auto equals = text.find('=');
  if (equals == std::string_view::npos) return std::nullopt;
  return checksumFromParts(text.substr(0, equals), text.substr(equals + 1));
}

std::optional<ChecksumList> checksumListFromText(std::string_view text, std::size_t* badLine) {
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  std::map<std::pair<std::string, ChecksumAlgorithm>, std::string> digits;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const auto end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (line.empty() || line.starts_with('#')) continue;
    auto entry = entryFromLine(line);
    if (entry) {
      const auto [known, isNew] =
          digits.try_emplace({std::move(entry->name), entry->checksum.algorithm}, entry->checksum.hex);
      if (isNew || known->second == entry->checksum.hex) continue;
    }
    *badLine = number;
    return std::nullopt;
  }
  // In ascending order of the algorithms, of which the last is the strongest.
  ChecksumList list;
  for (auto& [key, hex] : digits) list.insert_or_assign(key.first, Checksum{key.second, std::move(hex)});
  return list;
}

}  // namespace xfer_get
