// What people are told about statuses and signals.
#include "wrapper_audio_recorder.h"

// ---- Status ----

const char* wrapper_audio_status_text(int32_t status) noexcept {
    switch (status) {
    case WRAPPER_AUDIO_OK:
        return "the call succeeded";
    case WRAPPER_AUDIO_TIMEOUT:
        return "the timeout expired before all samples had arrived";
    case WRAPPER_AUDIO_STOPPED:
        return "the recording was stopped";
    case WRAPPER_AUDIO_INVALID_ARGUMENT:
        return "an argument is missing or out of range";
    case WRAPPER_AUDIO_INVALID_STATE:
        return "this is not possible now: the recorder is open already, or was never opened";
    case WRAPPER_AUDIO_OUT_OF_MEMORY:
        return "there is not enough memory";
    case WRAPPER_AUDIO_NO_AUDIO_SYSTEM:
        return "PortAudio does not start";
    case WRAPPER_AUDIO_NO_INPUT_DEVICE:
        return "there is no input device";
    case WRAPPER_AUDIO_UNKNOWN_DEVICE:
        return "no input device matches";
    case WRAPPER_AUDIO_AMBIGUOUS_DEVICE:
        return "several input devices match";
    case WRAPPER_AUDIO_NOT_AN_INPUT:
        return "the device cannot record";
    case WRAPPER_AUDIO_DEVICE_REFUSED:
        return "the device did not open";
    case WRAPPER_AUDIO_DEVICE_FAILED:
        return "the device failed while it was recording";
    case WRAPPER_AUDIO_NO_DATA:
        return "the device is open but delivers no sound";
    case WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK:
        return "the audio system does not respond";
    case WRAPPER_AUDIO_DEVICE_BUSY:
        return "another program is using the device";
    case WRAPPER_AUDIO_DEVICE_FORBIDDEN:
        return "this user may not use the device";
    case WRAPPER_AUDIO_DEVICE_GONE:
        return "the device is not there any more";
    case WRAPPER_AUDIO_NO_SYSTEM_SOUND:
        return "no device records what the computer plays";
    default:
        return "unknown status";
    }
}

const char* wrapper_audio_status_advice(int32_t status) noexcept {
    switch (status) {
    case WRAPPER_AUDIO_INVALID_STATE:
        return "Open it once, before the first read";
    case WRAPPER_AUDIO_OUT_OF_MEMORY:
        return "Free some memory and try again";
    case WRAPPER_AUDIO_NO_AUDIO_SYSTEM:
        return "Check the configuration of the sound system";
    case WRAPPER_AUDIO_NO_INPUT_DEVICE:
        return "Connect a microphone, or start the sound server";
    case WRAPPER_AUDIO_UNKNOWN_DEVICE:
    case WRAPPER_AUDIO_AMBIGUOUS_DEVICE:
        return "Choose one of these";
    case WRAPPER_AUDIO_NOT_AN_INPUT:
        return "Choose an input device";
    case WRAPPER_AUDIO_DEVICE_REFUSED:
        return "Close other programs that may be using it, or choose another device";
    case WRAPPER_AUDIO_DEVICE_FAILED:
        return "Check that it is connected, and open it again";
    case WRAPPER_AUDIO_NO_DATA:
        return "Wait, reconnect it, or choose another device";
    case WRAPPER_AUDIO_AUDIO_SYSTEM_STUCK:
        return "Reconnect the device, or restart the sound server";
    case WRAPPER_AUDIO_DEVICE_BUSY:
        return "Close the other program, or choose another device";
    case WRAPPER_AUDIO_DEVICE_FORBIDDEN:
        return "Let this user have it, as members of the group audio mostly do, or choose another device";
    case WRAPPER_AUDIO_DEVICE_GONE:
        return "Connect it and open it again, or choose another device";
    case WRAPPER_AUDIO_NO_SYSTEM_SOUND:
        return "Start PipeWire or PulseAudio, with libpulse and ALSA's plug-in for PulseAudio (libasound2-plugins); on "
               "JACK, choose the program that plays as the device; with ALSA alone, load snd-aloop, play into it and "
               "choose its other end";
    default:
        return "";
    }
}

// ---- Signal ----

const char* wrapper_audio_signal_text(int32_t signal) noexcept {
    switch (signal) {
    case WRAPPER_AUDIO_SIGNAL_UNKNOWN:
        return "too little has been heard of the input to tell";
    case WRAPPER_AUDIO_SIGNAL_SOUND:
        return "there is sound on the input";
    case WRAPPER_AUDIO_SIGNAL_NO_DATA:
        return "the input is open but delivers nothing";
    case WRAPPER_AUDIO_SIGNAL_ZEROS:
        return "the input is silent: it delivers nothing but zeros";
    case WRAPPER_AUDIO_SIGNAL_HISS:
        return "the input is silent but for a faint hiss, 60 dB or more below full scale";
    case WRAPPER_AUDIO_SIGNAL_CLIPPING:
        return "the input clips all the time";
    case WRAPPER_AUDIO_SIGNAL_LOST:
        return "the input is lost, and the recording goes on when it is back";
    default:
        return "unknown signal";
    }
}

const char* wrapper_audio_signal_advice(int32_t signal) noexcept {
    switch (signal) {
    case WRAPPER_AUDIO_SIGNAL_NO_DATA:
        return wrapper_audio_status_advice(WRAPPER_AUDIO_NO_DATA);
    case WRAPPER_AUDIO_SIGNAL_ZEROS:
        return "Unmute it, or choose another device";
    case WRAPPER_AUDIO_SIGNAL_HISS:
        return "Unmute it, plug a microphone in, raise its level, or choose another device";
    case WRAPPER_AUDIO_SIGNAL_CLIPPING:
        return "Lower its level, or choose another device";
    case WRAPPER_AUDIO_SIGNAL_LOST:
        return "Connect it again, or start the sound server again";
    default:
        return "";
    }
}
