// The host's end of the link: connects every client of the guest to simcam, and collects the
// overlay's output and state for the process that represents it as simcam's program.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <poll.h>
#include <string>
#include <vector>

#include "link.h"
#include "wire.h"

// Shared memory of simcam; empty if it could not be mapped.
struct Mapping {
    uint8_t *base = nullptr;
    WireMemory layout = {};

    Mapping() = default;
    Mapping(const Mapping &) = delete;
    Mapping &operator=(const Mapping &) = delete;
    ~Mapping();
    bool map(int fd, const WireMemory &memory);
    void store(const uint8_t *bytes, size_t size) const; // as much as fits
};

struct BridgePlane {
    LinkPlane plane;
    Mapping memory;
};

struct BridgeClient {
    int connection = -1;
    int events = -1;
    Mapping colors;
    std::map<uint32_t, BridgePlane> planes; // by post << 16 | number << 8 | buffer

    BridgeClient() = default;
    BridgeClient(const BridgeClient &) = delete;
    BridgeClient &operator=(const BridgeClient &) = delete;
    ~BridgeClient();
};

struct Bridge {
    int link = -1;             // the emulator's end of the port
    std::string run_directory; // simcam's; empty until it is known
    std::map<uint16_t, BridgeClient> clients;
    std::vector<uint8_t> received;
    bool up = false;             // the server of the guest runs
    bool shown[WIRE_POSTS] = {}; // a text plane of the post has been shown
    uint32_t shows = 0;
    LinkProcess process = {};
    std::string output; // written by the overlay, until it is taken
    struct Done {
        uint32_t action;
        uint32_t status; // of wait()
    };
    std::vector<Done> done; // until they are taken
};

void bridge_poll(const Bridge &bridge, std::vector<pollfd> *entries);
// Serves the entries that are ready. Returns false if the guest is gone or sent an invalid record.
bool bridge_serve(Bridge &bridge, const std::vector<pollfd> &entries);
bool bridge_act(const Bridge &bridge, uint32_t action, const std::string &text = {});
