// Stands in for the overlay process where only its start and end matter: leaves its pid in the file
// named by FAKE_PIDFILE, then ends with the status that the file FAKE_EXIT holds, or waits for a
// signal where there is no such file. With FAKE_STUBBORN set, SIGTERM does not end it.

#include <csignal>
#include <cstdlib>
#include <fstream>

#include <unistd.h>

int main()
{
    if (std::getenv("FAKE_STUBBORN") != nullptr)
        std::signal(SIGTERM, SIG_IGN);
    std::ofstream(std::getenv("FAKE_PIDFILE")) << getpid() << '\n';
    int status = 0;
    if (std::ifstream(std::getenv("FAKE_EXIT")) >> status)
        return status;
    for (;;)
        pause();
}
