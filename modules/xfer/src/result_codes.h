// Every result code of the library's own.
//
// Beside them, the same results may hold numbers that others define and that pass through untouched:
//   - libcurl's codes.  The library gives some of them itself, with libcurl's meaning: 42 when it stops a transfer, 43
//     for a policy or a text that cannot be used, and others;
//   - an HTTP status (a job, a probe), when the answer itself is the failure.
#pragma once

#include <cstdint>

namespace xfer::result {

inline constexpr std::int32_t kSuccess = 0;
inline constexpr std::int32_t kNoHandle = -1;             ///< no libcurl handle could be had: fetch, probe, backend
inline constexpr std::int32_t kWriteFailed = -1;          ///< a write to the file failed: FileSink::writeAt, job
inline constexpr std::int32_t kTextException = -1;        ///< an exception was caught: xfer_downloadText
inline constexpr std::int32_t kSizeException = 1;         ///< an exception was caught: xfer_getRemoteFileSize
inline constexpr std::int32_t kNoSize = 100;              ///< no size in the answer: xfer_getRemoteFileSize
inline constexpr std::int32_t kStopped = 102;             ///< cancelled, or failed without a code: xfer_getProgress
inline constexpr std::int32_t kException = 100000;        ///< an exception was caught: C entries, job
inline constexpr std::int32_t kUnknownId = 100001;        ///< no such download: C entries
inline constexpr std::int32_t kNullUrl = 100001;          ///< xfer_downloadText
inline constexpr std::int32_t kFileNotCreated = 100004;   ///< FileSink::open
inline constexpr std::int32_t kFileNotOpen = 100006;      ///< FileSink::writeAt, FileSink::finalize
inline constexpr std::int32_t kEmptyBody = 100009;        ///< transfer done, body buffer empty: C entries
inline constexpr std::int32_t kFileNotReserved = 100024;  ///< FileSink::open

/// An HTTP status outside of 200 to 299: xfer_downloadText.  A status that could not be read is -1, which gives -999.
constexpr std::int32_t unexpectedStatus(std::int32_t status) {
  return -1000 - status;
}

}  // namespace xfer::result
