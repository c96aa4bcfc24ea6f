// An ALSA plugin for tests: a microphone that hears a file as fast as it is read, and silence behind its end or the file
// again.
//
//     pcm_type.test_microphone { lib "/…/libasound_module_pcm_test_microphone.so" }
//     pcm.mic { type test_microphone file "/…/sound.raw" rate 48000 }
//
// file             signed 16-bit samples, mono, no header
// rate             the only rate of the device, in Hz
// repeated         yes: behind its end the file begins anew
// exclusive        yes: while one stream is open on the file, another one finds the device busy
// unplugged_after  how many samples a stream delivers before the device is gone
//
// A device that is gone looks to its reader as a sound card does that was pulled out with samples still waiting: they
// are counted but can no longer be fetched, and every operation says that there is no such device. With no sample
// waiting, PortAudio 19.6 would never return from a read: it takes the error for an overrun and tries again forever.
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

struct settings {
    const char* file;
    long rate;
    int repeated;
    int exclusive;
    long unplugged_after;
};

struct microphone {
    snd_pcm_ioplug_t io;
    int file;
    snd_pcm_uframes_t lap; // samples until the file begins anew
    snd_pcm_uframes_t unplugged_after;
};

static int start_or_stop(snd_pcm_ioplug_t* io) {
    (void)io;
    return 0;
}

// How many samples were captured so far: always a period more than were fetched, which is to say at once.
static snd_pcm_sframes_t captured(snd_pcm_ioplug_t* io) {
    const struct microphone* mic = io->private_data;
    snd_pcm_uframes_t count = io->appl_ptr + io->period_size;
    if (io->appl_ptr >= mic->unplugged_after) {
        snd_pcm_ioplug_set_state(io, SND_PCM_STATE_DISCONNECTED);
        count = mic->unplugged_after + 1;
    } else if (count > mic->unplugged_after) {
        count = mic->unplugged_after;
    }
    return (snd_pcm_sframes_t)count;
}

// May be asked for the same samples more than once.
static snd_pcm_sframes_t fetch(snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
                               snd_pcm_uframes_t count) {
    const struct microphone* mic = io->private_data;
    char* bytes = (char*)areas->addr + (areas->first + areas->step * offset) / CHAR_BIT;
    snd_pcm_uframes_t position = io->appl_ptr;
    for (snd_pcm_uframes_t left = count; left > 0;) {
        const snd_pcm_uframes_t in_lap = position % mic->lap;
        const snd_pcm_uframes_t piece = left < mic->lap - in_lap ? left : mic->lap - in_lap;
        const size_t size = piece * sizeof(int16_t);
        const ssize_t heard = pread(mic->file, bytes, size, (off_t)(in_lap * sizeof(int16_t)));
        if (heard < 0) return -errno;
        memset(bytes + heard, 0, size - (size_t)heard);
        bytes += size;
        position += piece;
        left -= piece;
    }
    return (snd_pcm_sframes_t)count;
}

static int close_microphone(snd_pcm_ioplug_t* io) {
    struct microphone* mic = io->private_data;
    close(mic->file);
    free(mic);
    return 0;
}

static const snd_pcm_ioplug_callback_t callbacks = {
    .start = start_or_stop,
    .stop = start_or_stop,
    .pointer = captured,
    .transfer = fetch,
    .close = close_microphone,
};

static int read_settings(snd_config_t* conf, struct settings* settings) {
    snd_config_iterator_t i;
    snd_config_iterator_t next;
    snd_config_for_each(i, next, conf) {
        snd_config_t* entry = snd_config_iterator_entry(i);
        const char* key;
        int error = snd_config_get_id(entry, &key);
        if (error < 0) return error;
        if (strcmp(key, "file") == 0) {
            error = snd_config_get_string(entry, &settings->file);
        } else if (strcmp(key, "rate") == 0) {
            error = snd_config_get_integer(entry, &settings->rate);
        } else if (strcmp(key, "unplugged_after") == 0) {
            error = snd_config_get_integer(entry, &settings->unplugged_after);
        } else if (strcmp(key, "repeated") == 0) {
            settings->repeated = error = snd_config_get_bool(entry);
        } else if (strcmp(key, "exclusive") == 0) {
            settings->exclusive = error = snd_config_get_bool(entry);
        } else if (strcmp(key, "type") != 0) {
            error = -EINVAL;
        }
        if (error < 0) {
            SNDERR("test_microphone: %s is unknown or has a wrong value", key);
            return error;
        }
    }
    return settings->file != NULL && settings->rate > 0 && settings->unplugged_after >= 0 ? 0 : -EINVAL;
}

// The lock belongs to the open file, so that it also keeps out the same process.
static int open_file(const struct settings* settings) {
    const int file = open(settings->file, O_RDONLY | O_CLOEXEC);
    if (file < 0) return -errno;
    if (settings->exclusive && flock(file, LOCK_EX | LOCK_NB) < 0) {
        close(file);
        return -EBUSY;
    }
    return file;
}

static int set_capabilities(snd_pcm_ioplug_t* io, unsigned int rate) {
    static const unsigned int access[] = {SND_PCM_ACCESS_MMAP_INTERLEAVED, SND_PCM_ACCESS_RW_INTERLEAVED};
    static const unsigned int format[] = {SND_PCM_FORMAT_S16_LE};
    int error = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, 2, access);
    if (error >= 0) error = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, format);
    if (error >= 0) error = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_CHANNELS, 1, 1);
    if (error >= 0) error = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_RATE, rate, rate);
    if (error >= 0) error = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIOD_BYTES, 64, 65536);
    if (error >= 0) error = snd_pcm_ioplug_set_param_minmax(io, SND_PCM_IOPLUG_HW_PERIODS, 2, 16);
    return error;
}

SND_PCM_PLUGIN_DEFINE_FUNC(test_microphone) {
    (void)root;
    struct settings settings = {.unplugged_after = LONG_MAX};
    int error = read_settings(conf, &settings);
    if (error < 0) return error;
    if (stream != SND_PCM_STREAM_CAPTURE) return -EINVAL;

    const int file = open_file(&settings);
    if (file < 0) return file;
    const off_t samples = lseek(file, 0, SEEK_END) / (off_t)sizeof(int16_t);
    const snd_pcm_uframes_t lap = settings.repeated && samples > 0 ? (snd_pcm_uframes_t)samples : LONG_MAX;
    struct microphone* mic = calloc(1, sizeof *mic);
    if (mic == NULL) {
        close(file);
        return -ENOMEM;
    }
    mic->file = file;
    mic->lap = lap;
    mic->unplugged_after = (snd_pcm_uframes_t)settings.unplugged_after;
    mic->io.version = SND_PCM_IOPLUG_VERSION;
    mic->io.name = "Test microphone";
    mic->io.flags = SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    mic->io.poll_fd = file; // a regular file: always readable
    mic->io.poll_events = POLLIN;
    mic->io.callback = &callbacks;
    mic->io.private_data = mic;
    error = snd_pcm_ioplug_create(&mic->io, name, stream, mode);
    if (error < 0) {
        close_microphone(&mic->io);
        return error;
    }
    error = set_capabilities(&mic->io, (unsigned int)settings.rate);
    if (error < 0) {
        snd_pcm_ioplug_delete(&mic->io); // closes
        return error;
    }
    *pcmp = mic->io.pcm;
    return 0;
}

// What SND_PCM_PLUGIN_SYMBOL expands to, without a second semicolon.
SND_DLSYM_BUILD_VERSION(SND_PCM_PLUGIN_ENTRY(test_microphone), SND_PCM_DLSYM_VERSION)
