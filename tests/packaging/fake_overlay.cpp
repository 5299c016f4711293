// Stands in for the overlay process where only its start and end matter: leaves its pid in the file
// named by FAKE_PIDFILE, then ends with the status that the file FAKE_EXIT holds, or waits for a
// signal where there is no such file. With FAKE_STUBBORN set, SIGTERM does not end it. With
// FAKE_DEVICE set, it opens that file first and keeps it open; status 1 where it cannot.

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
