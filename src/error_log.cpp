// Error lines. The only state is the tag, which nothing sets.

#include "error_log.h"

#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

const char *log_tag;

constexpr size_t LINE_BYTES = 1024; // with the NUL
constexpr size_t NAME_BYTES = 128;  // with the NUL

// Number of bytes in a buffer of room bytes after snprintf returned length.
static size_t bytes_kept(int length, size_t room)
{
    if (length < 0)
        return 0;
    return (size_t)length < room ? (size_t)length : room - 1;
}

void log_error(const char *function, const char *format, ...)
{
    char name[NAME_BYTES];
    const int name_length = snprintf(name, sizeof name, "(%s)\n", function);
    const size_t name_bytes = bytes_kept(name_length, sizeof name);

    char line[LINE_BYTES];
    const size_t room = sizeof line - name_bytes; // for prefix, message and a NUL
    size_t bytes = bytes_kept(snprintf(line, room, "ERR:#qm7osd:[%s]=", log_tag), room);

    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(line + bytes, room - bytes, format, arguments);
    va_end(arguments);
    bytes += bytes_kept(length, room - bytes);

    memcpy(line + bytes, name, name_bytes);
    bytes += name_bytes;

    // One fwrite on an unbuffered stream is one write. If standard error fails, the line is lost;
    // there is no other place to report it.
    (void)fwrite(line, 1, bytes, stderr);
    (void)fflush(stderr);
}
