/**
 * Sound brought to a loudness, for which all of it must be known first.
 */
#ifndef LOUDNESS_H
#define LOUDNESS_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <span>
#include <string>

/** What EBU R128 says about sound. */
struct loudness_measured {
    double lufs = 0;
    double true_peak_db = 0; // between the samples too
};

/** Keeps sound in a temporary file and gives it back with a gain, and limited so that its true peak is below -1 dBTP. */
class loudness_stage {
public:
    loudness_stage(double target_lufs, int rate, int channels);

    /** Whole frames. Throws a failure when they cannot be kept. */
    void add(std::span<const float> samples);

    /**
     * Calls `write` with all of the sound in pieces until it returns false. Returns false then, or when the program is
     * told to stop.
     */
    bool finish(const std::function<bool(std::span<const float>)>& write);

    /** ", loudness -16.0 LUFS, true peak -1.4 dBTP" */
    std::string text() const;

    /** Why the loudness is not the one that was wanted; nothing when it is. */
    std::string shortfall() const;

private:
    struct setting {
        double gain_db = 0;
        double ceiling_db = -1;
    };

    loudness_measured measure(const setting& with);
    bool play(const setting& with, const std::function<bool(std::span<const float>)>& take);

    struct closer {
        void operator()(std::FILE* open) const { static_cast<void>(std::fclose(open)); } // it is gone then
    };
    const double target_lufs_;
    const int rate_;
    const int channels_;
    std::unique_ptr<std::FILE, closer> kept_;
    loudness_measured result_;
};

#endif
