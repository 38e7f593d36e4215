#include "target.h"

#include <algorithm>

#include "file_name.h"
#include "path.h"
#include "url.h"

namespace xfer_get {
namespace {

std::string_view trimmed(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r";
  const auto begin = line.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return line.substr(begin, line.find_last_not_of(kBlanks) - begin + 1);
}

std::string inFolder(const std::string& folder, const std::string& name) {
  if (folder.empty() || pathOf(name).is_absolute()) return name;
  return folder.back() == '/' || folder.back() == '\\' ? folder + name : folder + "/" + name;
}

// Lists are often made elsewhere, as of "./name" or "folder/name".
const Checksum* findByName(const ChecksumList& list, std::string_view name) {
  if (const auto exact = list.find(name); exact != list.end()) return &exact->second;
  const Checksum* found = nullptr;
  for (const auto& [path, checksum] : list) {
    if (std::string_view(path).substr(path.rfind('/') + 1) != name) continue;
    if (found != nullptr) return nullptr;  // which of them is meant cannot be known
    found = &checksum;
  }
  return found;
}

// A file that the user has named otherwise is in the list as the server names it.
const Checksum* findChecksum(const ChecksumList& list, const Target& target) {
  const std::string_view path = target.path;
  const Checksum* const stored = findByName(list, path.substr(path.find_last_of("/\\") + 1));
  return stored != nullptr ? stored : findByName(list, fileNameFromUrl(target.url));
}

}  // namespace

Targets targetsFromList(std::string_view text, const std::string& list) {
  Targets targets;
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.substr(0, kByteOrderMark.size()) == kByteOrderMark) text.remove_prefix(kByteOrderMark.size());
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view whole = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), whole.size() + 1));
    const std::string_view line = trimmed(whole);
    if (line.empty() || line.front() == '#') continue;
    if (!isHttpUrl(line)) {
      targets.error = list + ":" + std::to_string(number) + ": not an http or https URL: " + std::string(line);
      return targets;
    }
    targets.all.push_back({std::string(line), {}, {}, {}});
  }
  if (targets.all.empty()) targets.error = list + ": no URL in it";
  return targets;
}

Targets placeTargets(const Options& options, Targets listed, bool devices, const ChecksumList* checksums) {
  Targets targets;
  for (const std::string& url : options.urls) targets.all.push_back({url, {}, options.checksum, {}});
  std::move(listed.all.begin(), listed.all.end(), std::back_inserter(targets.all));
  for (Target& target : targets.all) {
    std::string name = options.file.empty() ? fileNameFromUrl(target.url) : options.file;
    if (name.empty() || (options.file.empty() && devices && namesDeviceOfWindows(name))) {
      targets.error = target.url + ": the URL gives no usable file name: name the file with -o";
      return targets;
    }
    target.path = inFolder(options.folder, name);
    if (checksums == nullptr) continue;
    const Checksum* const checksum = findChecksum(*checksums, target);
    if (checksum == nullptr) {
      targets.error = options.checksumFile + ": no line, or more than one, for " + name;
      return targets;
    }
    target.checksum = *checksum;
  }
  return targets;
}

}  // namespace xfer_get
