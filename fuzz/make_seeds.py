#!/usr/bin/env python3
"""Writes the inputs that fuzzing starts from, in the forms that the targets read: fuzz/make_seeds.py

Those whose names begin with found_ are what the fuzzer found itself.
"""
import pathlib
import struct

seeds = pathlib.Path(__file__).parent / "seeds"


def write(target, **inputs):
    folder = seeds / target
    folder.mkdir(parents=True, exist_ok=True)
    for name, data in inputs.items():
        (folder / name).write_bytes(data)


# ---- Device tables, as devices.h reads them ----

def text(content):
    return bytes([len(content)]) + content


def repeated(unit, length):
    return bytes([255, len(unit) - 1]) + struct.pack("<H", length) + unit


def device(name, inputs=None, host_api=None, rate=None, latency=None, info=True):
    """`name` is a text as above or None, `rate` the number of a usual rate or a float of any bits."""
    bits = (not info) + 2 * (inputs is not None) + 4 * (host_api is not None) + 8 * (rate is not None) + 16 * (
        latency is not None)
    data = bytes([bits])
    data += b"" if inputs is None else struct.pack("b", inputs)
    data += b"" if host_api is None else struct.pack("b", host_api)
    if rate is not None:
        data += bytes([rate]) if isinstance(rate, int) else bytes([11]) + struct.pack("<d", rate)
    data += b"" if latency is None else struct.pack("<d", latency)
    return data + (bytes([15]) if name is None else bytes([0]) + name)


def table(*all_devices, host_apis=(text(b"ALSA"),), default=0, count=0):
    data = bytes([len(host_apis)])
    for name in host_apis:
        data += bytes([15]) if name is None else bytes([0]) + name
    return data + bytes([len(all_devices)]) + b"".join(all_devices) + struct.pack("bb", default, count)


mic = device(text(b"Mic"))
tables = {
    "one_microphone": table(mic),
    "no_device": table(default=-1),
    "more_promised_than_there_are": table(mic, device(text(b"Hidden"), info=False), count=5),
    "count_is_an_error": table(mic, count=-100),
    "default_is_out_of_range": table(mic, default=100),
    "no_names_and_no_host_apis": table(device(None), device(text(b""), host_api=-1), device(text(b"x"), host_api=1),
                                       host_apis=(None,)),
    "outputs_before_the_default": table(device(text(b"Speaker"), inputs=0), mic, default=1),
    "two_of_the_same_id": table(device(text(b"USB")), device(text(b"USB"), rate=1), default=1),
    "quotes_and_backslashes": table(device(text(b'"\\"\\n%s%n')), host_apis=(text(b'H"\\'),)),
    "control_bytes": table(device(text(b"a\n\x01\x1f\x7fb")), device(text(b"ab")), device(text(b"\x02"))),
    "names_like_the_lines_about_them": table(
        device(text(b"a' (idx=7, requested='x') capture_rate=8")), device(text(b"\n[audio_wrapper] ctx_create device='b")),
        device(text(b"[audio_wrapper] WARN device_id")), host_apis=(text(b"', requested='ALSA"),)),
    "utf8_whole_and_broken": table(device(text("микрофон".encode())), device(text(b"\xc3(\xff\xed\xa0\x80\xf4\x90")),
                                   device(text(b"\xc3")), host_apis=(text(b"\xf0\x9f"),)),
    "ids_of_255_256_and_300_bytes": table(device(repeated(b"n", 250)), device(repeated(b"n", 251)),
                                          device(repeated(b"n", 295))),
    "an_id_like_the_beginning_of_a_longer_one": table(device(repeated(b"n", 400)), device(repeated(b"n", 250))),
    "list_of_65535_bytes": table(device(repeated(b"n", 32730)), host_apis=(text(b"ALSAALSA"),)),
    "list_cut_in_a_name": table(device(repeated(b"n", 40000))),
    "list_cut_in_an_escape": table(device(repeated(b'"', 20000))),
    "list_cut_between_devices": table(device(repeated(b"n", 32600)), mic, mic, mic),
}
write("list", **tables)

# ---- Calls, as capture_fuzz.cpp reads them ----

INIT, ARM, OPEN, READ, STOP, RELEASE, FREE, LIST, FREE_TEXT, CAPABILITIES, METER_OPEN, METER_READ, METER_CLOSE, ANSWER = (
    0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15)
PA_READ, PA_OPEN, PA_START, PA_INITIALIZE, NO_MEMORY, NO_DENOISER, DOUBLED, DEVICES, SOUND = 0, 1, 2, 3, 7, 8, 9, 10, 11


def create(call, rate=0, denoise=False, device_id=0, slot=0):
    return bytes([call, slot, rate]) + (bytes([1]) + struct.pack("<i", 1) if denoise else bytes([0])) + bytes([device_id])


def read(ms=3, capacity=0, nulls=0, slot=0):
    return bytes([READ, slot, ms, capacity, nulls])


def answer(what, *arguments):
    return bytes([ANSWER, 0, what, *arguments])


def call(number, slot=0):
    return bytes([number, slot])


noise = answer(SOUND, 1)
any_bits = answer(SOUND, 2)
pattern = answer(SOUND, 3, 3) + struct.pack("<4f", float("nan"), float("-inf"), 1e-40, -1.5)
ordinary = tables["one_microphone"]


def at_rate(rate):
    return table(device(text(b"Mic"), rate=rate))


write(
    "capture",
    record_denoised=ordinary + noise + create(INIT, denoise=True) + read() + read(4) + call(FREE),
    record_plain_at_equal_rates=ordinary + noise + create(INIT, rate=1) + read() + read(7, 4),
    record_44100_at_16000=at_rate(1) + noise + create(INIT) + read() + read(0, 2),
    record_16000_at_48000=at_rate(2) + noise + create(INIT, rate=1) + read() + read(5, 5),
    record_numbers_of_any_bits=ordinary + any_bits + create(INIT, rate=1) + read() + create(INIT, slot=1) + read(slot=1),
    record_a_pattern_of_odd_numbers=ordinary + pattern + create(INIT, rate=2, denoise=True) + read() + read(1),
    rates_that_make_no_sense=b"".join((at_rate(float("nan")), noise, create(INIT), read(), call(METER_OPEN), b"\0",
                                       call(METER_READ), b"\0")),
    a_rate_of_two_gigahertz=at_rate(10) + create(INIT) + call(METER_OPEN) + b"\0",
    a_rate_below_one_hertz=at_rate(8) + noise + create(INIT) + read() + read(9) + call(METER_OPEN) + b"\0" +
    call(METER_READ) + b"\0",
    jack_fills_twice_the_buffer=ordinary + noise + answer(DOUBLED) + create(INIT) + read() + call(METER_OPEN) + b"\0" +
    call(METER_READ) + b"\0",
    all_states=ordinary + create(ARM) + read() + call(OPEN) + read() + call(OPEN) + call(STOP) + read() + call(STOP) +
    call(RELEASE) + call(OPEN) + call(STOP) + call(FREE),
    stopped_and_opened_again=ordinary + create(INIT) + call(STOP) + call(OPEN) + read() + call(RELEASE) + call(FREE),
    open_fails_and_then_works=ordinary + create(ARM) + answer(PA_OPEN, 2) + call(OPEN) + answer(PA_START, 1) +
    call(OPEN) + call(OPEN) + read(),
    reads_that_overrun_or_fail=ordinary + create(INIT) + answer(PA_READ, 0) + read() + answer(PA_READ, 1) + read() + read(),
    no_initialisation=ordinary + answer(PA_INITIALIZE, 1) * 4 + create(INIT) + call(LIST) + call(CAPABILITIES) +
    call(METER_OPEN) + b"\0",
    no_denoiser=ordinary + answer(NO_DENOISER) + create(INIT) + create(ARM),
    no_memory_for_the_record=ordinary + answer(NO_MEMORY, 0) + create(INIT),
    no_memory_for_the_first_buffer=ordinary + answer(NO_MEMORY, 1) + create(INIT),
    no_memory_for_the_second_buffer=ordinary + answer(NO_MEMORY, 2) + create(INIT),
    no_memory_for_a_meter=ordinary + answer(NO_MEMORY, 1) + call(METER_OPEN) + b"\0",
    no_memory_for_a_list=ordinary + answer(NO_MEMORY, 0) + call(LIST),
    by_id=tables["two_of_the_same_id"] + create(INIT, device_id=2) + create(ARM, device_id=11, slot=1) + text(b"ALSA:?"),
    without_handles=ordinary + call(OPEN) + read() + call(STOP) + call(RELEASE) + call(FREE) + call(METER_READ) + b"\0" +
    call(METER_CLOSE) + call(FREE_TEXT),
    a_meter_that_fails_twice=ordinary + pattern + call(METER_OPEN) + b"\0" + answer(PA_READ, 1) + answer(PA_READ, 2) +
    (call(METER_READ) + b"\0") * 3 + call(METER_CLOSE),
    a_meter_that_works_in_between=ordinary + call(METER_OPEN) + b"\0" + answer(PA_READ, 1) + answer(PA_READ, 3) +
    answer(PA_READ, 1) + (call(METER_READ) + b"\0") * 3,
    four_contexts_and_three_meters=ordinary + b"".join(create(INIT, slot=i) for i in range(4)) + b"".join(
        call(METER_OPEN, i) + b"\0" for i in range(3)) + read(slot=3) + call(LIST) + call(CAPABILITIES),
    a_device_is_plugged_in=table(default=-1) + create(INIT) + call(LIST) + answer(DEVICES) + ordinary + create(INIT) + read(),
)

# ---- Signal functions, as dsp_fuzz.cpp reads them ----

RESAMPLE, DESIGN, FILTER, DEPOP, SET_GAIN, CONTROL, UPDATE, FREEZE, MEASURE, AVERAGE, INTERPOLATE, MULTIPLY = range(12)


def made_up(kind, count, state=1):
    """1: noise, 2: numbers of any bits, 3: the numbers that break careless arithmetic."""
    return bytes([0, kind, 0, count]) + struct.pack("<I", state)


def given(*samples):
    return bytes([0, 0, len(samples)]) + struct.pack("<I", 0) + struct.pack(f"<{len(samples)}f", *samples)


def blocks(call, *arguments):
    return b"".join(bytes([call, *arguments]) + made_up(kind, count) + b"\0" for kind in (1, 2, 3) for count in (160, 33))


odd = given(float("nan"), float("inf"), -0.0, 1e-45, 3e38, -1e20)
write(
    "dsp",
    resample_by_thirds=b"".join(bytes([RESAMPLE, 0, 1]) + made_up(k, 240) + bytes([0, 0, 0]) for k in (1, 2, 3)),
    resample_44100=b"".join(bytes([RESAMPLE, 0, 2]) + made_up(k, 240) + bytes([0, 0, 0]) for k in (1, 2, 3)),
    resample_upwards=b"".join(bytes([RESAMPLE, 1, 0]) + made_up(k, 100) + bytes([0, 0, 0]) for k in (1, 2, 3)),
    resample_from_zero=bytes([RESAMPLE, 5, 1]) + odd + bytes([0, 0, 0]),
    resample_to_zero=bytes([RESAMPLE, 1, 5]) + odd + bytes([0, 0, 0]),
    resample_negative_rates_and_counts=bytes([RESAMPLE, 6, 6]) + odd + bytes([7, 200, 0, 0, 0]),
    filter_ordinary=bytes([DESIGN, 0, 0]) + blocks(FILTER),
    filter_without_quality=bytes([DESIGN, 1, 1]) + blocks(FILTER),
    filter_before_init=blocks(FILTER) + blocks(CONTROL),
    filter_of_any_bits=bytes([DESIGN, 5]) + struct.pack("<f", 1e38) + bytes([4]) + struct.pack("<f", 1e-45) + blocks(FILTER),
    filter_nan=bytes([DESIGN, 5]) + struct.pack("<f", float("nan")) + bytes([0]) + bytes([FILTER]) + odd + b"\0",
    depop=b"".join(bytes([DEPOP, 0]) + made_up(k, n) + b"\0" for k in (1, 2, 3) for n in (160, 33, 17)),
    gain_ordinary=bytes([SET_GAIN, 0, 0]) + blocks(CONTROL),
    gain_that_runs_away=bytes([SET_GAIN, 3, 2]) + blocks(CONTROL) * 2,
    gain_on_silence_and_odd_numbers=bytes([SET_GAIN, 0, 1, CONTROL]) + given(0, 0, 0) + bytes([0, CONTROL]) + odd + b"\0",
    counts_below_zero=b"".join(bytes([c]) + odd + bytes([7, 3]) for c in (FILTER, CONTROL, UPDATE)),
    metrics=blocks(UPDATE) + bytes([FREEZE, 1, 0, 0, 0]) + blocks(UPDATE) + bytes([FREEZE, 0, 0, 0, 0]) + blocks(UPDATE),
    metrics_quiet=bytes([UPDATE]) + given(*[1e-3] * 20) + b"\0",
    measure=b"".join(bytes([MEASURE]) + made_up(k, n) + b"\0" * 4 for k in (1, 2, 3) for n in (250, 31)) + bytes([MEASURE]) + odd,
    means_of_groups=b"".join(bytes([AVERAGE]) + made_up(k, 240) + bytes([r]) for k in (1, 2, 3) for r in (0, 1, 2, 4, 5)),
    interpolate=b"".join(bytes([INTERPOLATE]) + made_up(k, 240) + bytes([0, to, 0, 0]) for k in (1, 2, 3) for to in (1, 2, 4)),
    multiply=b"".join(bytes([MULTIPLY]) + made_up(k, 250) + struct.pack("<f", 3.0) for k in (1, 2, 3)),
)

# ---- Sound files, behind three bytes of options ----


def chunk(name, content):
    return name + struct.pack("<I", len(content)) + content + b"\0" * (len(content) % 2)


def wav(samples, rate=16000, channels=1, bits=16, tag=1, name=b"RIFF"):
    width = channels * bits // 8
    form = struct.pack("<HHIIHH", tag, channels, rate, rate * width & 0xFFFFFFFF, width, bits)
    return chunk(name, b"WAVE" + chunk(b"fmt ", form) + chunk(b"data", samples))


def au(samples, rate, encoding):
    return struct.pack(">4s5I", b".snd", 24, len(samples), encoding, rate, 1) + samples


def aiff(samples, rate):
    exponent = rate.bit_length() - 1
    rate80 = struct.pack(">HQ", 16383 + exponent, rate << (63 - exponent))
    comm = b"COMM" + struct.pack(">IHIH", 18, 1, len(samples) // 2, 16) + rate80
    ssnd = b"SSND" + struct.pack(">III", len(samples) + 8, 0, 0) + samples
    return b"FORM" + struct.pack(">I", 4 + len(comm) + len(ssnd)) + b"AIFF" + comm + ssnd


def crc(data, bits, polynomial):
    value = 0
    for byte in data:
        value ^= byte << (bits - 8)
        for _ in range(8):
            value = (value << 1) ^ (polynomial if value >> (bits - 1) else 0)
            value &= (1 << bits) - 1
    return value.to_bytes(bits // 8, "big")


def flac(samples, rate, subframe=b"\x02"):
    """One mono frame of 16-bit samples, verbatim (2) or constant (0)."""
    count = 5000 if subframe == b"\0" else len(samples) // 2
    about = struct.pack(">HH", count, count) + bytes(6) + (rate << 44 | 15 << 36 | count).to_bytes(8, "big") + bytes(16)
    head = b"\xff\xf8\x70\x08\0" + struct.pack(">H", count - 1)
    frame = head + crc(head, 8, 0x07) + subframe + samples
    return b"fLaC\x80\0\0\x22" + about + frame + crc(frame, 16, 0x8005)


def options(rate=0, effects=0, out=0, linear=False, denoise=False):
    return bytes([rate, effects, out + 3 * linear + 6 * denoise])


wave = b"".join(struct.pack("<h", (i * 2711) % 65536 - 32768) for i in range(300))
floats = struct.pack("<40f", *[float("nan"), float("inf"), 3e38, -3e38, 1e-45, 0.5, -1.0, 1.0] * 5)
write(
    "files",
    nothing=b"",
    options_only=options(2, 7, 1),
    no_sound_file=options() + b"This is a letter to my aunt.\n",
    wav_as_it_is=options() + wav(wave),
    wav_into_wav=options(0, 0, 1) + wav(wave),
    wav_into_flac=options(0, 0, 2) + wav(wave),
    wav_with_all_effects=options(0, 7, 0) + wav(wave),
    wav_16000_to_44100=options(3, 0, 0) + wav(wave),
    wav_96000_to_48000=options(4, 0, 0) + wav(wave, rate=96000),
    wav_16000_to_44100_linearly=options(3, 7, 0, linear=True) + wav(wave),
    wav_96000_to_48000_linearly=options(4, 0, 0, linear=True) + wav(wave[:301], rate=96000),
    wav_denoised_at_48000=options(0, 0, 0, denoise=True) + wav(wave * 5, rate=48000),
    wav_denoised_to_16000=options(2, 7, 0, denoise=True, linear=True) + wav(wave * 5, rate=44100),
    wav_stereo_44100_to_16000=options(2, 1, 0) + wav(wave, rate=44100, channels=2),
    wav_of_floats=options(0, 4, 0) + wav(floats, bits=32, tag=3),
    wav_of_doubles=options(0, 0, 0) + wav(struct.pack("<5d", 1e300, 0.5, -0.5, 0, float("nan")), bits=64, tag=3),
    wav_8_bits=options(1, 2, 0) + wav(wave[:200], bits=8),
    wav_24_bits=options(1, 0, 0) + wav(wave[:300], bits=24),
    wav_a_law=options() + wav(wave[:100], bits=8, tag=6),
    wav_at_one_hertz=options(1, 0, 0) + wav(wave[:30], rate=1),
    wav_at_one_hertz_to_48000=options(4, 0, 0) + wav(wave[:10], rate=1),
    wav_at_two_gigahertz=options(2, 0, 0) + wav(wave, rate=2147483647),
    wav_of_no_channels=options() + wav(wave, channels=0),
    wav_of_1024_channels=options() + wav(wave[:20], channels=1024),
    wav_that_breaks_off=options() + wav(wave)[:-101],
    wav_without_samples=options(2, 7, 1) + wav(b""),
    wav_that_promises_more=options() + wav(wave).replace(b"data" + struct.pack("<I", 600), b"data\xff\xff\xff\x7f"),
    wav_big_endian=options() + wav(wave, name=b"RIFX"),
    au_mu_law=options(2, 0, 0) + au(wave[:100], 8000, 1),
    au_16_bits=options(0, 0, 0) + au(wave, 8000, 3),
    flac=options(0, 0, 0) + flac(wave, 8000),
    flac_constant_into_flac=options(3, 4, 2) + flac(wave[:2], 8000, b"\0"),
    flac_that_breaks_off=options(0, 0, 0) + flac(wave, 8000)[:-100],
    aiff=options(2, 0, 0) + aiff(wave, 22050),
)

# ---- A stream for a speech gate, as processor_fuzz.cpp reads it ----


def heard(samples, frames, lost=False, takes=2):
    """`frames` are probabilities in fifteenths, for 8 frames each."""
    values = b"".join(bytes([value]) for value in frames)
    return bytes([samples // 8, 0 if lost else 1, 8 * len(frames)]) + values + bytes([takes]) + bytes([200] * takes)


speech = b"".join(heard(1000, frames) for frames in ([0, 15], [15, 15], [15, 7], [0, 0]))
write(
    "processor",
    speech_gate_16000=bytes([255, 1, 0, 0, 1, 3, 5, 0]) + speech * 4,
    speech_gate_with_losses=bytes([255, 4, 0, 0, 2, 4, 1, 5]) + (heard(500, [15]) + heard(80, [15], lost=True)) * 8,
    speech_gate_11025_without_times=bytes([255, 4, 0, 0, 0, 0, 0, 0]) + speech,
    speech_gate_at_100=bytes([255, 5, 0, 0, 1, 1, 1, 5]) + heard(80, [15, 0, 15, 0]) * 6,
)
