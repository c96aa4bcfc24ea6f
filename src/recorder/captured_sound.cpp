#include "captured_sound.h"

#include "audio_system.h"
#include "sample_format.h"

#include <algorithm>
#include <limits>

namespace recorder {

using namespace std::chrono_literals;

captured_sound::captured_sound(const wrapper_audio_recorder_options& options, std::size_t delay,
                               clock::time_point begin)
    : rate_(options.rate), largest_step_(in_samples(microphone::block_ms) + delay + 1),
      buffer_(in_samples(options.buffer_ms) + largest_step_),
      history_(static_cast<std::size_t>(buffer_.room() * 100 / static_cast<uint64_t>(rate_) + 200),
               hears_speech(options)),
      arrivals_(static_cast<std::size_t>(options.buffer_ms / microphone::block_ms * 2 + 64), rate_),
      told_until_(begin) {
    if (options.undenoised != 0) undenoised_.emplace(buffer_.room());
}

std::size_t captured_sound::in_samples(int32_t ms) const {
    return static_cast<std::size_t>(divided_up(static_cast<uint64_t>(rate_) * static_cast<uint64_t>(ms), 1000));
}

// ---- From the device ----

void captured_sound::begin_device(int32_t rate, clock::time_point opened_at) {
    device_rate_ = rate;
    history_.begin(rate);
    loss_watch_.emplace(rate);
    began_ = opened_at;
    captured_before_ = captured_;
    lost_in_system_ = 0;
    is_file_ = false;
}

// A device keeps to the clock, within the accuracy of both; a file is read as fast as the processor can. Where there is no
// room for what comes, a little ahead is enough to tell.
bool captured_sound::runs_ahead(clock::time_point now) {
    const std::chrono::duration<double> elapsed = now - began_;
    const double delivered = static_cast<double>(captured_ - captured_before_) / device_rate_;
    is_file_ = is_file_ || delivered > (has_room() ? elapsed.count() * 2.0 + 5.0 : elapsed.count() * 1.01 + 0.05);
    return is_file_;
}

void captured_sound::add_captured(std::span<const int16_t> pcm, clock::time_point now) {
    const auto first = now - std::chrono::nanoseconds(1s) * pcm.size() / device_rate_;
    if (is_lost_) lose_until(first);
    is_lost_ = false;
    if (captured_ == captured_before_) placed_before_ = buffer_.end_position();
    if (captured_ == 0)
        first_sample_time_ = std::chrono::duration_cast<std::chrono::nanoseconds>(first.time_since_epoch()).count();
    captured_ += pcm.size();
    history_.add_captured(pcm);
    const std::chrono::duration<double> elapsed = now - began_;
    const uint64_t lost = is_file_ ? 0 : loss_watch_->add(elapsed.count(), pcm.size());
    const auto converted = [&](uint64_t count) {
        return count * static_cast<uint64_t>(rate_) / static_cast<uint64_t>(device_rate_);
    };
    lose(converted(lost));
    history_.add_lost(lost);
    lost_in_system_ += lost;
    arrivals_.add(placed_before_ + converted(captured_ - captured_before_ + lost_in_system_),
                  std::chrono::nanoseconds(now.time_since_epoch()).count());
    // What came late was captured earlier; a device that fails now leaves no later sample to tell.
    const std::chrono::duration<double> late(loss_watch_->excess());
    told_until_ = now - std::chrono::duration_cast<clock::duration>(late);
}

void captured_sound::add(std::span<const float> processed, std::span<const float> undenoised,
                         std::span<const float> speech) {
    history_.add_speech(speech);
    buffer_.write(processed);
    if (undenoised_) undenoised_->write(undenoised);
}

void captured_sound::lose(uint64_t count) {
    buffer_.lose(count);
    if (undenoised_) undenoised_->lose(count);
}

// Whole samples are lost, and the rest the next time, so that they add up.
void captured_sound::lose_until(clock::time_point time) {
    const std::chrono::duration<double> missing = std::max(time - told_until_, clock::duration::zero());
    const double count = std::floor(missing.count() * rate_);
    lose(static_cast<uint64_t>(count));
    told_until_ += std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(count / rate_));
    history_.skip_to(buffer_.end_position() * 100 / static_cast<uint64_t>(rate_));
}

// ---- To the host ----

bool captured_sound::can_take(const destination& to) const {
    if (to.gate != nullptr) return !to.gate->has_ended() && to.gate->position() <= buffer_.position();
    return to.aligner == nullptr || !to.aligner->has_ended();
}

void captured_sound::take(reading& continued) {
    auto& [wanted, to, block, done, sums] = continued;
    float samples[512];
    float undenoised[std::size(samples)];
    if (done == 0) block.position = buffer_.position();
    for (sample_buffer::piece piece; done < wanted; done += piece.count) {
        const uint64_t position = buffer_.position();
        const std::size_t room = std::min(std::size(samples), wanted - done);
        piece = buffer_.read(std::span(samples).first(room));
        if (undenoised_) undenoised_->read(std::span(undenoised).first(room));
        if (piece.lost > 0 && block.dropped == 0) block.dropped_at = static_cast<uint32_t>(done);
        if (done == 0) block.position = position + piece.lost;
        constexpr uint64_t most = std::numeric_limits<uint32_t>::max();
        block.dropped = static_cast<uint32_t>(std::min(block.dropped + piece.lost, most));
        if (piece.count == 0) break;
        if (!to.pcm.empty()) std::transform(samples, samples + piece.count, samples, to_full_scale);
        numeric::add_levels(sums, samples, static_cast<int32_t>(piece.count));
        if (!to.pcm.empty()) {
            std::transform(samples, samples + piece.count, to.pcm.data() + done, to_s16);
        } else if (to.gate != nullptr) {
            to.gate->skip(position + piece.lost - to.gate->position());
            to.gate->add(std::span(samples).first(piece.count));
        } else if (to.aligner != nullptr) {
            to.aligner->add(to.side, std::span(samples).first(piece.count), arrivals_.time_of(buffer_.position()));
        } else {
            std::copy(samples, samples + piece.count, to.floats.data() + done);
            if (!to.undenoised.empty()) std::copy(undenoised, undenoised + piece.count, to.undenoised.data() + done);
        }
    }
}

void captured_sound::finish(reading& finished) {
    auto& [wanted, to, block, done, sums] = finished;
    block.count = static_cast<uint32_t>(done);
    block.peak = sums.peak;
    block.rms = root_mean_square(sums.squares, done);
    history_.report(divided_up(buffer_.position() * 100, static_cast<uint64_t>(rate_)), block);
    if (to.gate == nullptr) return;
    to.gate->skip(buffer_.position() - to.gate->position());
    history_.add_speech_to(*to.gate);
}

void captured_sound::add_to(wrapper_audio_recorder_info& info) const {
    info.captured = captured_;
    info.first_sample_time = first_sample_time_;
    info.available = buffer_.available();
    info.read = buffer_.read_count();
    info.dropped = buffer_.lost_count();
}

} // namespace recorder
