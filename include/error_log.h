// The process's error lines on standard error: "ERR:#qm7osd:[tag]=message(function)\n".
#pragma once

// Printed between the brackets of every error line. Nothing assigns it: it stays null and is
// printed as "(null)".
extern const char *log_tag;

// Writes one error line and flushes standard error. function is the name of the reporting function;
// if the message ends with a line end of its own, the name is on the next line. The line is written
// with one call, so that other output cannot split it. If it is longer than 1023 bytes, the end of
// the message is cut off, not the name.
//
// Any thread may call it. Changes errno.
void log_error(const char *function, const char *format, ...) __attribute__((format(printf, 2, 3)));
