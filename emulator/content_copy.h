// Streaming copies between file descriptors, in bounded memory, with progress
// points. Uploads also need the MD5 of what was stored: the copy runs in the
// kernel (copy_file_range) while a second thread hashes the stored bytes right
// behind it, so the checksum costs little more than reading the file once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace DriveEmulator {

// Called with the number of bytes done each time that number crosses a
// multiple of the progress step, and once more at the end when the last
// crossing was not the end.
using ProgressCallback = std::function<void(std::int64_t done)>;

struct CopyResult {
    std::int64_t bytes = 0;
    std::string md5;  // lower-case hex; empty from copyBytes
};

// Asked between chunks; true stops the copy with Error(-1) (nobody wants it any more).
using AbandonCheck = std::function<bool()>;

// Copies `in` from its current offset to its end into `out`, which must be
// open for reading and writing at offset 0, and hashes the bytes as stored in
// `out`. `progressStep` <= 0 calls no progress. Throws Error(-1) naming the
// errno when reading or writing fails.
CopyResult copyWithMd5(int in, int out, std::int64_t progressStep, ProgressCallback const& progress,
                       AbandonCheck const& abandoned = {});

// Copies up to `length` bytes (fewer if `in` ends first) from `in` to `out`.
CopyResult copyBytes(int in, int out, std::int64_t length, std::int64_t progressStep,
                     ProgressCallback const& progress, AbandonCheck const& abandoned = {});

// The MD5 of `data`, as lower-case hex.
std::string md5Hex(std::string const& data);

// The MD5 of the empty content.
extern char const* const kEmptyMd5;

}  // namespace DriveEmulator
