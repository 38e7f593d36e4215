// The library's own result codes.
//
// Results may also hold, unchanged:
//   - libcurl's codes.  The library returns some of them itself, with libcurl's meaning: 42 when it aborts a transfer,
//     43 for an unusable policy or text, and others;
//   - an HTTP status (a job, a probe), when the response is the failure.
#pragma once

#include <cstdint>

namespace xfer::result {

inline constexpr std::int32_t kSuccess = 0;
inline constexpr std::int32_t kNoHandle = -1;             ///< no libcurl handle could be created: fetch, probe, backend
inline constexpr std::int32_t kWriteFailed = -1;          ///< a write to the file failed: FileSink::writeAt, job
inline constexpr std::int32_t kTextException = -1;        ///< an exception was caught: xfer_downloadText
inline constexpr std::int32_t kSizeException = 1;         ///< an exception was caught: xfer_getRemoteFileSize
inline constexpr std::int32_t kNoSize = 100;              ///< no size in the response: xfer_getRemoteFileSize
inline constexpr std::int32_t kStopped = 102;             ///< cancelled, or failed without a code: xfer_getProgress
inline constexpr std::int32_t kException = 100000;        ///< an exception was caught: C entries, job
inline constexpr std::int32_t kUnknownId = 100001;        ///< no such download or request: C entries
inline constexpr std::int32_t kNullUrl = 100001;          ///< url is null: xfer_downloadText
inline constexpr std::int32_t kFileNotCreated = 100004;   ///< FileSink::open
inline constexpr std::int32_t kFileNotOpen = 100006;      ///< FileSink::writeAt, FileSink::finalize
inline constexpr std::int32_t kEmptyBody = 100009;        ///< transfer complete, body buffer empty: C entries
inline constexpr std::int32_t kFileNotReserved = 100024;  ///< FileSink::open
inline constexpr std::int32_t kCaFileUnreadable = 100030;  ///< the CA file cannot be read: xfer_setTls
inline constexpr std::int32_t kCaFileEmpty = 100031;       ///< the CA file holds no certificate: xfer_setTls
inline constexpr std::int32_t kBadRecord = 100032;     ///< a record's size is wrong, or a field is unknown: C entries
inline constexpr std::int32_t kNullArgument = 100033;  ///< a null pointer where none may be: C entries
inline constexpr std::int32_t kOtherKind = 100034;     ///< an id of another kind: C entries
inline constexpr std::int32_t kUnknownEnumerator = 100035;  ///< a field is none of its enumerators: C entries
inline constexpr std::int32_t kInsideCallback = 100036;     ///< not to be called by a callback: xfer_downloadWait
inline constexpr std::int32_t kCallbackThrew = 100037;      ///< a host's callback threw: job, fetch

inline constexpr std::int32_t kNotEnded = 100038;  ///< the time is over: xfer_downloadWait

/// An HTTP status outside of 200 to 299: xfer_downloadText.  -1, an unreadable status, gives -999.
constexpr std::int32_t unexpectedStatus(std::int32_t status) {
  return -1000 - status;
}

}  // namespace xfer::result
