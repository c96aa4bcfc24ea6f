#include "command_line.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <iostream>
#include <map>

namespace {

constexpr const char* exit_codes = "\nExit codes:\n"
                                   "  0  done, to the end or until Ctrl-C or SIGTERM\n"
                                   "  1  something unexpected, such as no memory\n"
                                   "  2  wrong arguments\n"
                                   "  3  there is no input device\n"
                                   "  4  the input device could not be opened\n"
                                   "  5  the input device failed; what was recorded before is kept\n"
                                   "  6  a file could not be read, created or written";

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
    static void add_device(CLI::App* command, std::string& device);
    static void add_voice(CLI::App* command, voice_options& voice);
    static void add_effects(CLI::App* command, effect_options& effects);
    void add_devices();
    void add_meter();
    void add_record();
    void add_process();
    void add_doctor();

    CLI::App app{"Records clean speech: microphone capture with neural noise suppression, for people and for pipes.",
                 "wrapper-audio"};
    common_options common;
    devices_options devices;
    meter_options meter;
    record_options recording;
    process_options processing;
    doctor_options doctor;
};

/** Turns what a parsing function throws into CLI11's error. */
template <class Value>
CLI::callback_t value_of(const char* option, std::optional<Value>& to, Value (*parse_text)(const std::string&)) {
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
    add_process();
    add_doctor();
}

CLI::App* parser::add(const std::string& name, const std::string& description, const std::string& examples) {
    CLI::App* command = app.add_subcommand(name, description);
    auto* quiet = command->add_flag("-q,--quiet", common.quiet, "say nothing but errors");
    command->add_flag("-v,--verbose", common.verbose, "show all that the library and the audio system say")
        ->excludes(quiet);
    command->footer("\nExamples:\n" + examples + exit_codes);
    return command;
}

void parser::add_device(CLI::App* command, std::string& device) {
    command->add_option("-d,--device", device, "an input device: its id, or a part that only one has; see `devices`")
        ->type_name("ID");
}

void parser::add_voice(CLI::App* command, voice_options& voice) {
    auto* denoise = command->add_option(
        "--denoise",
        [&voice](const CLI::results_t& texts) {
            return texts.at(0) == "true" ? (voice.denoise = 1.0F, true)
                                         : value_of("--denoise", voice.denoise, parse_share)(texts);
        },
        "suppress noise; --denoise=0.5 takes half of it away");
    denoise->expected(0);
    command
        ->add_option("--strength", value_of("--strength", voice.denoise, parse_share),
                     "with --denoise: how much of the noise is taken away, 0 to 1; 1 if not given")
        ->needs(denoise)
        ->type_name("SHARE");
    const std::map<std::string, wrapper_audio_conversion> conversions{{"clean", WRAPPER_AUDIO_CONVERSION_CLEAN},
                                                                      {"linear", WRAPPER_AUDIO_CONVERSION_LINEAR}};
    command
        ->add_option("--converter", voice.conversion, "of sample rates: clean, or linear, which is quick and aliases")
        ->transform(CLI::CheckedTransformer(conversions).description(""))
        ->type_name("clean|linear");
}

void parser::add_effects(CLI::App* command, effect_options& effects) {
    command
        ->add_option("--highpass", value_of("--highpass", effects.highpass, parse_high_pass),
                     "remove rumble below this corner; Q is 0.707 if not given")
        ->type_name("HZ[:Q]");
    command
        ->add_option("--depop", value_of("--depop", effects.depop, parse_share),
                     "subtract this share of the sample before, 0 to 1, against pops")
        ->type_name("COEF");
    command
        ->add_option("--agc", value_of("--agc", effects.agc, parse_gain_control),
                     "steer the RMS level to DB, such as -20, within RELEASE_MS (200 if not given)")
        ->type_name("DB[:RELEASE_MS]");
}

void parser::add_devices() {
    CLI::App* command = add("devices", "List the devices to record from",
                            "  wrapper-audio devices\n"
                            "  wrapper-audio devices --json | jq -r '.[] | select(.kind == \"input\") | .id'\n");
    auto* json = command->add_flag("--json", devices.json, "a list for programs, inputs and outputs");
    command->add_flag("--ids", devices.ids, "ids alone, one a line, for scripts")->excludes(json);
    command->add_flag("--all", devices.all, "outputs as well");
}

void parser::add_meter() {
    CLI::App* command = add("meter", "Show the level of an input, live",
                            "  wrapper-audio meter\n"
                            "  wrapper-audio meter --device usb --seconds 10\n"
                            "  wrapper-audio meter | tee levels.txt       one line a second\n");
    add_device(command, meter.device);
    command->add_option("--seconds", meter.seconds, "how long; default: until Ctrl-C")->type_name("S");
}

void parser::add_record() {
    CLI::App* command = add("record", "Record an input into a WAV, FLAC or raw file, or a pipe",
                            "  wrapper-audio record --denoise speech.wav\n"
                            "  wrapper-audio record --device usb --rate 48000 --seconds 60 minute.flac\n"
                            "  wrapper-audio record --highpass 80 --agc -20:300 talk.wav\n"
                            "  wrapper-audio record --denoise - | recogniser       raw signed 16-bit at 16000 Hz\n");
    command
        ->add_option("FILE", recording.path,
                     "the file, overwritten: .wav, .flac or .raw; - sends raw samples to standard output")
        ->required();
    add_device(command, recording.device);
    command->add_option("-r,--rate", recording.rate, "samples per second, 100 to 384000")
        ->check(CLI::Range(100, 384000).description(""))
        ->type_name("HZ")
        ->capture_default_str();
    add_voice(command, recording.voice);
    command->add_option("--seconds", recording.seconds, "how long to record; default: until Ctrl-C")->type_name("S");
    add_effects(command, recording.effects);
}

void parser::add_process() {
    CLI::App* command = add("process", "Convert, denoise and filter a file",
                            "  wrapper-audio process --rate 16000 music.flac for-the-recogniser.wav\n"
                            "  wrapper-audio process --denoise --strength 0.8 noisy.wav clean.wav\n"
                            "  wrapper-audio process --highpass 80:0.9 --agc -20 quiet.wav loud.wav\n");
    command->add_option("IN", processing.in, "any sound file; several channels are mixed to one")->required();
    command->add_option("OUT", processing.out, "the file to write: .wav, .flac, .raw or -, 16 bits, mono")->required();
    command->add_option("-r,--rate", processing.rate, "samples per second, 100 to 384000; default: those of IN")
        ->check(CLI::Range(100, 384000).description(""))
        ->type_name("HZ");
    add_voice(command, processing.voice);
    add_effects(command, processing.effects);
}

void parser::add_doctor() {
    CLI::App* command = add("doctor", "Find out why recording or denoising does not work",
                            "  wrapper-audio doctor\n"
                            "  wrapper-audio doctor --device usb\n");
    add_device(command, doctor.device);
}

std::optional<exit_code> parser::parse(int argc, char** argv, command_line& wanted) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        app.exit(help);
        return std::cout.flush() ? fine : file_trouble;
    } catch (const CLI::ParseError& error) {
        const auto named = app.get_subcommands();
        const std::string command = named.empty() ? "" : " " + named.front()->get_name();
        const std::string sentence = named.empty() && argc > 1 && argv[1][0] != '-'
                                         ? fmt::format("there is no command '{}'", argv[1])
                                         : std::string(error.what());
        std::cerr << fmt::format("wrapper-audio: {}\nTry `wrapper-audio{} --help`.\n", sentence, command);
        return usage;
    }
    wanted.loudness = common.quiet     ? console::loudness::quiet
                      : common.verbose ? console::loudness::verbose
                                       : console::loudness::normal;
    if (app.got_subcommand("devices")) wanted.command = devices;
    if (app.got_subcommand("meter")) wanted.command = meter;
    if (app.got_subcommand("record")) wanted.command = recording;
    if (app.got_subcommand("process")) wanted.command = processing;
    if (app.got_subcommand("doctor")) wanted.command = doctor;
    return std::nullopt;
}

} // namespace

std::optional<exit_code> parse(int argc, char** argv, command_line& wanted) {
    return parser().parse(argc, argv, wanted);
}
