#include "wav_header.h"

namespace {

constexpr std::uint64_t largest_size = 0xFFFFFFFF;

std::string text_of(std::uint64_t number, int bytes) {
    std::string text;
    for (int at = 0; at < bytes; ++at)
        text += static_cast<char>(number >> (8 * at) & 0xFF);
    return text;
}

/** "WAVE" begins what `size` counts, and `wide_sizes` is a chunk or nothing. */
std::string header_of(const char* kind, std::uint64_t size, const std::string& wide_sizes, std::uint64_t bytes,
                      const stream_shape& shape, sample_size bits) {
    const auto channels = static_cast<std::uint64_t>(shape.channels);
    const auto rate = static_cast<std::uint64_t>(shape.rate);
    const std::uint64_t frame = channels * bytes_of(bits);
    const std::string format = text_of(bits == sample_size::real ? 3 : 1, 2) + text_of(channels, 2) + text_of(rate, 4) +
                               text_of(rate * frame, 4) + text_of(frame, 2) + text_of(8 * bytes_of(bits), 2);
    return kind + text_of(size, 4) + "WAVE" + wide_sizes + "fmt " + text_of(format.size(), 4) + format + "data" +
           text_of(bytes, 4);
}

} // namespace

std::size_t bytes_of(sample_size bits) {
    return bits == sample_size::bits_16 ? 2 : bits == sample_size::bits_24 ? 3 : 4;
}

std::string wav_header(const stream_shape& shape, sample_size bits, std::uint64_t bytes) {
    const std::uint64_t size = bytes + bytes % 2 + 72; // behind the size itself; a chunk's length is even
    const std::uint64_t frames = bytes / (static_cast<std::uint64_t>(shape.channels) * bytes_of(bits));
    if (size < largest_size)
        return header_of("RIFF", size, "JUNK" + text_of(28, 4) + std::string(28, '\0'), bytes, shape, bits);
    const std::string sizes = text_of(size, 8) + text_of(bytes, 8) + text_of(frames, 8) + text_of(0, 4);
    return header_of("RF64", largest_size, "ds64" + text_of(sizes.size(), 4) + sizes, largest_size, shape, bits);
}

std::string endless_wav_header(const stream_shape& shape, sample_size bits) {
    return header_of("RIFF", largest_size, "", largest_size, shape, bits);
}
