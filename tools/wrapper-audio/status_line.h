/**
 * One line that is redrawn in place, on a terminal and nowhere else.
 */
#ifndef STATUS_LINE_H
#define STATUS_LINE_H

#include <string>

/** A text and the number of columns it takes, which colours and UTF-8 make different from its length. */
struct shown_text {
    std::string text;
    int columns = 0;
};

/** What a terminal can do. */
struct terminal {
    bool redraws = false;
    bool colours = false;
    bool utf8 = false;
    int descriptor = -1;

    explicit terminal(int to);

    /** Columns that may be used: all but the last, behind which some terminals begin a new line. */
    int width() const;
};

namespace status_line {

/** Draws the line, over the one before. At most 20 times a second; what comes in between is left out. */
void show(const terminal& on, const shown_text& line);

/** Tells whether show() would draw now, for lines that are work to make. */
bool is_due();

/** Clears the line, so that a message can be written in its place. It comes back with the next show(). */
void make_room();

/** Leaves the line as it stands and goes to the next. */
void finish();

} // namespace status_line

#endif
