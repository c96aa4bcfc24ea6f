#include "command_line.h"

#include "text.h"
#include "values.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <numeric>
#include <utility>
#include <vector>

namespace {

constexpr const char* exit_codes = "\nExit codes:\n"
                                   "  0  done, to the end or until Ctrl-C or SIGTERM\n"
                                   "  1  something unexpected, such as no memory\n"
                                   "  2  wrong arguments\n"
                                   "  3  there is no input device, or none that records what the computer plays\n"
                                   "  4  the input device could not be opened\n"
                                   "  5  the input device failed; what was recorded before is kept\n"
                                   "  6  a file could not be read, created or written\n"
                                   "  7  the input file breaks off; what it holds was processed\n"
                                   "  8  nothing would be denoised, and --denoise=required was given\n"
                                   "  9  nobody spoke, and the command of `dictate` was not run";

struct common_options {
    bool quiet = false;
    bool verbose = false;
};

class parser {
public:
    parser();
    std::optional<exit_code> parse(int argc, char** argv, command_line& wanted);

private:
    CLI::App* add(const std::string& name, const std::string& description, const std::string& examples);
    void add_loudness(CLI::App* command);
    static void add_output(CLI::App* command, output_options& output);
    static void add_device(CLI::App* command, std::string& device);
    static void add_voice(CLI::App* command, voice_options& voice);
    static void add_effects(CLI::App* command, effect_options& effects);
    static void add_pauses(CLI::App* command, speech_options& speech);
    static void add_speech(CLI::App* command, speech_options& speech);
    static void add_recording(CLI::App* command, record_options& recording);
    void add_devices();
    void add_meter();
    void add_record();
    void add_dictate();
    void add_process();
    void add_doctor();
    std::string mistake(const CLI::ParseError& error, const CLI::App* command);

    CLI::App app{"Records clean speech: microphone capture with neural noise suppression, for people and for pipes.",
                 "wrapper-audio"};
    common_options common;
    devices_options devices;
    meter_options meter;
    record_options recording;
    dictate_options dictation;
    process_options processing;
    doctor_options doctor;
};

/** Turns what a parsing function throws into CLI11's error. */
template <class To, class Value>
CLI::callback_t value_of(const char* option, To& to, Value (*parse_text)(const std::string&)) {
    return [option, &to, parse_text](const CLI::results_t& texts) {
        try {
            to = parse_text(texts.at(0));
        } catch (const std::invalid_argument& error) {
            throw CLI::ValidationError(option, error.what());
        }
        return true;
    };
}

parser::parser() {
    app.require_subcommand(1);
    add_loudness(&app);
    app.set_version_flag("--version", "wrapper-audio " WRAPPER_AUDIO_VERSION);
    app.footer(std::string("\nExamples:\n"
                           "  wrapper-audio record --denoise speech.wav       record until Ctrl-C\n"
                           "  wrapper-audio meter                             is the microphone alive?\n"
                           "  wrapper-audio doctor                            what is wrong with it?\n\n"
                           "Each command has a --help with examples of its own.\n") +
               exit_codes);
    add_devices();
    add_meter();
    add_record();
    add_dictate();
    add_process();
    add_doctor();
}

CLI::App* parser::add(const std::string& name, const std::string& description, const std::string& examples) {
    CLI::App* command = app.add_subcommand(name, description);
    add_loudness(command);
    command->footer("\nExamples:\n" + examples + exit_codes);
    return command;
}

void parser::add_loudness(CLI::App* command) {
    auto* quiet = command->add_flag("-q,--quiet", common.quiet, "print errors only");
    command->add_flag("-v,--verbose", common.verbose, "print everything that the library and the audio system say")
        ->excludes(quiet);
}

void parser::add_device(CLI::App* command, std::string& device) {
    command
        ->add_option("-d,--device", device,
                     "the input device: its id, or a part of it that no other id has; see `devices`")
        ->type_name("ID");
}

void parser::add_voice(CLI::App* command, voice_options& voice) {
    auto* denoise = command->add_option(
        "--denoise",
        [&voice](const CLI::results_t& texts) {
            voice.must_denoise = texts.at(0) == "required";
            return voice.must_denoise || texts.at(0) == "true"
                       ? (voice.denoise = 1.0F, true)
                       : value_of("--denoise", voice.denoise, parse_share)(texts);
        },
        "suppress noise; --denoise=0.5 removes half of it, --denoise=required fails if nothing would be denoised");
    denoise->expected(0)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    command
        ->add_option("--strength", value_of("--strength", voice.denoise, parse_share),
                     "with --denoise: how much of the noise to remove, 0 to 1; default: 1")
        ->needs(denoise)
        ->type_name("SHARE");
    const std::map<std::string, wrapper_audio_conversion> conversions{{"clean", WRAPPER_AUDIO_CONVERSION_CLEAN},
                                                                      {"linear", WRAPPER_AUDIO_CONVERSION_LINEAR}};
    command
        ->add_option("--converter", voice.conversion,
                     "how to convert sample rates: clean (default), or linear, which is fast but aliases")
        ->transform(CLI::CheckedTransformer(conversions).description(""))
        ->type_name("clean|linear");
}

void parser::add_effects(CLI::App* command, effect_options& effects) {
    command
        ->add_option("--highpass", value_of("--highpass", effects.highpass, parse_high_pass),
                     "remove rumble below this frequency; default for Q: 0.707")
        ->type_name("HZ[:Q]");
    command
        ->add_option("--depop", value_of("--depop", effects.depop, parse_share),
                     "against pops: subtract this share, 0 to 1, of the previous sample")
        ->type_name("COEF");
    command
        ->add_option(
            "--agc", value_of("--agc", effects.agc, parse_gain_control),
            "bring the RMS level to DB, such as -20, within RELEASE_MS (default: 200); peaks stay below -1 dBFS")
        ->type_name("DB[:RELEASE_MS]");
}

void parser::add_pauses(CLI::App* command, speech_options& speech) {
    command
        ->add_option("--stop-after-silence", value_of("--stop-after-silence", speech.stop_after, parse_duration),
                     "end when nobody has spoken for so long, once somebody has")
        ->type_name("TIME");
    command
        ->add_option("--pre-roll", value_of("--pre-roll", speech.pre_roll, parse_pre_roll),
                     "how much sound to keep before speech, up to a minute; default: 0.3")
        ->type_name("TIME");
    command
        ->add_option("--events", speech.events,
                     "write a line of JSON for what happens: speech-start, speech-end, level, dropped, device-lost")
        ->type_name("FILE|-");
}

void parser::add_speech(CLI::App* command, speech_options& speech) {
    command->add_flag("--start-on-speech", speech.start, "begin when somebody speaks");
    add_pauses(command, speech);
    auto* trim = command->add_flag("--trim", speech.trim, "leave out what is not speech");
    command
        ->add_flag("--split", speech.split,
                   "write each utterance into a file of its own; %03d in the file's name becomes its number")
        ->excludes(trim);
}

std::map<std::string, sample_size> sample_sizes() {
    return {{"16", sample_size::bits_16}, {"24", sample_size::bits_24}, {"float", sample_size::real}};
}

void parser::add_output(CLI::App* command, output_options& output) {
    const std::map<std::string, sound_format> formats{{"wav", sound_format::wav},   {"flac", sound_format::flac},
                                                      {"raw", sound_format::raw},   {"ogg", sound_format::ogg},
                                                      {"opus", sound_format::opus}, {"mp3", sound_format::mp3}};
    command->add_option("-t,--type", output.format, "the format, whatever the name of the file says")
        ->transform(CLI::CheckedTransformer(formats).description(""))
        ->type_name("wav|flac|opus|ogg|mp3|raw");
    command->add_option("--bits", output.bits, "the samples of WAV, FLAC and raw; default: 16")
        ->transform(CLI::CheckedTransformer(sample_sizes()).description(""))
        ->type_name("16|24|float");
    command
        ->add_option("--bitrate", value_of("--bitrate", output.bitrate, parse_bitrate),
                     "of Opus and MP3, in bits per second, such as 64k")
        ->type_name("BITS");
    command
        ->add_option("--quality", value_of("--quality", output.quality, parse_quality),
                     "of Vorbis, from 0, small, to 10, large; default: 4")
        ->type_name("QUALITY");
    command->add_flag("-n,--no-clobber", output.keeps_older, "never overwrite a file");
}

void parser::add_devices() {
    CLI::App* command = add("devices", "List the devices to record from",
                            "  wrapper-audio devices\n"
                            "  wrapper-audio devices --json | jq -r '.[] | select(.kind == \"input\") | .id'\n");
    command->add_flag("--watch", devices.watch, "go on showing which devices arrive and leave, until Ctrl-C");
    auto* json = command->add_flag("--json", devices.json, "print JSON for programs: inputs and outputs");
    command->add_flag("--ids", devices.ids, "print ids only, one per line, for scripts")
        ->excludes(json)
        ->excludes("--watch");
    command->add_flag("--all", devices.all, "include outputs");
}

void parser::add_meter() {
    CLI::App* command = add("meter", "Show the level of an input, live",
                            "  wrapper-audio meter\n"
                            "  wrapper-audio meter --device usb --seconds 10\n"
                            "  wrapper-audio meter | tee levels.txt       one line per second\n");
    add_device(command, meter.device);
    command
        ->add_option("--seconds", value_of("--seconds", meter.seconds, parse_duration),
                     "how long, such as 90 or 1m30s; default: until Ctrl-C")
        ->type_name("TIME");
    command->add_flag("--json", meter.json, "print one JSON object per second");
}

/** What record and dictate have in common. */
void parser::add_recording(CLI::App* command, record_options& recording) {
    add_device(command, recording.device);
    command
        ->add_option("-r,--rate", value_of("--rate", recording.rate, parse_rate),
                     "samples per second, 100 to 384000, such as 44100 or 48k")
        ->type_name("HZ")
        ->default_str(std::to_string(recording.rate));
    add_voice(command, recording.voice);
    command
        ->add_option("--seconds", value_of("--seconds", recording.seconds, parse_duration),
                     "how long to record, such as 90 or 1m30s; default: until Ctrl-C")
        ->type_name("TIME");
    add_effects(command, recording.effects);
    add_output(command, recording.output);
    recording.output.sync = 1;
    command
        ->add_option("--sync", value_of("--sync", recording.output.sync, parse_interval),
                     "how often to make sure that the file is on the disk; 0: when the system wants; default: 1")
        ->type_name("TIME");
}

void parser::add_record() {
    CLI::App* command = add("record", "Record an input into a file or a pipe",
                            "  wrapper-audio record --denoise speech.wav\n"
                            "  wrapper-audio record --device usb --rate 48000 --seconds 60 minute.flac\n"
                            "  wrapper-audio record --highpass 80 --agc -20:300 talk.wav\n"
                            "  wrapper-audio record --system lecture.opus          what the computer plays\n"
                            "  wrapper-audio record --both --denoise call.wav      both sides of a call\n"
                            "  wrapper-audio record --denoise - | recogniser       raw signed 16-bit at 16000 Hz\n"
                            "  wrapper-audio record --split talk-%03d.wav          a file for each utterance\n");
    command
        ->add_option(
            "FILE", recording.path,
            "the file to write: .wav, .flac, .opus, .ogg, .mp3 or .raw, or - for standard output; %F and the like "
            "become the date and time, {} a number")
        ->required();
    add_recording(command, recording);
    command->add_flag("--system", recording.system, "record what the computer plays; on PipeWire and PulseAudio")
        ->excludes("--device");
    auto* both = command->add_flag("--both", recording.both,
                                   "record the input on the left and what the computer plays on the right");
    command
        ->add_option("--max-file-time", value_of("--max-file-time", recording.max_file_time, parse_duration),
                     "begin another file after so long; %03d or {} in the file's name becomes its number, %H and the "
                     "like the time, and otherwise the second one ends in -2")
        ->type_name("TIME");
    add_speech(command, recording.speech);
    auto* fill = command->add_flag("--fill-gaps", recording.fill_gaps,
                                   "put silence where sound was lost, so that times stay true");
    command->add_flag("--reconnect", recording.reconnect,
                      "wait for a device that fails or is unplugged, and go on in the same file");
    command
        ->add_flag("--split-gaps", recording.split_gaps,
                   "with --reconnect: go on in another file, named as with --max-file-time")
        ->needs("--reconnect")
        ->excludes(fill);
    auto* undenoised = command
                           ->add_option("--undenoised", recording.undenoised,
                                        "with --denoise: write the same sound without denoising into this file, too")
                           ->type_name("FILE|-");
    for (const char* other : {"--start-on-speech", "--stop-after-silence", "--trim", "--split", "--events"}) {
        command->get_option("--split-gaps")->excludes(command->get_option(other));
        fill->excludes(command->get_option(other));
        undenoised->excludes(command->get_option(other));
    }
    undenoised->excludes(command->get_option("--max-file-time"));
    for (const char* other : {"--system", "--fill-gaps", "--reconnect", "--undenoised", "--start-on-speech",
                              "--stop-after-silence", "--pre-roll", "--trim", "--split", "--events"})
        both->excludes(command->get_option(other));
    command->get_option("--split")->excludes("--max-file-time");
}

void parser::add_dictate() {
    CLI::App* command = add("dictate", "Record one utterance and run a command with it",
                            "  wrapper-audio dictate -- recogniser --model en {}\n"
                            "  wrapper-audio dictate --denoise -o note.wav -- aplay\n");
    dictation.recording.speech.stop_after = 1.5;
    command
        ->add_option("COMMAND", dictation.command,
                     "what to run; {} becomes the name of the file, which is the last argument otherwise")
        ->required()
        ->type_name("...");
    command->add_option("-o,--output", dictation.recording.path, "keep the sound in this file")->type_name("FILE");
    add_recording(command, dictation.recording);
    add_pauses(command, dictation.recording.speech);
}

void parser::add_process() {
    CLI::App* command = add("process", "Convert, denoise and filter a file",
                            "  wrapper-audio process --rate 16000 music.flac for-the-recogniser.wav\n"
                            "  wrapper-audio process --denoise --strength 0.8 noisy.wav clean.wav\n"
                            "  wrapper-audio process --highpass 80:0.9 --agc -20 quiet.wav loud.wav\n"
                            "  wrapper-audio process --denoise --loudness -16 talk.wav podcast.mp3\n"
                            "  wrapper-audio process --channel all --bitrate 64k interview.wav interview.opus\n");
    command->add_option("IN", processing.in, "any sound file; - is standard input")->required();
    command->add_option("OUT", processing.out, "the file to write: .wav, .flac, .opus, .ogg, .mp3, .raw or -")
        ->required();
    auto* raw = command
                    ->add_option("--raw-rate", value_of("--raw-rate", processing.raw_rate, parse_rate),
                                 "IN is raw samples at this rate, signed and little endian")
                    ->type_name("HZ");
    command->add_option("--raw-channels", processing.raw_channels, "with --raw-rate: how many channels; default: 1")
        ->needs(raw)
        ->check(CLI::Range(1, 64).description(""))
        ->type_name("N");
    command->add_option("--raw-bits", processing.raw_bits, "with --raw-rate: the size of the samples; default: 16")
        ->needs(raw)
        ->transform(CLI::CheckedTransformer(sample_sizes()).description(""))
        ->type_name("16|24|float");
    command
        ->add_option("--channel", value_of("--channel", processing.channel, parse_channel),
                     "take this channel, from 1, or all of them side by side; default: mix")
        ->type_name("N|mix|all");
    command
        ->add_option("-r,--rate", value_of("--rate", processing.rate, parse_rate),
                     "samples per second, 100 to 384000, such as 44100 or 48k; default: those of IN")
        ->type_name("HZ");
    add_voice(command, processing.voice);
    add_effects(command, processing.effects);
    command
        ->add_option("--loudness", value_of("--loudness", processing.loudness, parse_loudness),
                     "bring the whole to a loudness by EBU R128, such as -16, with its true peak below -1 dBTP")
        ->type_name("LUFS");
    add_speech(command, processing.speech);
    add_output(command, processing.output);
}

void parser::add_doctor() {
    CLI::App* command = add("doctor", "Find out why recording or denoising does not work",
                            "  wrapper-audio doctor\n"
                            "  wrapper-audio doctor --device usb\n");
    add_device(command, doctor.device);
}

/** How many letters must be added, removed or replaced to make one word of the other. */
std::size_t distance(const std::string& one, const std::string& other) {
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = std::exchange(row[j + 1], std::min({row[j] + 1, row[j + 1] + 1, replaced}));
        }
    }
    return row.back();
}

/** "; did you mean '--rate'?", or nothing when no word is near. */
std::string suggestion(const std::string& word, const std::vector<std::string>& words) {
    const auto nearest = std::min_element(words.begin(), words.end(), [&](const auto& left, const auto& right) {
        return distance(left, word) < distance(right, word);
    });
    const bool is_near = nearest != words.end() && distance(*nearest, word) <= (word.size() < 4 ? 1U : 2U);
    return is_near ? fmt::format("; did you mean '{}'?", *nearest) : "";
}

/** What was wrong, in one sentence that names the word which was. */
std::string parser::mistake(const CLI::ParseError& error, const CLI::App* command) {
    const std::vector<std::string> left = app.remaining(true);
    if (command == nullptr) {
        const auto word = std::find_if(left.begin(), left.end(), [](const auto& each) { return each[0] != '-'; });
        std::vector<std::string> names{"help"};
        for (const CLI::App* each : app.get_subcommands(nullptr))
            names.push_back(each->get_name());
        if (word != left.end()) return fmt::format("there is no command '{}'{}", *word, suggestion(*word, names));
    }
    // CLI11 names all words that it could not place, or what it missed because of them.
    const auto option =
        std::find_if(left.begin(), left.end(), [](const auto& each) { return each.size() > 1 && each[0] == '-'; });
    if (option == left.end())
        return left.empty() ? error.what() : fmt::format("'{}' is one argument too many", left.front());
    std::vector<std::string> names;
    for (const CLI::Option* each : (command != nullptr ? command : &app)->get_options())
        for (const std::string& name : each->get_lnames())
            names.push_back("--" + name);
    const std::string name = option->substr(0, option->find('='));
    return fmt::format("there is no option '{}'{}", name, suggestion(name, names));
}

std::optional<exit_code> parser::parse(int argc, char** argv, command_line& wanted) {
    std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
    if (!words.empty() && words[0] == "help") { // `help record` is `record --help`
        words.erase(words.begin());
        words.emplace_back("--help");
    }
    std::reverse(words.begin(), words.end()); // as CLI11 takes them
    try {
        app.parse(words);
        if (common.quiet && common.verbose) throw CLI::ParseError("--quiet and --verbose exclude each other", usage);
    } catch (const CLI::Success& help) {
        app.exit(help);
        return std::cout.flush() ? fine : file_trouble;
    } catch (const CLI::ParseError& error) {
        const auto named = app.get_subcommands();
        const CLI::App* command = named.empty() ? nullptr : named.front();
        std::cerr << fmt::format("wrapper-audio: {}\nTry `wrapper-audio{} --help`.\n",
                                 printable(mistake(error, command)),
                                 command != nullptr ? " " + command->get_name() : "");
        return usage;
    }
    wanted.loudness = common.quiet     ? console::loudness::quiet
                      : common.verbose ? console::loudness::verbose
                                       : console::loudness::normal;
    if (app.got_subcommand("devices")) wanted.command = devices;
    if (app.got_subcommand("meter")) wanted.command = meter;
    if (app.got_subcommand("record")) wanted.command = recording;
    if (app.got_subcommand("dictate")) wanted.command = dictation;
    if (app.got_subcommand("process")) wanted.command = processing;
    if (app.got_subcommand("doctor")) wanted.command = doctor;
    return std::nullopt;
}

} // namespace

std::optional<exit_code> parse(int argc, char** argv, command_line& wanted) {
    return parser().parse(argc, argv, wanted);
}
