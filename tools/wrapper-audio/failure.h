/**
 * How the program ends.
 */
#ifndef FAILURE_H
#define FAILURE_H

#include <stdexcept>
#include <string>

enum exit_code {
    fine = 0,
    unexpected = 1,
    usage = 2,
    no_input_device = 3,
    open_failed = 4,
    read_failed = 5,
    file_trouble = 6,
    input_breaks_off = 7,
    not_denoised = 8,
    nobody_spoke = 9
};

/** Ends the command with one sentence for the user, who need not know the program from inside, and one of advice. */
class failure : public std::runtime_error {
public:
    failure(exit_code ends_with, const std::string& sentence, const std::string& do_this = "")
        : std::runtime_error(sentence), code(ends_with), advice(do_this) {}

    const exit_code code;
    const std::string advice;

    /** With `more` behind what happened, and then the advice. */
    std::string text(const std::string& more = "") const {
        std::string happened = what() + more;
        const bool is_list = happened.find('\n') != std::string::npos;
        if (!advice.empty()) happened += (is_list ? "\n" : ". ") + advice;
        return happened;
    }
};

#endif
