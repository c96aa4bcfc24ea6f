#include "capture.h"

#include "sample_format.h"
#include "text.h"
#include "threads.h"

#include <algorithm>

namespace recorder {

using namespace std::chrono_literals;

namespace {

// For a device that was lost. Listing the devices takes some of a processor, and a stop waits no longer than this.
constexpr std::chrono::milliseconds retry_interval{500};

// How long a device may deliver nothing before it is as lost as one that failed, unless the host has more patience. Each
// reader that still hangs in a device doubles it, so that a device of which no stream delivers costs few threads.
constexpr std::chrono::seconds hang_patience{5};

std::string why_hung(const recorder::device& device) {
    std::string why = valid_utf8(device.id) + " failed: it hangs";
    if (device.host_api.starts_with("JACK"))
        why += "; if its server has ended, only another process finds the next one";
    return why;
}

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
    // With sound the device has opened. It may have failed by now, and hang while it is given back.
    const auto is_over = [&] { return sound_ || thread_gone_ || left_behind_; };
    if (!changed_.wait_for(hold, patience, is_over)) {
        stop_requested_ = true;
        leave_behind();
        throw failure{WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK, "the audio system does not respond: a device has not opened "
                                                        "within 10 seconds"};
    }
    if (thread_gone_) join(hold);
    if (stop_requested_) throw failure{WRAPPER_AUDIO_STOPPED};
    if (!sound_) throw ended_by_;
}

void capture::run(bool takes_over) noexcept {
    log::scope log;
    std::optional<microphone> opened;
    failure reason{WRAPPER_AUDIO_STOPPED};
    try {
        if (takes_over) {
            lose_device(failure{WRAPPER_AUDIO_DEVICE_FAILED, why_hung(device())});
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
    if (!was_replaced) request_.reset(); // so that nobody replaces it any more
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
    const std::lock_guard chain{chain_mutex_};
    auto made = std::make_unique<voice_chain>(wanted, options_.undenoised != 0);
    const std::lock_guard hold{mutex_};
    device_ = opened.device();
    info_.device_rate = opened.rate();
    info_.delay = static_cast<int32_t>(made->delay());
    info_.denoising = options_.denoise <= 0.0F         ? WRAPPER_AUDIO_DENOISING_OFF
                      : opened.rate() == denoiser_rate ? WRAPPER_AUDIO_DENOISING_NATIVE
                                                       : WRAPPER_AUDIO_DENOISING_CONVERTED;
    if (!sound_) {
        if (options_.reconnect != 0) watchdog_ = start_thread([self = shared_from_this()] { self->watch(); });
        sound_.emplace(options_, made->delay(), opened.opened_at());
    }
    sound_->begin_device(opened.rate(), opened.opened_at());
    chain_ = std::move(made);
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

// Whether to continue reading. A file waits for the host; nothing else does.
bool capture::may_read() {
    std::unique_lock hold{mutex_};
    if (is_replaced()) return false;
    if (sound_->runs_ahead(clock::now())) changed_.wait(hold, [&] { return stop_requested_ || sound_->has_room(); });
    if (stop_requested_) return false;
    waits_since_ = request_ = clock::now();
    return true;
}

void capture::keep(std::span<const int16_t> pcm) {
    const auto now = clock::now();
    const std::lock_guard chain{chain_mutex_};
    {
        const std::lock_guard hold{mutex_};
        if (ended_ || is_replaced()) return; // while this thread hung in the device
        waits_since_.reset();
        request_.reset();
        sound_->add_captured(pcm, now);
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

void capture::store() {
    const std::lock_guard hold{mutex_};
    sound_->add(processed_, undenoised_, chain_->speech());
    chain_->speech().clear();
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
    request_.reset();
    hold.unlock();
    flush();
    chain_.reset();
    hold.lock();
    sound_->lose_device();
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
    sound_->lose_until(clock::now());
    return !stop_requested_;
}

// On a thread of its own: a device that hangs is as lost as one that failed, and only its reader cannot know.
void capture::watch() {
    using namespace std::chrono;
    std::unique_lock hold{mutex_};
    std::optional<clock::time_point> request;
    seconds waited{0}; // counted, as a process that was suspended has not waited
    while (!over_.wait_for(hold, 1s, [&] { return stop_requested_ || ended_; })) {
        waited = request_ && request_ == request ? waited + 1s : 0s;
        request = request_;
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
    request_.reset();
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
    const int32_t times = sound_->has_captured() ? 1 : 2; // sound servers are slow to start
    return *waits_since_ + milliseconds(int64_t{options_.stall_ms} * times);
}

wrapper_audio_status capture::read(std::size_t wanted, const captured_sound::destination& to, int32_t timeout_ms,
                                   wrapper_audio_block& block) {
    const auto deadline = timeout_ms < 0 ? clock::time_point::max() : clock::now() + milliseconds(timeout_ms);
    std::unique_lock hold{mutex_};
    if (!sound_ || !sound_->can_take(to)) return WRAPPER_AUDIO_INVALID_STATE;
    captured_sound::reading reading{wanted, to, block};
    wrapper_audio_status status = WRAPPER_AUDIO_OK;
    for (sound_->take(reading); reading.done < wanted; sound_->take(reading)) {
        if (reading.done > 0 && sound_->is_file()) changed_.notify_all(); // there is room now
        const auto now = clock::now();
        const auto stall = stalls_at(timeout_ms >= 0);
        if (ended_) {
            status = ended_by_.status;
        } else if (stall && now >= *stall) {
            status = WRAPPER_AUDIO_NO_DATA;
            if (reading.done == 0) waits_since_ = now; // otherwise the next read returns it again, at once
        } else if (now >= deadline) {
            status = WRAPPER_AUDIO_TIMEOUT;
        }
        if (status != WRAPPER_AUDIO_OK) break;
        const auto until = std::min(deadline, stall.value_or(now + milliseconds(options_.stall_ms)));
        changed_.wait_until(hold, until);
    }
    sound_->finish(reading);
    changed_.notify_all();
    return status;
}

std::size_t capture::take_speech(float* probabilities, std::size_t capacity) {
    const std::lock_guard hold{mutex_};
    return sound_ ? sound_->take_speech(probabilities, capacity) : 0;
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
    if (sound_) sound_->add_to(info);
    return info;
}

wrapper_audio_signal capture::signal() const {
    const std::lock_guard hold{mutex_};
    if (!sound_) return WRAPPER_AUDIO_SIGNAL_UNKNOWN;
    if (sound_->is_lost() && !ended_) return WRAPPER_AUDIO_SIGNAL_LOST;
    const bool waits = request_ && !ended_;
    if (waits && clock::now() - *request_ >= signal_watch::window) return WRAPPER_AUDIO_SIGNAL_NO_DATA;
    return sound_->signal();
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
