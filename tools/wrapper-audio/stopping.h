/**
 * Signals: the ways in which a command that listens is told to end.
 */
#ifndef STOPPING_H
#define STOPPING_H

/** From here on Ctrl-C, SIGTERM and a closed terminal end a command in good order. A second one ends the program. */
void stop_on_signals();

/** Whether one of these signals has come. */
bool stop_requested();

/** A closed pipe and a full quota are errors of the write that runs into them, not the death of the program. */
void ignore_write_signals();

#endif
