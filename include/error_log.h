// The process's error lines on standard error: "ERR:#qm7osd:[tag]=message(function)\n".
#pragma once

// Printed between the brackets of every error line. Nothing assigns it: it stays null and prints
// as "(null)".
extern const char *log_tag;

// Writes one error line and flushes standard error. function is the reporting operation's name; the
// message may end in a line end of its own, and the name then stands on the next line. The line
// reaches standard error in one piece, so that nothing written elsewhere can part it; a line longer
// than 1023 bytes loses the end of its message, never the name behind it.
//
// Any thread; changes errno.
void log_error(const char *function, const char *format, ...) __attribute__((format(printf, 2, 3)));
