// Checksums that a file is to have: names of algorithms, digits, and lists in the format of the sha256sum family.
// Pure; knows nothing of files.
//
// Errors: std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace xfer_get {

/// In ascending order of strength.
enum class ChecksumAlgorithm : std::uint8_t { Md5, Sha1, Sha256, Sha512 };

struct Checksum {
  ChecksumAlgorithm algorithm = ChecksumAlgorithm::Sha256;
  std::string hex;  ///< lower-case digits, as many as the algorithm has
};

/// "sha256", "sha512", "sha1", "md5".
std::string_view nameOf(ChecksumAlgorithm algorithm);

/// Of "ALGO=HEX" ("sha256=ab12..."), in any case; nothing when the algorithm is unknown or the digits do not fit it.
std::optional<Checksum> checksumFromText(std::string_view text);

/// What a list says: name of a file, with its folders as the list has them, to its checksum.
using ChecksumList = std::map<std::string, Checksum, std::less<>>;

/// Of lines "HEX  NAME", "HEX *NAME", where the number of digits tells the algorithm, and "ALGO (NAME) = HEX"; when the
/// line begins with a backslash, NAME has \\, \n and \r escaped.  Lines may end with CR LF.  A byte order mark (UTF-8)
/// at the beginning, empty lines and lines that begin with # are ignored.  Of a name's checksums of several algorithms
/// the strongest is kept.  Nothing, with *badLine set to the number of the first bad line (from 1 on), when a line is
/// anything else, or contradicts an earlier one.
std::optional<ChecksumList> checksumListFromText(std::string_view text, std::size_t* badLine);

}  // namespace xfer_get
