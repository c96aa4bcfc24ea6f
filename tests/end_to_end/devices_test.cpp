// The device list, the choice of a device by its id, and machines without a microphone.
#include "sounds.h"
#include "with_microphones.h"

#include <nlohmann/json.hpp>

#include <map>

using nlohmann::json;

namespace {

class devices : public with_microphones {
protected:
    static json list() {
        char* text = wrapper_audio_list_devices_json();
        json parsed = json::parse(text);
        wrapper_audio_free_text(text);
        return parsed;
    }

    static json entry(const std::string& name, const std::string& kind, bool is_default) {
        return {{"id", "ALSA:" + name}, {"name", name}, {"kind", kind}, {"isDefault", is_default}};
    }

    // As a device must be called to be listed and opened: the sound's samples tell which one it was.
    void expect_to_hear(const std::vector<int16_t>& sound, int rate, const char* id, const std::string& name, int index,
                        const std::string& warning = "") {
        SCOPED_TRACE(name);
        log();
        context ctx(wrapper_audio_init(rate, 0, id));
        ASSERT_NE(ctx, nullptr);
        const std::string rate_text = std::to_string(rate);
        EXPECT_EQ(log(), warning + "[audio_wrapper] ctx_create device='" + name + "' (idx=" + std::to_string(index) +
                             ", requested='" + (id != nullptr ? id : "(null)") + "') capture_rate=" + rate_text +
                             " output_rate=" + rate_text + " denoise=0\n[audio_wrapper] init: поток открыт " +
                             "(capture_rate=" + rate_text + ")\n");
        std::vector<int16_t> expected;
        for (const float sample : playing(sound).next(static_cast<size_t>(rate / 100)))
            expected.push_back(static_cast<int16_t>(sample * 32767.0F));
        std::vector<int16_t> pcm(expected.size());
        EXPECT_EQ(wrapper_audio_read(ctx.get(), 10, pcm.data(), rate / 100, nullptr, nullptr), rate / 100);
        EXPECT_EQ(pcm, expected);
        log();
        ctx.reset();
        EXPECT_EQ(log(), "[audio_wrapper] Ресурсы освобождены\n");
    }
};

TEST_F(devices, are_listed_and_open_by_their_ids) {
    struct device {
        std::vector<int16_t> sound;
        int rate;
    };
    const std::map<std::string, device> inputs{
        {"kitchen", {std::vector<int16_t>(500, 1000), 48000}},
        {"USB Mic", {std::vector<int16_t>(500, -2000), 44100}},
        {"микрофон", {std::vector<int16_t>(500, 3000), 16000}},
        {"a \"b\" \\c", {std::vector<int16_t>(500, -4000), 48000}},
        {"default", {std::vector<int16_t>(500, 5000), 48000}},
    };
    configure(microphone("kitchen", sound_file(inputs.at("kitchen").sound), 48000) +
              microphone("\"USB Mic\"", sound_file(inputs.at("USB Mic").sound), 44100) +
              "pcm.front { type null }\n" // PortAudio takes this name for a loudspeaker
              + microphone("\"микрофон\"", sound_file(inputs.at("микрофон").sound), 16000) +
              microphone(R"("a \"b\" \\c")", sound_file(inputs.at("a \"b\" \\c").sound), 48000) +
              microphone("default", sound_file(inputs.at("default").sound), 48000));

    const json all = list();
    EXPECT_EQ(all, json::array({entry("kitchen", "input", false), entry("USB Mic", "input", false),
                                entry("front", "output", false), entry("микрофон", "input", false),
                                entry("a \"b\" \\c", "input", false), entry("default", "input", true)}));
    EXPECT_EQ(log(), "[audio_wrapper] list_devices: 6 устройств\n");
    EXPECT_EQ(wrapper_audio_capabilities(), 3);
    EXPECT_EQ(log(), "");

    size_t opened = 0;
    for (size_t index = 0; index < all.size(); ++index) {
        if (all[index]["kind"] != "input") continue;
        const auto id = all[index]["id"].get<std::string>();
        const auto name = all[index]["name"].get<std::string>();
        expect_to_hear(inputs.at(name).sound, inputs.at(name).rate, id.c_str(), name, static_cast<int>(index));
        ++opened;
    }
    EXPECT_EQ(opened, inputs.size());
}

TEST_F(devices, without_an_id_or_with_an_unknown_one_mean_the_default) {
    const std::vector<int16_t> sound = hostile_speech(48000);
    configure(microphone("mic", sound_file({}), 44100) + microphone("default", sound_file(sound), 48000));
    expect_to_hear(sound, 48000, nullptr, "default", 1);
    expect_to_hear(sound, 48000, "", "default", 1);
    for (const std::string id : {"ALSA:nowhere", "mic", "alsa:mic", "ALSA:mic "}) {
        expect_to_hear(sound, 48000, id.c_str(), "default", 1,
                       "[audio_wrapper] WARN device_id '" + id + "' не найден, fallback на default input\n");
    }
}

TEST_F(devices, that_only_play_are_refused_by_portaudio) {
    configure("pcm.front { type null }\n" + microphone("default", sound_file({}), 48000));
    EXPECT_EQ(wrapper_audio_init(16000, 0, "ALSA:front"), nullptr);
    EXPECT_NE(log().find("\n[audio_wrapper] open_input_stream ОШИБКА: Invalid number of channels (rate=44100)\n"),
              std::string::npos);
    EXPECT_EQ(wrapper_audio_meter_open("ALSA:front"), nullptr);
    EXPECT_EQ(log(), "[audio_wrapper] meter_open: open_input_stream ОШИБКА: Invalid number of channels\n");
}

TEST_F(devices, that_can_capture_may_be_missing) {
    configure("pcm.front { type null }\n" + microphone("default", "/there/is/no/such/file", 48000));
    EXPECT_EQ(list(), json::array({entry("front", "output", false)}));
    EXPECT_EQ(wrapper_audio_capabilities(), 1);
    log();
    EXPECT_EQ(wrapper_audio_init(16000, 0, nullptr), nullptr);
    EXPECT_EQ(log(), "[audio_wrapper] нет устройства ввода (resolve → paNoDevice)\n");
}

TEST_F(devices, may_be_missing_altogether) {
    configure(microphone("default", "/there/is/no/such/file", 48000));
    char* text = wrapper_audio_list_devices_json();
    EXPECT_STREQ(text, "[]");
    wrapper_audio_free_text(text);
    EXPECT_EQ(log(), "[audio_wrapper] list_devices: 0 устройств\n");
    EXPECT_EQ(wrapper_audio_capabilities(), 1);
    EXPECT_EQ(log(), "");

    EXPECT_EQ(wrapper_audio_init(16000, 0, nullptr), nullptr);
    EXPECT_EQ(wrapper_audio_arm(16000, 0, nullptr), nullptr);
    const std::string none = "[audio_wrapper] нет устройства ввода (resolve → paNoDevice)\n";
    EXPECT_EQ(log(), none + none);
    EXPECT_EQ(wrapper_audio_meter_open(nullptr), nullptr);
    EXPECT_EQ(log(), "[audio_wrapper] meter_open: нет устройства ввода\n");
}

TEST_F(devices, plugged_in_later_are_seen_once_every_context_is_gone) {
    const std::string first = microphone("default", sound_file(std::vector<int16_t>(500, 1000)), 48000);
    const std::vector<int16_t> sound(500, 2000);
    const std::string later = microphone("later", sound_file(sound), 48000);
    configure(first);
    context ctx(wrapper_audio_arm(16000, 0, nullptr));
    ASSERT_NE(ctx, nullptr);
    configure(first + later);
    EXPECT_EQ(list(), json::array({entry("default", "input", true)}));
    ctx.reset();
    EXPECT_EQ(list(), json::array({entry("later", "input", false), entry("default", "input", true)}));
    expect_to_hear(sound, 48000, "ALSA:later", "later", 0);
}

} // namespace
