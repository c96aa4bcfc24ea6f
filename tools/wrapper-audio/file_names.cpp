#include "file_names.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>
#include <vector>

namespace {

/** Where the number goes: its place, length and width; a length of 0 when there is none. */
struct number_place {
    std::size_t at = 0;
    std::size_t length = 0;
    int width = 0;
    bool zeros = false;
};

number_place find_number(const std::string& pattern) {
    for (std::size_t at = pattern.find('%'); at != std::string::npos && at + 1 < pattern.size();
         at = pattern.find('%', at + 2)) {
        const std::size_t letter = pattern.find_first_not_of("0123456789", at + 1);
        if (letter == std::string::npos || pattern[letter] != 'd' || letter - at > 3) continue;
        const std::string digits = pattern.substr(at + 1, letter - at - 1);
        return {at, letter + 1 - at, digits.empty() ? 0 : std::stoi(digits), digits.starts_with('0')};
    }
    return {};
}

/** With the first number in between whose file is not there yet. */
std::string first_free(const std::string& before, int number, const std::string& behind) {
    struct stat other {};
    for (;; ++number)
        if (std::string name = fmt::format("{}{}{}", before, number, behind); lstat(name.c_str(), &other) != 0)
            return name;
}

} // namespace

bool has_number(const std::string& pattern) {
    return find_number(pattern).length > 0 || pattern.find("{}") != std::string::npos;
}

std::string numbered(const std::string& pattern, int number) {
    const auto [at, length, width, zeros] = find_number(pattern);
    std::string name = pattern;
    if (length > 0)
        name.replace(at, length, zeros ? fmt::format("{:0{}}", number, width) : fmt::format("{:{}}", number, width));
    return name;
}

std::string expanded(const std::string& path) {
    std::string result = path;
    if (path.find('%') != std::string::npos) {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        std::vector<char> name(path.size() + 4096);
        result.assign(name.data(), std::strftime(name.data(), name.size(), path.c_str(), &local));
    }
    const std::size_t at = result.find("{}");
    return at == std::string::npos ? result : first_free(result.substr(0, at), 1, result.substr(at + 2));
}

std::string with_free_number(const std::string& path) {
    const std::size_t name = path.rfind('/') + 1; // npos + 1 is 0
    const std::size_t dot = path.find_last_of('.');
    const std::size_t at = dot == std::string::npos || dot <= name ? path.size() : dot;
    return first_free(path.substr(0, at) + "-", 2, path.substr(at));
}
