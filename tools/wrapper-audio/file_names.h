/**
 * Names of files with the date or a number in them.
 */
#ifndef FILE_NAMES_H
#define FILE_NAMES_H

#include <string>

/** Whether each number gives a name of its own: there is %d, %3d, %03d or {} in it. */
bool has_number(const std::string& pattern);

/** With a number in place of %d, %3d or %03d. */
std::string numbered(const std::string& pattern, int number);

/** With the local time for what strftime() knows, and for {} the first number from 1 whose file is not there yet. */
std::string expanded(const std::string& path);

/** With the first of -2, -3 and so on in front of the extension whose file is not there yet. */
std::string with_free_number(const std::string& path);

#endif
