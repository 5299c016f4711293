// The listening socket of the web server: from an address on the command line to one that a browser
// can open.
#pragma once

#include <string>
#include <utility>

#include <sys/socket.h>

struct ifaddrs;

namespace simcam
{

// Owns a descriptor: closes it unless it was released.
class Socket
{
  public:
    explicit Socket(int fd = -1) : fd_(fd)
    {
    }
    Socket(Socket &&other) noexcept : fd_(other.release())
    {
    }
    Socket &operator=(Socket &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Socket();
    int get() const
    {
        return fd_;
    }
    int release()
    {
        return std::exchange(fd_, -1);
    }

  private:
    int fd_;
};

struct Listener {
    Socket socket;
    std::string address;  // "http://127.0.0.1:8080/", with the actual port
    bool exposed = false; // other machines may reach it
};

// Listens on "127.0.0.1:8080", "[::1]:8080", "localhost:0" (port 0: any free one), or a port alone.
// The address of a socket on all interfaces ("0.0.0.0", "[::]") is that of one of them. Returns a
// socket of -1 with *error set on failure.
Listener listen_on(const std::string &listen, std::string *error);

// The host of a URL for a socket that listens on address, on a machine with these interfaces (null:
// none). six_only: a socket on all IPv6 interfaces does not accept IPv4.
std::string listen_host(const sockaddr *address, bool six_only, const ifaddrs *interfaces);
// Whether only this machine reaches the address; also an IPv4 address mapped into IPv6.
bool listen_is_loopback(const sockaddr *address);

} // namespace simcam
