// The listening socket of the web server: from an address on the command line to one that a browser
// can open.
#pragma once

#include <string>

namespace simcam
{

struct Listener {
    int socket = -1;
    std::string address;  // "http://127.0.0.1:8080/", with the actual port
    bool exposed = false; // other machines may reach it
};

// Listens on "127.0.0.1:8080", "[::1]:8080", "localhost:0" (port 0: any free one), or a port alone.
// The address of a socket on all interfaces ("0.0.0.0", "[::]") is that of one of them. Returns a
// socket of -1 with *error set on failure; otherwise the caller closes it.
Listener listen_on(const std::string &listen, std::string *error);

} // namespace simcam
