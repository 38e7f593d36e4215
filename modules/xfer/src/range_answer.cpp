#include "range_answer.h"

namespace xfer {

RangeAnswer judgeAnswer(const ResponseHead& head, std::uint64_t start, std::uint64_t end, RemoteIdentity& identity) {
  using Kind = RangeAnswer::Kind;
  if (head.status != 200 && head.status != 206) return {Kind::NoContent};
  const bool isRange = head.status == 206;
  const auto& range = head.contentRange;
  if (isRange && head.multipartRanges) return {Kind::Misplaced, "multipart answer"};
  // Without a readable Content-Range the answer is taken as asked for.
  if (isRange && range && range->first != start) return {Kind::Misplaced, "Content-Range starts elsewhere"};
  const std::optional<std::uint64_t> total = isRange && range ? range->total : std::nullopt;
  if (total && identity.total && *total != *identity.total)
    return {Kind::FileChanged, "size of the remote file changed"};
  if (!head.strongEtag.empty() && !identity.strongEtag.empty() && head.strongEtag != identity.strongEtag) {
    return {Kind::FileChanged, "entity tag of the remote file changed"};
  }
  if (total) identity.total = total;
  if (!head.strongEtag.empty()) identity.strongEtag = head.strongEtag;
  const bool asked = start != 0 || end != 0;
  return {!isRange && asked ? Kind::WholeFile : Kind::Range};
}

}  // namespace xfer
