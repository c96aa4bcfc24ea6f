#include "capture.h"

#include "numeric/levels.h"
#include "sample_format.h"
#include "text.h"
#include "threads.h"

#include <algorithm>
#include <limits>

namespace recorder {

using namespace std::chrono_literals;

namespace {

// For a device that was lost. Listing the devices takes some of a processor, and a stop waits no longer than this.
constexpr std::chrono::milliseconds retry_interval{500};

// How long a device may deliver nothing before it is as lost as one that failed, unless the host has more patience. Each
// reader that still hangs in a device doubles it, so that a device of which no stream delivers costs few threads.
constexpr std::chrono::seconds hang_patience{5};

} // namespace

// ---- Opening ----

capture::~capture() {
    for (std::thread* each : {&thread_, &watchdog_}) // it may be this one
        if (each->joinable()) each->detach();
}

// The thread has nothing left to do. Releases the lock for a moment.
void capture::join(std::unique_lock<std::mutex>& hold) {
    std::thread thread = std::move(thread_);
    std::thread watchdog = std::move(watchdog_);
    hold.unlock();
    for (std::thread* each : {&thread, &watchdog})
        if (each->joinable()) each->join();
    hold.lock();
}

// The thread waits for the lock, which the caller holds.
void capture::start_reader(bool takes_over) {
    thread_ = start_thread([self = shared_from_this(), takes_over] { self->run(takes_over); });
    reader_ = thread_.get_id();
} // GCOVR_EXCL_BR_LINE: the action has been moved into the thread

void capture::open() {
    std::unique_lock hold{mutex_};
    start_reader(false);
    const auto patience = opening_patience + stopping_patience;
    // With a buffer the device has opened. It may have failed by now, and hang while it is given back.
    const auto is_over = [&] { return buffer_ || thread_gone_ || left_behind_; };
    if (!changed_.wait_for(hold, patience, is_over)) {
        stop_requested_ = true;
        leave_behind();
        throw failure{WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK, "the audio system does not respond: a device has not opened "
                                                        "within 10 seconds"};
    }
    if (thread_gone_) join(hold);
    if (stop_requested_) throw failure{WRAPPER_AUDIO_STOPPED};
    if (!buffer_) throw ended_by_;
}

void capture::run(bool takes_over) noexcept {
    log::scope log;
    std::optional<microphone> opened;
    failure reason{WRAPPER_AUDIO_STOPPED};
    try {
        if (takes_over) {
            lose_device(failure{WRAPPER_AUDIO_DEVICE_FAILED, valid_utf8(device().id) + " failed: it hangs"});
        } else {
            open_device(opened, log, opening_patience);
            begin(*opened);
        }
        while ((!opened || listen(*opened, log)) && find_device(opened, log)) {
        }
    } catch (failure& failed) {
        reason = std::move(failed);
    } catch (...) { // no memory
        reason.status = WRAPPER_AUDIO_OUT_OF_MEMORY;
    }
    std::unique_lock hold{mutex_};
    const bool was_replaced = is_replaced();
    if (!was_replaced) is_reading_ = false; // so that nobody replaces it any more
    hold.unlock();
    if (!was_replaced) end(std::move(reason));
    if (opened) {
        const audio_system_lock lock;
        opened.reset();
    }
    hold.lock();
    if (was_replaced) {
        --replaced_readers_;
    } else {
        thread_gone_ = true;
    }
    if (was_replaced || left_behind_) count_abandoned(-1);
    changed_.notify_all();
}

void capture::open_device(std::optional<microphone>& opened, log::scope& log, milliseconds patience) {
    const audio_system_lock lock{patience};
    // A device that already runs at the wanted rate needs no conversion. Any other is best opened at 48000 Hz: sound
    // servers run at it, and would themselves convert less cleanly.
    opened.emplace(device_id_, hears_speech(options_) ? denoiser_rate : options_.rate, log);
}

void capture::begin(const microphone& opened) {
    const wrapper_audio_voice_options wanted{.in_rate = opened.rate(),
                                             .out_rate = options_.rate,
                                             .denoise = options_.denoise,
                                             .speech = options_.speech,
                                             .conversion = options_.conversion};
    if (!voice_chain::is_valid(wanted))
        throw failure{WRAPPER_AUDIO_DEVICE_REFUSED,
                      "the device runs at " + std::to_string(opened.rate()) + " Hz, which cannot be converted"};
    const auto rate = static_cast<uint64_t>(options_.rate);
    const auto in_samples = [&](int32_t ms) {
        return static_cast<std::size_t>(divided_up(rate * static_cast<uint64_t>(ms), 1000));
    };
    const std::lock_guard chain{chain_mutex_};
    chain_ = std::make_unique<voice_chain>(wanted, options_.undenoised != 0);
    const std::lock_guard hold{mutex_};
    device_ = opened.device();
    info_.device_rate = opened.rate();
    info_.delay = static_cast<int32_t>(chain_->delay());
    info_.denoising = options_.denoise <= 0.0F         ? WRAPPER_AUDIO_DENOISING_OFF
                      : opened.rate() == denoiser_rate ? WRAPPER_AUDIO_DENOISING_NATIVE
                                                       : WRAPPER_AUDIO_DENOISING_CONVERTED;
    if (!buffer_) {
        if (options_.reconnect != 0) watchdog_ = start_thread([self = shared_from_this()] { self->watch(); });
        largest_step_ = in_samples(microphone::block_ms) + chain_->delay() + 1;
        const std::size_t capacity = in_samples(options_.buffer_ms) + largest_step_;
        if (options_.undenoised != 0) undenoised_buffer_.emplace(capacity);
        buffer_.emplace(capacity);
        history_ = history(static_cast<std::size_t>(capacity * 100 / rate + 200), hears_speech(options_));
        arrivals_.emplace(static_cast<std::size_t>(options_.buffer_ms / microphone::block_ms * 2 + 64), options_.rate);
        told_until_ = opened.opened_at();
    }
    history_.begin(opened.rate());
    loss_watch_.emplace(opened.rate());
    began_ = opened.opened_at();
    captured_before_ = info_.captured;
    lost_in_system_ = 0;
    is_file_ = false;
    changed_.notify_all();
}

// ---- The thread ----

// Until the recording is stopped: then it returns false; true if the device was lost.
bool capture::listen(microphone& opened, log::scope& log) {
    std::vector<int16_t> pcm(static_cast<std::size_t>(int64_t{opened.rate()} * microphone::block_ms / 1000 + 1));
    try {
        while (may_read()) {
            const auto count = static_cast<std::size_t>(opened.read(pcm, log));
            keep(std::span(pcm).first(count));
        }
        return false;
    } catch (failure& failed) {
        if (options_.reconnect == 0) throw;
        lose_device(std::move(failed));
        return true;
    }
}

// A device keeps to the clock, within the accuracy of both; a file is read as fast as the processor can. Where there is no
// room for what comes, a little ahead is enough to tell.
bool capture::runs_ahead(bool has_room) const {
    const std::chrono::duration<double> elapsed = clock::now() - began_;
    const double delivered = static_cast<double>(info_.captured - captured_before_) / info_.device_rate;
    return delivered > (has_room ? elapsed.count() * 2.0 + 5.0 : elapsed.count() * 1.01 + 0.05);
}

// Whether to continue reading. A file waits for the host; nothing else does.
bool capture::may_read() {
    std::unique_lock hold{mutex_};
    if (is_replaced()) return false;
    const auto has_room = [&] { return buffer_->room() >= largest_step_; };
    is_file_ = is_file_ || runs_ahead(has_room());
    if (is_file_) changed_.wait(hold, [&] { return stop_requested_ || has_room(); });
    waits_since_ = last_request_ = clock::now();
    is_reading_ = !stop_requested_;
    return is_reading_;
}

void capture::keep(std::span<const int16_t> pcm) {
    const auto now = clock::now();
    const std::lock_guard chain{chain_mutex_};
    const auto first = now - std::chrono::nanoseconds(1s) * pcm.size() / info_.device_rate;
    {
        const std::lock_guard hold{mutex_};
        if (ended_ || is_replaced()) return; // while this thread hung in the device
        waits_since_.reset();
        is_reading_ = false;
        if (is_lost_) lose_until(first);
        is_lost_ = false;
        if (info_.captured == captured_before_) placed_before_ = buffer_->end_position();
        if (info_.captured == 0) {
            const auto since = first.time_since_epoch();
            info_.first_sample_time = std::chrono::duration_cast<std::chrono::nanoseconds>(since).count();
        }
        info_.captured += pcm.size();
        history_.add_captured(pcm);
        const std::chrono::duration<double> elapsed = now - began_;
        const uint64_t lost = is_file_ ? 0 : loss_watch_->add(elapsed.count(), pcm.size());
        lose(lost * static_cast<uint64_t>(options_.rate) / static_cast<uint64_t>(info_.device_rate));
        history_.add_lost(lost);
        lost_in_system_ += lost;
        const uint64_t until = placed_before_ + (info_.captured - captured_before_ + lost_in_system_) *
                                                    static_cast<uint64_t>(options_.rate) /
                                                    static_cast<uint64_t>(info_.device_rate);
        arrivals_->add(until, std::chrono::nanoseconds(now.time_since_epoch()).count());
        // What came late was captured earlier; a device that fails now leaves no later sample to tell.
        const std::chrono::duration<double> late(loss_watch_->excess());
        told_until_ = now - std::chrono::duration_cast<clock::duration>(late);
    }
    captured_.resize(pcm.size());
    std::transform(pcm.begin(), pcm.end(), captured_.begin(), from_s16);
    processed_.clear();
    undenoised_.clear();
    try {
        chain_->process(captured_, processed_, &undenoised_);
    } catch (...) { // no memory: from now on its outputs may differ in length
        chain_.reset();
        throw;
    }
    store();
}

void capture::lose(uint64_t count) {
    buffer_->lose(count);
    if (undenoised_buffer_) undenoised_buffer_->lose(count);
}

// Without a device. Whole samples are lost, and the rest the next time, so that they add up.
void capture::lose_until(clock::time_point time) {
    const std::chrono::duration<double> missing = std::max(time - told_until_, clock::duration::zero());
    const double count = std::floor(missing.count() * options_.rate);
    lose(static_cast<uint64_t>(count));
    told_until_ += std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(count / options_.rate));
    history_.skip_to(buffer_->end_position() * 100 / static_cast<uint64_t>(options_.rate));
}

void capture::store() {
    const std::lock_guard hold{mutex_};
    history_.add_speech(chain_->speech());
    chain_->speech().clear();
    buffer_->write(processed_);
    if (undenoised_buffer_) undenoised_buffer_->write(undenoised_);
    changed_.notify_all();
}

// Whoever calls this has the chain.
void capture::flush() {
    if (chain_ == nullptr || has_ended()) return;
    processed_.clear();
    undenoised_.clear();
    try {
        chain_->flush(processed_, &undenoised_);
        store();
    } catch (...) { // no memory: what is still inside is lost
    }
}

void capture::end(failure reason) {
    const std::lock_guard chain{chain_mutex_};
    flush();
    const std::lock_guard hold{mutex_};
    if (ended_) return;
    ended_ = true;
    ended_by_ = std::move(reason);
    changed_.notify_all();
    over_.notify_all();
}

// ---- A device that was lost ----

// What was recorded before can be read at once. The next device may run at another rate, with a chain of its own.
void capture::lose_device(failure reason) {
    const std::lock_guard chain{chain_mutex_};
    std::unique_lock hold{mutex_};
    if (ended_ || is_replaced()) return; // while this thread hung in the device
    is_reading_ = false;
    hold.unlock();
    flush();
    chain_.reset();
    hold.lock();
    is_lost_ = true;
    lost_by_ = std::move(reason);
    changed_.notify_all();
}

// Gives the device back and opens it again, once it is there. Returns false when the recording is stopped before.
bool capture::find_device(std::optional<microphone>& opened, log::scope& log) {
    {
        const audio_system_lock lock;
        opened.reset();
    }
    while (waits_for_device()) {
        try {
            log.take_failure(); // not a failure of this attempt
            open_device(opened, log, retry_interval);
            begin(*opened);
            return true;
        } catch (...) { // it is not back, or cannot be opened yet, or there is no memory: another time it may be
        }
    }
    return false;
}

// Until the next attempt. Returns false when the recording is stopped, or belongs to another thread.
bool capture::waits_for_device() {
    std::unique_lock hold{mutex_};
    if (is_replaced()) return false;
    changed_.wait_for(hold, retry_interval, [&] { return stop_requested_; });
    lose_until(clock::now());
    return !stop_requested_;
}

// On a thread of its own: a device that hangs is as lost as one that failed, and only its reader cannot know.
void capture::watch() {
    using namespace std::chrono;
    std::unique_lock hold{mutex_};
    clock::time_point request;
    seconds waited{0}; // counted, as a process that was suspended has not waited
    while (!over_.wait_for(hold, 1s, [&] { return stop_requested_ || ended_; })) {
        waited = is_reading_ && last_request_ == request ? waited + 1s : 0s;
        request = last_request_;
        const auto patience = std::max<milliseconds>(hang_patience, milliseconds(options_.stall_ms));
        if (waited >= patience * (int64_t{1} << std::min(replaced_readers_, 32U))) replace_reader();
    }
}

// Needs the lock.
void capture::replace_reader() {
    std::thread replaced = std::move(thread_);
    try {
        start_reader(true);
    } catch (...) { // no more threads: another time there may be
        thread_ = std::move(replaced);
        return;
    }
    replaced.detach();
    is_reading_ = false;
    ++replaced_readers_;
    count_abandoned(1);
}

// Whether another thread has taken over. Needs the lock.
bool capture::is_replaced() const {
    return reader_ != std::this_thread::get_id();
}

// ---- The host's side ----

void capture::leave_behind() {
    if (left_behind_) return;
    left_behind_ = true;
    count_abandoned(1);
    changed_.notify_all();
}

std::optional<capture::clock::time_point> capture::stalls_at(bool has_limit) const {
    // Whoever waits for a device that was lost waits for one that hangs, too, but not for ever.
    if (!waits_since_ || (has_limit && options_.reconnect != 0)) return std::nullopt;
    const int32_t times = info_.captured == 0 ? 2 : 1; // sound servers are slow to start
    return *waits_since_ + milliseconds(int64_t{options_.stall_ms} * times);
}

wrapper_audio_status capture::read(std::size_t wanted, const destination& to, int32_t timeout_ms,
                                   wrapper_audio_block& block) {
    const auto deadline = timeout_ms < 0 ? clock::time_point::max() : clock::now() + milliseconds(timeout_ms);
    numeric::level_sums sums;
    std::size_t done = 0;
    std::unique_lock hold{mutex_};
    if (!buffer_) return WRAPPER_AUDIO_INVALID_STATE;
    if (to.gate != nullptr && (to.gate->has_ended() || to.gate->position() > buffer_->position()))
        return WRAPPER_AUDIO_INVALID_STATE;
    if (to.aligner != nullptr && to.aligner->has_ended()) return WRAPPER_AUDIO_INVALID_STATE;
    block.position = buffer_->position();

    const auto take = [&] {
        float samples[512];
        float undenoised[std::size(samples)];
        for (sample_buffer::piece piece; done < wanted; done += piece.count) {
            const uint64_t position = buffer_->position();
            const std::size_t room = std::min(std::size(samples), wanted - done);
            piece = buffer_->read(std::span(samples).first(room));
            if (undenoised_buffer_) undenoised_buffer_->read(std::span(undenoised).first(room));
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
                to.aligner->add(to.side, std::span(samples).first(piece.count),
                                arrivals_->time_of(buffer_->position()));
            } else {
                std::copy(samples, samples + piece.count, to.floats.data() + done);
                if (!to.undenoised.empty())
                    std::copy(undenoised, undenoised + piece.count, to.undenoised.data() + done);
            }
        }
    };

    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    for (take(); done < wanted; take()) {
        if (done > 0 && is_file_) changed_.notify_all(); // there is room now
        const auto now = clock::now();
        const auto stall = stalls_at(timeout_ms >= 0);
        if (ended_) {
            status = ended_by_.status;
        } else if (stall && now >= *stall) {
            status = WRAPPER_AUDIO_NO_DATA;
            if (done == 0) waits_since_ = now; // otherwise the next read returns it again, at once
        } else if (now >= deadline) {
            status = WRAPPER_AUDIO_TIMEOUT;
        }
        if (status != WRAPPER_AUDIO_OK) break;
        const auto until = std::min(deadline, stall.value_or(now + milliseconds(options_.stall_ms)));
        changed_.wait_until(hold, until);
    }
    block.count = static_cast<uint32_t>(done);
    block.peak = sums.peak;
    block.rms = root_mean_square(sums.squares, done);
    history_.report(divided_up(buffer_->position() * 100, static_cast<uint64_t>(options_.rate)), block);
    changed_.notify_all();
    if (to.gate != nullptr) {
        to.gate->skip(buffer_->position() - to.gate->position());
        history_.add_speech_to(*to.gate);
    }
    return status;
}

std::size_t capture::take_speech(float* probabilities, std::size_t capacity) {
    const std::lock_guard hold{mutex_};
    return history_.take_speech(probabilities, capacity);
}

wrapper_audio_status capture::stop() {
    {
        std::unique_lock hold{mutex_};
        if (stopped_) return WRAPPER_AUDIO_INVALID_STATE;
        stopped_ = true;
        stop_requested_ = true;
        changed_.notify_all();
        over_.notify_all();
        if (changed_.wait_for(hold, stopping_patience, [&] { return thread_gone_; })) {
            join(hold);
            return WRAPPER_AUDIO_OK;
        }
        leave_behind();
    }
    end(failure{WRAPPER_AUDIO_STOPPED});
    return WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK;
}

bool capture::has_ended() const {
    const std::lock_guard hold{mutex_};
    return ended_;
}

wrapper_audio_recorder_info capture::info() const {
    const std::lock_guard hold{mutex_};
    wrapper_audio_recorder_info info = info_;
    info.rate = options_.rate;
    if (buffer_) {
        info.available = buffer_->available();
        info.read = buffer_->read_count();
        info.dropped = buffer_->lost_count();
    }
    return info;
}

wrapper_audio_signal capture::signal() const {
    const std::lock_guard hold{mutex_};
    if (is_lost_ && !ended_) return WRAPPER_AUDIO_SIGNAL_LOST;
    const bool waits = waits_since_ && !ended_;
    if (waits && clock::now() - last_request_ >= signal_watch::window) return WRAPPER_AUDIO_SIGNAL_NO_DATA;
    return history_.signal();
}

failure capture::last_failure() const {
    const std::lock_guard hold{mutex_};
    return ended_by_.status < 0 ? ended_by_ : lost_by_;
}

device capture::device() const {
    const std::lock_guard hold{mutex_};
    return device_;
}

} // namespace recorder
