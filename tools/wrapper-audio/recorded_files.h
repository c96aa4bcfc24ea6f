/**
 * The files that a recording writes, one after the other.
 */
#ifndef RECORDED_FILES_H
#define RECORDED_FILES_H

#include "commands.h"
#include "level.h"
#include "output.h"

#include <functional>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

class recorded_files {
public:
    /**
     * Of `limit` samples of each channel, all files together. The result calls the channels by their names, of which the
     * only one needs none, and ends with the remark.
     */
    recorded_files(std::string path, const record_options& wanted, std::uint64_t limit,
                   std::vector<std::string> channels = {""}, std::function<std::string()> remark = nullptr);

    /** Creates the next file. Throws a failure. */
    void create();

    /** Takes whole frames until the limit, in as many files as they need. Returns whether they arrived. */
    bool write(std::span<const float> frames);

    /** Goes on in another file. Returns whether this one arrived; throws a failure. */
    bool next();

    /** Closes the file and says how it went. Returns `code`, or that there was trouble. */
    exit_code finish(exit_code code);

    bool is_open() const { return file_ != nullptr; }
    bool reader_gone() const { return is_open() && file_->reader_gone(); }
    std::string shown_name() const;

    /** The samples of each channel in all files. */
    std::uint64_t count() const { return count_; }

private:
    std::uint64_t room() const;
    void measure(std::span<const float> frames);

    const std::string path_;
    const record_options& wanted_;
    const std::uint64_t limit_;
    const std::uint64_t file_limit_;
    const std::vector<std::string> channels_;
    const std::function<std::string()> remark_;
    std::set<std::string> names_;
    std::string name_;
    int files_ = 0;
    std::unique_ptr<output> file_;
    std::vector<level> levels_; // of what is in the file
    std::vector<float> limited_;
    std::vector<float> channel_;
    std::uint64_t count_ = 0;
    bool failed_ = false;
};

/** How many samples that is. Throws a failure that names the option if it is none. */
std::uint64_t samples_in(const std::optional<double>& seconds, int rate, const char* option);

#endif
