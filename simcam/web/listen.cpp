// Addresses to listen on, and the interfaces of this machine.
#include "web/listen.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace simcam
{

// inet_pton is stricter than getaddrinfo, which reads 010.0.0.1 as 8.0.0.1 and port 65536 as 0.
static bool parse_listen(const std::string &listen, sockaddr_storage *address, socklen_t *length)
{
    std::string host = "127.0.0.1";
    std::string port = listen;
    const size_t colon = listen.rfind(':');
    if (colon != std::string::npos) {
        port = listen.substr(colon + 1);
        if (colon > 0)
            host = listen.substr(0, colon);
    }
    if (port.empty() || port.size() > 5 ||
        !std::all_of(port.begin(), port.end(), [](char c) { return c >= '0' && c <= '9'; }) ||
        std::stoul(port) > 65535)
        return false;
    const uint16_t number = htons(static_cast<uint16_t>(std::stoul(port)));
    if (host == "localhost")
        host = "127.0.0.1";
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);

    *address = {};
    auto *four = reinterpret_cast<sockaddr_in *>(address);
    if (inet_pton(AF_INET, host.c_str(), &four->sin_addr) == 1) {
        four->sin_family = AF_INET;
        four->sin_port = number;
        *length = sizeof *four;
        return true;
    }
    auto *six = reinterpret_cast<sockaddr_in6 *>(address);
    if (inet_pton(AF_INET6, host.c_str(), &six->sin6_addr) == 1) {
        six->sin6_family = AF_INET6;
        six->sin6_port = number;
        *length = sizeof *six;
        return true;
    }
    return false;
}

// ---- the address to open ----

static in_addr four_of(const sockaddr *address)
{
    return reinterpret_cast<const sockaddr_in *>(address)->sin_addr;
}

static in6_addr six_of(const sockaddr *address)
{
    return reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
}

bool listen_is_loopback(const sockaddr *address)
{
    constexpr uint8_t net = 127; // 127.0.0.0/8
    if (address->sa_family == AF_INET)
        return ntohl(four_of(address).s_addr) >> 24 == net;
    const in6_addr six = six_of(address);
    return IN6_IS_ADDR_LOOPBACK(&six) || (IN6_IS_ADDR_V4MAPPED(&six) && six.s6_addr[12] == net);
}

static bool is_any(const sockaddr *address)
{
    if (address->sa_family == AF_INET)
        return four_of(address).s_addr == htonl(INADDR_ANY);
    const in6_addr six = six_of(address);
    constexpr uint8_t four_any[4] = {};
    return IN6_IS_ADDR_UNSPECIFIED(&six) ||
           (IN6_IS_ADDR_V4MAPPED(&six) && memcmp(six.s6_addr + 12, four_any, 4) == 0);
}

// As in a URL: an IPv6 address has brackets.
static std::string host_text(const sockaddr *address)
{
    char text[INET6_ADDRSTRLEN] = "";
    if (address->sa_family == AF_INET) {
        const in_addr four = four_of(address);
        return inet_ntop(AF_INET, &four, text, sizeof text);
    }
    const in6_addr six = six_of(address);
    return "[" + std::string(inet_ntop(AF_INET6, &six, text, sizeof text)) + "]";
}

// An address that other machines can open; empty if no interface has one of that family.
static std::string interface_host(int family, const ifaddrs *interfaces)
{
    constexpr unsigned running = IFF_UP | IFF_RUNNING;
    for (const ifaddrs *one = interfaces; one; one = one->ifa_next) {
        const sockaddr *address = one->ifa_addr;
        if (!address || address->sa_family != family || (one->ifa_flags & running) != running ||
            listen_is_loopback(address))
            continue;
        if (family == AF_INET6) {
            const in6_addr six = six_of(address);
            if (IN6_IS_ADDR_LINKLOCAL(&six)) // needs the interface's name, which browsers refuse
                continue;
        }
        return host_text(address);
    }
    return {};
}

std::string listen_host(const sockaddr *address, bool six_only, const ifaddrs *interfaces)
{
    if (!is_any(address))
        return host_text(address);
    bool four_only = address->sa_family == AF_INET;
    if (!four_only) {
        const in6_addr six = six_of(address);
        four_only = IN6_IS_ADDR_V4MAPPED(&six);
    }
    std::string host = four_only ? "" : interface_host(AF_INET6, interfaces);
    if (host.empty() && (four_only || !six_only))
        host = interface_host(AF_INET, interfaces);
    if (host.empty())
        host = four_only ? "127.0.0.1" : "[::1]";
    return host;
}

// ---- the socket ----

Socket::~Socket()
{
    if (fd_ >= 0)
        close(fd_);
}

Listener listen_on(const std::string &listen, std::string *error)
{
    Listener listener;
    sockaddr_storage storage;
    socklen_t length = 0;
    if (!parse_listen(listen, &storage, &length)) {
        *error =
            "\"" + listen + "\" is not an address to listen on; give one such as 127.0.0.1:8080";
        return listener;
    }
    auto *generic = reinterpret_cast<sockaddr *>(&storage);
    Socket owned(socket(generic->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int fd = owned.get();
    const int on = 1;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(fd, generic, length) != 0 || ::listen(fd, 64) != 0 ||
        getsockname(fd, generic, &length) != 0) {
        const int reason = errno;
        *error = "cannot listen on " + listen + ": " + strerror(reason);
        if (reason == EADDRINUSE)
            *error += " (is another simcam running? --listen 127.0.0.1:0 takes any free port)";
        return listener;
    }
    const uint16_t port = generic->sa_family == AF_INET
                              ? reinterpret_cast<const sockaddr_in *>(&storage)->sin_port
                              : reinterpret_cast<const sockaddr_in6 *>(&storage)->sin6_port;
    int six_only = 0; // stays 0 for IPv4
    socklen_t six_only_length = sizeof six_only;
    (void)getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &six_only, &six_only_length);
    ifaddrs *interfaces = nullptr;
    (void)getifaddrs(&interfaces); // stays null on failure
    const std::string host = listen_host(generic, six_only != 0, interfaces);
    freeifaddrs(interfaces);
    listener.socket = std::move(owned);
    listener.address = "http://" + host + ":" + std::to_string(ntohs(port)) + "/";
    listener.exposed = !listen_is_loopback(generic);
    return listener;
}

} // namespace simcam
