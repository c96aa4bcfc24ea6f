# Made by scripts/generate-bindings from wrapper_audio.h and wrapper_audio_recorder.h; do not edit.
"""The interface of the library: its enums, its structs, and the types of its functions.

Handles are plain addresses, and so are texts that have to be released.
"""

from __future__ import annotations

import enum
from ctypes import (
    POINTER,
    Structure,
    c_char,
    c_char_p,
    c_float,
    c_int,
    c_int16,
    c_int32,
    c_int64,
    c_size_t,
    c_uint32,
    c_uint64,
    c_void_p,
)
from typing import Any, Dict, List, Optional, Tuple


class Status(enum.IntEnum):
    OK = 0
    TIMEOUT = 1
    STOPPED = 2
    INVALID_ARGUMENT = -1
    INVALID_STATE = -2
    OUT_OF_MEMORY = -3
    NO_AUDIO_SYSTEM = -4
    NO_INPUT_DEVICE = -5
    UNKNOWN_DEVICE = -6
    AMBIGUOUS_DEVICE = -7
    NOT_AN_INPUT = -8
    DEVICE_REFUSED = -9
    DEVICE_FAILED = -10
    NO_DATA = -11
    AUDIO_SYSTEM_STUCK = -12
    DEVICE_BUSY = -13
    DEVICE_FORBIDDEN = -14
    DEVICE_GONE = -15
    NO_SYSTEM_SOUND = -16


class Denoising(enum.IntEnum):
    OFF = 0
    NATIVE = 1
    CONVERTED = 2


class Conversion(enum.IntEnum):
    CLEAN = 0
    LINEAR = 1


class RecorderTextKind(enum.IntEnum):
    DEVICE_ID = 0
    DEVICE_NAME = 1
    REASON = 2
    LOG_LINE = 3


class Signal(enum.IntEnum):
    UNKNOWN = 0
    SOUND = 1
    NO_DATA = 2
    ZEROS = 3
    HISS = 4
    CLIPPING = 5
    LOST = 6


class Device(Structure):
    _fields_ = [
        ("id", c_char_p),
        ("name", c_char_p),
        ("host_api", c_char_p),
        ("default_rate", c_int32),
        ("input_channels", c_int32),
        ("output_channels", c_int32),
        ("is_default", c_int32),
        ("denoising", c_int32),
    ]


class RecorderOptions(Structure):
    _fields_ = [
        ("rate", c_int32),
        ("denoise", c_float),
        ("speech", c_int32),
        ("conversion", c_int32),
        ("buffer_ms", c_int32),
        ("stall_ms", c_int32),
        ("undenoised", c_int32),
        ("reconnect", c_int32),
        ("reserved", c_int32 * 8),
    ]


class Block(Structure):
    _fields_ = [
        ("position", c_uint64),
        ("count", c_uint32),
        ("dropped", c_uint32),
        ("dropped_at", c_uint32),
        ("clipped", c_uint32),
        ("rms", c_float),
        ("peak", c_float),
        ("captured_rms", c_float),
        ("captured_peak", c_float),
        ("speech_probability", c_float),
    ]


class RecorderInfo(Structure):
    _fields_ = [
        ("rate", c_int32),
        ("device_rate", c_int32),
        ("denoising", c_int32),
        ("delay", c_int32),
        ("captured", c_uint64),
        ("available", c_uint64),
        ("read", c_uint64),
        ("dropped", c_uint64),
        ("first_sample_time", c_int64),
    ]


class VoiceOptions(Structure):
    _fields_ = [
        ("in_rate", c_int32),
        ("out_rate", c_int32),
        ("denoise", c_float),
        ("speech", c_int32),
        ("conversion", c_int32),
    ]


class SpeechOptions(Structure):
    _fields_ = [
        ("rate", c_int32),
        ("begin_threshold", c_float),
        ("end_threshold", c_float),
        ("min_speech_ms", c_int32),
        ("hang_over_ms", c_int32),
        ("pre_roll_ms", c_int32),
        ("max_ms", c_int32),
        ("reserved", c_int32 * 9),
    ]


class SpeechPiece(Structure):
    _fields_ = [
        ("position", c_uint64),
        ("count", c_uint32),
        ("begins", c_int32),
        ("ends", c_int32),
    ]


# wrapper_audio.h
CORE_FUNCTIONS: Dict[str, Tuple[Any, Optional[List[Any]]]] = {
    "wrapper_audio_init": (c_void_p, [c_int, c_int, c_char_p]),
    "wrapper_audio_arm": (c_void_p, [c_int, c_int, c_char_p]),
    "wrapper_audio_open": (c_int, [c_void_p]),
    "wrapper_audio_read": (c_int32, [c_void_p, c_int32, POINTER(c_int16), c_int32, POINTER(c_float), POINTER(c_float)]),
    "wrapper_audio_release_stream": (None, [c_void_p]),
    "wrapper_audio_stop": (None, [c_void_p]),
    "wrapper_audio_free": (None, [c_void_p]),
    "wrapper_audio_input_volume_get": (c_float, None),
    "wrapper_audio_input_volume_set": (c_int, None),
    "wrapper_audio_list_devices_json": (POINTER(c_char), []),
    "wrapper_audio_free_text": (None, [POINTER(c_char)]),
    "wrapper_audio_capabilities": (c_int, []),
    "wrapper_audio_meter_open": (c_void_p, [c_char_p]),
    "wrapper_audio_meter_read": (c_int, [c_void_p, POINTER(c_float), POINTER(c_float)]),
    "wrapper_audio_meter_close": (None, [c_void_p]),
    "wrapper_audio_resampler_init": (c_void_p, [c_int32, c_int32, c_int32]),
    "wrapper_audio_resample": (c_int32, [c_void_p, POINTER(c_float), c_int32, POINTER(c_float), c_int32]),
    "wrapper_audio_resampler_free": (None, [c_void_p]),
    "wrapper_audio_hpf_init": (None, [c_float, c_float]),
    "wrapper_audio_hpf_process": (None, [c_void_p, POINTER(c_float), c_int32]),
    "wrapper_audio_depop_process": (None, [c_void_p, POINTER(c_float), c_int32, c_float]),
    "wrapper_audio_agc_init": (None, [c_float, c_float]),
    "wrapper_audio_agc_process": (None, [c_void_p, POINTER(c_float), c_int32]),
    "wrapper_audio_snr": (c_float, []),
    "wrapper_audio_clipping_ratio": (c_float, []),
    "wrapper_audio_update_noise_profile": (None, [c_void_p, c_int32]),
    "wrapper_audio_denoise_stats": (c_int32, [c_void_p, POINTER(c_int32)]),
}


# wrapper_audio_recorder.h
FUNCTIONS: Dict[str, Tuple[Any, Optional[List[Any]]]] = {
    "wrapper_audio_status_text": (c_char_p, [c_int32]),
    "wrapper_audio_status_advice": (c_char_p, [c_int32]),
    "wrapper_audio_device_list_create": (c_int, [POINTER(c_void_p)]),
    "wrapper_audio_device_list_count": (c_size_t, [c_void_p]),
    "wrapper_audio_device_list_get": (POINTER(Device), [c_void_p, c_size_t]),
    "wrapper_audio_device_list_find": (c_int, [c_void_p, c_char_p, POINTER(c_size_t), POINTER(c_char), c_size_t]),
    "wrapper_audio_device_list_find_system": (c_int, [c_void_p, POINTER(c_size_t)]),
    "wrapper_audio_device_list_free": (None, [c_void_p]),
    "wrapper_audio_recorder_create": (c_int, [POINTER(c_void_p), POINTER(RecorderOptions)]),
    "wrapper_audio_recorder_open": (c_int, [c_void_p, c_char_p]),
    "wrapper_audio_recorder_read_s16": (c_int, [c_void_p, POINTER(c_int16), c_size_t, c_int32, POINTER(Block)]),
    "wrapper_audio_recorder_read_f32": (c_int, [c_void_p, POINTER(c_float), c_size_t, c_int32, POINTER(Block)]),
    "wrapper_audio_recorder_read_both_f32": (
        c_int,
        [c_void_p, POINTER(c_float), POINTER(c_float), c_size_t, c_int32, POINTER(Block)],
    ),
    "wrapper_audio_recorder_take_speech": (c_size_t, [c_void_p, POINTER(c_float), c_size_t]),
    "wrapper_audio_recorder_get_info": (c_int, [c_void_p, POINTER(RecorderInfo)]),
    "wrapper_audio_recorder_get_signal": (c_int, [c_void_p, POINTER(c_int32)]),
    "wrapper_audio_signal_text": (c_char_p, [c_int32]),
    "wrapper_audio_signal_advice": (c_char_p, [c_int32]),
    "wrapper_audio_recorder_get_text": (c_size_t, [c_void_p, c_int32, POINTER(c_char), c_size_t]),
    "wrapper_audio_recorder_stop": (c_int, [c_void_p]),
    "wrapper_audio_recorder_free": (None, [c_void_p]),
    "wrapper_audio_abandoned_threads": (c_uint32, []),
    "wrapper_audio_voice_create": (c_int, [POINTER(c_void_p), POINTER(VoiceOptions)]),
    "wrapper_audio_high_pass_create": (c_int, [POINTER(c_void_p), c_int32, c_float, c_float]),
    "wrapper_audio_depop_create": (c_int, [POINTER(c_void_p), c_float]),
    "wrapper_audio_gain_control_create": (c_int, [POINTER(c_void_p), c_int32, c_float, c_float]),
    "wrapper_audio_limiter_create": (c_int, [POINTER(c_void_p), c_int32, c_float, c_float]),
    "wrapper_audio_processor_process": (
        c_int,
        [c_void_p, POINTER(c_float), c_size_t, POINTER(c_float), c_size_t, POINTER(c_size_t)],
    ),
    "wrapper_audio_processor_flush": (c_int, [c_void_p, POINTER(c_float), c_size_t, POINTER(c_size_t)]),
    "wrapper_audio_processor_take_speech": (c_size_t, [c_void_p, POINTER(c_float), c_size_t]),
    "wrapper_audio_processor_delay": (c_size_t, [c_void_p]),
    "wrapper_audio_processor_reset": (c_int, [c_void_p]),
    "wrapper_audio_processor_free": (None, [c_void_p]),
    "wrapper_audio_s16_to_f32": (c_int, [POINTER(c_int16), c_size_t, POINTER(c_float)]),
    "wrapper_audio_f32_to_s16": (c_int, [POINTER(c_float), c_size_t, POINTER(c_int16)]),
    "wrapper_audio_speech_defaults": (None, [POINTER(SpeechOptions)]),
    "wrapper_audio_speech_gate_create": (c_int, [POINTER(c_void_p), POINTER(SpeechOptions)]),
    "wrapper_audio_speech_gate_add": (c_int, [c_void_p, POINTER(c_float), c_size_t, POINTER(c_float), c_size_t]),
    "wrapper_audio_speech_gate_skip": (c_int, [c_void_p, c_uint64]),
    "wrapper_audio_recorder_read_gate": (c_int, [c_void_p, c_void_p, c_size_t, c_int32, POINTER(Block)]),
    "wrapper_audio_speech_gate_take": (c_int, [c_void_p, POINTER(c_float), c_size_t, POINTER(SpeechPiece)]),
    "wrapper_audio_speech_gate_flush": (c_int, [c_void_p]),
    "wrapper_audio_speech_gate_reset": (c_int, [c_void_p]),
    "wrapper_audio_speech_gate_free": (None, [c_void_p]),
    "wrapper_audio_aligner_create": (c_int, [POINTER(c_void_p), c_int32]),
    "wrapper_audio_aligner_add": (c_int, [c_void_p, c_int32, POINTER(c_float), c_size_t, c_int64]),
    "wrapper_audio_recorder_read_aligner": (c_int, [c_void_p, c_void_p, c_int32, c_size_t, c_int32, POINTER(Block)]),
    "wrapper_audio_aligner_take": (c_int, [c_void_p, POINTER(c_float), POINTER(c_float), c_size_t, POINTER(c_size_t)]),
    "wrapper_audio_aligner_flush": (c_int, [c_void_p]),
    "wrapper_audio_aligner_free": (None, [c_void_p]),
    "wrapper_audio_log_take": (c_size_t, [POINTER(c_char), c_size_t]),
    "wrapper_audio_log_in_english": (c_size_t, [c_char_p, POINTER(c_char), c_size_t]),
    "wrapper_audio_log_echo": (None, [c_int32]),
}
