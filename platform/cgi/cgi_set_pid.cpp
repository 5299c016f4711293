// Replaces the CGI support library of a camera: writes the process id, in decimal with a line end,
// into a pid file.

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

// Returns 0, or -1 if the file could not be written; the file may then be incomplete.
extern "C" int32_t cgi_set_pid(const char *path);

extern "C" int32_t cgi_set_pid(const char *path)
{
    char text[16];
    const int length = snprintf(text, sizeof text, "%d\n", (int)getpid());

    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0)
        return -1;
    const ssize_t written = write(file, text, (size_t)length);
    (void)close(file); // the result of write counts, not that of close
    return written == length ? 0 : -1;
}
