#include "body_placement.h"

namespace xfer {

AnswerClaim readClaim(const ResponseHead& head, std::uint64_t start) {
  using Kind = AnswerClaim::Kind;
  AnswerClaim claim;
  if (head.status != 200 && head.status != 206) return claim;
  const auto unusable = [&](const char* reason) {
    claim.kind = Kind::Unusable;
    claim.reason = reason;
    return claim;
  };
  if (head.contentLengthsDiffer) return unusable("several Content-Length fields that differ");
  // libcurl 8.14 takes such a body for ended with what came along with the head, and says nothing.
  if (head.transferEncoding && head.contentLength == 0U) return unusable("Content-Length of 0 beside a coding");
  if (head.status == 200) {
    claim.kind = Kind::WholeFile;
    claim.length = head.bodyLength();
    claim.endIsSeen = claim.length || head.transferEncoding;
    return claim;
  }
  if (head.multipartRanges) return unusable("multipart answer");
  claim.kind = Kind::Range;
  // Without a readable Content-Range the answer is taken as asked for.
  if (!head.contentRange) return claim;
  if (head.contentRange->first != start) return unusable("Content-Range starts elsewhere");
  claim.total = head.contentRange->total;
  claim.namedEnd = head.contentRange->last + 1;
  return claim;
}

}  // namespace xfer
