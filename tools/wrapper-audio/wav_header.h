/**
 * What stands in a WAV file in front of its samples.
 */
#ifndef WAV_HEADER_H
#define WAV_HEADER_H

#include "output.h"

#include <cstdint>
#include <string>

/** How many bytes each of its samples has. */
std::size_t bytes_of(sample_size bits);

/**
 * The header for so many bytes of samples. All have the same length: those of 4 GiB and more make it RF64 (EBU Tech 3306),
 * whose longer sizes stand where the others have an empty chunk.
 */
std::string wav_header(const stream_shape& shape, sample_size bits, std::uint64_t bytes);

/** The header in a pipe, when nobody knows the end: the largest sizes, which readers take for "until the end". */
std::string endless_wav_header(const stream_shape& shape, sample_size bits);

#endif
