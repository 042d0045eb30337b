/// @file
/// Sound as 16-bit PCM in WAV files: header and contents, written and read, and the volume of
/// samples in memory. The functions stand in the global namespace.
///
/// All functions may be called from any thread; a `File` and a block of samples belong to one
/// thread at a time.
///
/// @code
///     kest::utils::File file;
///     if (!file.Initialize(path, kest::utils::File::Truncate)) return false;
///     writeWavHeader(file, 1, 16000);
///     while (record(block)) file.WriteBuffer(block.data(), block.size());
///     return finalizeWavHeader(file);
/// @endcode
///
/// The format is the RIFF/WAVE form of "Multimedia Programming Interface and Data Specifications
/// 1.0" (IBM and Microsoft, 1991), with one kind of samples: PCM, signed, 16 bits, little-endian.
#pragma once

#include <string>
#include <vector>

#include <kest/utils/api.h>
#include <kest/utils/file.h>

/// Writes the 44 bytes of a header at the cursor, sizes 0: see finalizeWavHeader().
/// @param channels    samples of one moment, interleaved
/// @param sampleRate  moments in a second
/// @return always true. A write that fails is logged by `file`; the samples that follow will tell.
KEST_API bool writeWavHeader(kest::utils::File& file, unsigned short channels,
                             unsigned int sampleRate);

/// Puts the sizes into the header when all samples are written. The **cursor** counts as the file's
/// size, and the header as standing at the start of the file; the cursor is then behind the second
/// field. Sizes that do not fit into 32 bits become 2^32 - 1. Not for a file in mode Append, where
/// every write goes to the end.
/// @return false, after a log line, when there are no samples or the file cannot be changed.
KEST_API bool finalizeWavHeader(kest::utils::File& file);

/// What a file holds. The format chunk must be the first, of 16, 18 or 40 bytes; chunks before the
/// samples are skipped, 4,095 at the most. They are skipped by their size as written: the padding
/// byte that RIFF puts behind an odd one is **not** expected.
/// @param dataSize  bytes of samples as the header has it, be they there or not
/// @return false, after a log line, when the file is no such file; the results stay as they were.
KEST_API bool readWavHeader(const std::string& path, unsigned short& channels,
                            unsigned int& sampleRate, unsigned int& dataSize);

/// The samples of a file, in the bytes of the file.
/// @param data        replaced. Emptied when the samples cannot be read to their end, which takes
///                    no memory where the header promises more than the file holds; as it was
///                    after every other failure.
/// @param channels    required, 0 for any
/// @param sampleRate  required, 0 for any
/// @param maxSize     largest number of bytes allowed, 0 for any that memory can be had for
/// @return false, after a log line, when the file is not as required or cannot be read.
KEST_API bool readWav(const std::string& path, std::vector<unsigned char>& data,
                      unsigned short channels, unsigned int sampleRate, unsigned int maxSize);

/// Multiplies samples by a percentage, in place, rounding toward zero. Does not allocate.
/// @param samples  in the processor's byte order, which must be that of WAV files; any alignment
/// @param length   in **bytes**. An odd byte at the end stays as it is.
/// @param volume   100 leaves the samples alone, and so does more, which is logged as a warning.
///                 A negative volume inverts them; below -99 they stop at the ends of the 16-bit
///                 range.
KEST_API void setWavVolume(unsigned char* samples, int length, int volume);
