/**
 * Loaded into the host with LD_PRELOAD, in front of PortAudio: gives the file microphone the pace and the failures of
 * real devices. Without these variables in the environment every call passes through unchanged.
 *
 *     MICROPHONE_PACED=1          a read takes as long as its sound lasts
 *     MICROPHONE_FAILS_AFTER=N    reads fail once N of them have gone well
 *     MICROPHONE_RETURNS=1        only one read fails then, or blocks
 *     MICROPHONE_REFUSES=1        no stream opens
 *     MICROPHONE_LOCK=FILE        ALSA opens the default input for one process at a time, which locks this file
 *     MICROPHONE_ANSWER=N         ALSA answers with this error when the default input is opened; with
 *                                 MICROPHONE_FAILS_AFTER only once it has failed
 *     MICROPHONE_STALLS_AFTER=N   reads block for ever once N of them have gone well
 *     MICROPHONE_NAME=TEXT        the default input is called that
 *     MICROPHONE_ENDS=HOW         the process ends with a last word while a stream is opened: by abort, fault or exit
 *     DISK_LOG=FILE               gets the size of each file that is brought to the disk, on a line of its own
 *     DISK_FAILS=1                no file gets to the disk
 *     DISK_HAS_HOLES=1            where only zeros are written, a file has a hole
 */
#include <alsa/asoundlib.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <portaudio.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void end_the_process(const std::string& how) {
    std::fputs("the microphone's last word\n", stderr);
    if (how == "abort") std::abort();
    if (how == "fault")
        // cppcheck-suppress invalidFunctionArg ; memory of no file has the descriptor -1
        *static_cast<volatile int*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) = 1;
    std::exit(77);
}

using clock = std::chrono::steady_clock;

/** When the next sound of each stream is due. */
std::map<PaStream*, clock::time_point> due;
std::mutex due_mutex;

/** By the clock, as a device: what one sleep lasts too long the next one makes up for. */
void wait_for_sound(PaStream* stream, unsigned long frames) {
    const std::chrono::duration<double> length(static_cast<double>(frames) / Pa_GetStreamInfo(stream)->sampleRate);
    clock::time_point until;
    {
        const std::lock_guard lock(due_mutex);
        until = due.try_emplace(stream, clock::now()).first->second +=
            std::chrono::duration_cast<clock::duration>(length);
    }
    std::this_thread::sleep_until(until);
}

bool is_over(const char* limit, int reads) {
    return limit != nullptr && reads >= std::atoi(limit);
}

std::atomic<bool> is_listed{false}; // PortAudio, which lists only what it can open, has done so
std::atomic<bool> has_failed{false};

bool take_lock() {
    const char* file = std::getenv("MICROPHONE_LOCK");
    if (file == nullptr) return true;
    static const int lock = open(file, O_RDWR | O_CREAT | O_CLOEXEC, 0600); // until the process ends
    return flock(lock, LOCK_EX | LOCK_NB) == 0;
}

// The default input, by its own or its new name, which may be that of another device.
bool is_default(const std::string& name) {
    if (name == "default") return true;
    const char* renamed = std::getenv("MICROPHONE_NAME");
    snd_config_t* other = nullptr;
    return renamed != nullptr && name == renamed && snd_config_update() >= 0 &&
           snd_config_search(snd_config, ("pcm." + name).c_str(), &other) < 0;
}

} // namespace

extern "C" const PaDeviceInfo* Pa_GetDeviceInfo(PaDeviceIndex index) {
    const PaDeviceInfo* info = next<decltype(Pa_GetDeviceInfo)>("Pa_GetDeviceInfo")(index);
    const char* name = std::getenv("MICROPHONE_NAME");
    if (info == nullptr || name == nullptr || index != Pa_GetDefaultInputDevice()) return info;
    static PaDeviceInfo renamed = [&] { // once, since a host may write to it
        PaDeviceInfo copy = *info;
        copy.name = name;
        return copy;
    }();
    return &renamed;
}

extern "C" PaError Pa_OpenStream(PaStream** stream, const PaStreamParameters* input, const PaStreamParameters* output,
                                 double rate, unsigned long frames, PaStreamFlags flags, PaStreamCallback* callback,
                                 void* data) {
    if (const char* how = std::getenv("MICROPHONE_ENDS"); how != nullptr) end_the_process(how);
    if (std::getenv("MICROPHONE_REFUSES") != nullptr) return paDeviceUnavailable;
    is_listed = true;
    if (std::getenv("MICROPHONE_FAILS_AFTER") == nullptr) has_failed = false; // that was another script
    return next<decltype(Pa_OpenStream)>("Pa_OpenStream")(stream, input, output, rate, frames, flags, callback, data);
}

extern "C" int snd_pcm_open(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode) {
    if (!is_default(name)) return next<decltype(snd_pcm_open)>("snd_pcm_open")(pcm, name, stream, mode);
    if (is_listed) {
        if (!take_lock()) return -EBUSY;
        const char* answer = std::getenv("MICROPHONE_ANSWER");
        if (answer != nullptr && (has_failed || std::getenv("MICROPHONE_FAILS_AFTER") == nullptr))
            return -std::atoi(answer);
    }
    return next<decltype(snd_pcm_open)>("snd_pcm_open")(pcm, "default", stream, mode);
}

extern "C" PaError Pa_CloseStream(PaStream* stream) {
    {
        const std::lock_guard lock(due_mutex);
        due.erase(stream);
    }
    return next<decltype(Pa_CloseStream)>("Pa_CloseStream")(stream);
}

extern "C" ssize_t write(int descriptor, const void* data, std::size_t size) {
    static const bool has_holes = std::getenv("DISK_HAS_HOLES") != nullptr;
    const auto* const bytes = static_cast<const unsigned char*>(data);
    const bool is_zero = has_holes && size > 1 && *bytes == 0 && std::memcmp(bytes, bytes + 1, size - 1) == 0;
    if (is_zero && lseek(descriptor, static_cast<off_t>(size), SEEK_CUR) >= 0) return static_cast<ssize_t>(size);
    return next<decltype(write)>("write")(descriptor, data, size);
}

extern "C" int fdatasync(int descriptor) {
    struct stat synced {};
    fstat(descriptor, &synced);
    if (const char* name = std::getenv("DISK_LOG"); name != nullptr) {
        FILE* const log = std::fopen(name, "a");
        std::fprintf(log, "%lld\n", static_cast<long long>(synced.st_size));
        std::fclose(log);
    }
    if (std::getenv("DISK_FAILS") != nullptr) return errno = EIO, -1;
    return next<decltype(fdatasync)>("fdatasync")(descriptor);
}

extern "C" PaError Pa_ReadStream(PaStream* stream, void* buffer, unsigned long frames) {
    static std::atomic<int> reads{0}; // one that blocks is in a thread that others have replaced
    static std::atomic<bool> has_blocked{false};
    const bool returns = std::getenv("MICROPHONE_RETURNS") != nullptr;
    if (!(returns && has_failed) && is_over(std::getenv("MICROPHONE_FAILS_AFTER"), reads)) {
        has_failed = true;
        return paUnanticipatedHostError;
    }
    if (is_over(std::getenv("MICROPHONE_STALLS_AFTER"), reads) && !(has_blocked.exchange(true) && returns)) {
        while (is_over(std::getenv("MICROPHONE_STALLS_AFTER"), reads))
            std::this_thread::sleep_for(std::chrono::hours(1));
    }
    ++reads;
    if (std::getenv("MICROPHONE_PACED") != nullptr) wait_for_sound(stream, frames);
    return next<decltype(Pa_ReadStream)>("Pa_ReadStream")(stream, buffer, frames);
}
