// What libsndfile reads in files that have the header, of which the largest are holes.
#include "wav_header.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <memory>
#include <string>

namespace {

constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// As long as it says, with zeros for samples.
std::unique_ptr<std::FILE, file_closer> file_with(const std::string& header, std::uint64_t bytes) {
    std::unique_ptr<std::FILE, file_closer> file(std::tmpfile());
    EXPECT_EQ(std::fwrite(header.data(), 1, header.size(), file.get()), header.size());
    EXPECT_EQ(std::fflush(file.get()), 0);
    EXPECT_EQ(ftruncate(fileno(file.get()), static_cast<off_t>(header.size() + bytes + bytes % 2)), 0);
    EXPECT_EQ(lseek(fileno(file.get()), 0, SEEK_SET), 0);
    return file;
}

TEST(wav_header, tells_of_any_length) {
    for (const auto& [bits, format] : {std::pair(sample_size::bits_16, SF_FORMAT_PCM_16),
                                       {sample_size::bits_24, SF_FORMAT_PCM_24},
                                       {sample_size::real, SF_FORMAT_FLOAT}}) {
        for (const int channels : {1, 2}) {
            const std::uint64_t frame = bytes_of(bits) * static_cast<std::uint64_t>(channels);
            for (const std::uint64_t frames :
                 {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{1001}, (4 * gibibyte - 100) / frame,
                  (4 * gibibyte - 72) / frame, 4 * gibibyte / frame, 50 * gibibyte / frame + 1}) {
                SCOPED_TRACE(testing::Message() << frames << " frames of " << frame << " bytes");
                const std::uint64_t bytes = frames * frame;
                const std::string header = wav_header({44100, channels}, bits, bytes);
                EXPECT_EQ(header.size(), 80U);
                const bool is_long = bytes >= 4 * gibibyte - 73;
                EXPECT_EQ(header.substr(0, 4), is_long ? "RF64" : "RIFF");
                const auto file = file_with(header, bytes);
                SF_INFO info{};
                SNDFILE* const read = sf_open_fd(fileno(file.get()), SFM_READ, &info, SF_FALSE);
                ASSERT_NE(read, nullptr) << sf_strerror(nullptr);
                EXPECT_EQ(info.frames, static_cast<sf_count_t>(frames));
                EXPECT_EQ(info.channels, channels);
                EXPECT_EQ(info.samplerate, 44100);
                EXPECT_EQ(info.format, (is_long ? SF_FORMAT_RF64 : SF_FORMAT_WAV) | format);
                sf_close(read);
            }
        }
    }
}

TEST(wav_header, of_a_pipe_promises_no_length) {
    const std::string header = endless_wav_header({16000, 1}, sample_size::bits_16);
    EXPECT_EQ(header.size(), 44U);
    EXPECT_EQ(header.substr(4, 4), "\xFF\xFF\xFF\xFF");
    EXPECT_EQ(header.substr(40, 4), "\xFF\xFF\xFF\xFF");
}

} // namespace
