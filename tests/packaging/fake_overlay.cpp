// Replaces the overlay process for tests of the start-up files: writes its pid to the file
// FAKE_PIDFILE, then exits with the status in the file FAKE_EXIT, or waits for a signal if there is
// no such file. With FAKE_STUBBORN it ignores SIGTERM. With FAKE_DEVICE it first opens that file,
// keeps it open, and exits with status 1 if it cannot; with FAKE_SLOW it does so after a second.

#include <csignal>
#include <cstdlib>
#include <fstream>

#include <fcntl.h>
#include <unistd.h>

int main()
{
    if (std::getenv("FAKE_STUBBORN") != nullptr)
        std::signal(SIGTERM, SIG_IGN);
    if (const char *path = std::getenv("FAKE_DEVICE")) {
        if (std::getenv("FAKE_SLOW") != nullptr)
            sleep(1);
        static int device; // open until the process ends
        device = open(path, O_RDONLY);
        if (device < 0)
            return 1;
    }
    std::ofstream(std::getenv("FAKE_PIDFILE")) << getpid() << '\n';
    int status = 0;
    if (std::ifstream(std::getenv("FAKE_EXIT")) >> status)
        return status;
    for (;;)
        pause();
}
