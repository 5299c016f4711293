// The records that the server in the guest and the bridge on the host exchange over one
// virtio-serial port: a LinkHead, then its bytes. Little-endian on both sides.
//
// Every connection of the guest (a process that uses the codec library, an open device) is a client
// with its own number. Its packets are those of platform/wire.h, unchanged; memory cannot
// cross the port, so the bytes of a plane or of the color table go to the host right before the
// call that shows them.
#pragma once

#include <stddef.h>
#include <stdint.h>

struct LinkHead {
    uint32_t size;   // bytes that follow
    uint16_t type;   // a LinkType
    uint16_t client; // 0 if the record belongs to no client
};
static_assert(sizeof(LinkHead) == 8, "link record");

constexpr uint32_t LINK_SIZE_MAX = 64u << 20; // a longer record is an error

enum LinkType : uint16_t {
    // from the guest
    LINK_HELLO = 1, // the server runs and /dev/cam exists
    LINK_OPEN,      // a new client
    LINK_CALL,      // a request packet of a client
    LINK_CLOSE,     // a client has disconnected
    LINK_PLANE,     // LinkPlane, then bytes of a plane that the next call shows
    LINK_COLORS,    // the color table that the next call sets
    LINK_OUTPUT,    // bytes that the overlay wrote
    LINK_PROCESS,   // LinkProcess: the overlay process, once a second
    LINK_DONE,      // an action has ended: its LinkAction and the exit status, a word each

    // from the host
    LINK_REPLY, // a reply packet; after one for the color memory, the color table
    LINK_EVENT, // a WireNotify of a client
    LINK_GONE,  // simcam has closed the client's connection
    LINK_ACTION // one word, a LinkAction; then the text of ACTION_SHELL
};

// What the host asks of the guest.
enum LinkAction : uint32_t {
    ACTION_START = 1,     // the overlay, by its init script or unit
    ACTION_STOP,          // the same way
    ACTION_KILL,          // SIGKILL for the overlay and for whatever would start it again
    ACTION_POWER_OFF,     //
    ACTION_DEVICE_REMOVE, // /dev/cam disappears, open or not
    ACTION_DEVICE_ADD,    // and comes back
    ACTION_SHELL,         // runs the text as a shell command
    LINK_ACTIONS,
};
// Their names in commands.
constexpr const char *LINK_ACTION_NAMES[LINK_ACTIONS] = {
    "", "start", "stop", "kill", "power-off", "device-remove", "device-add", "sh"};

struct LinkPlane {
    uint32_t post;
    uint32_t number;
    uint32_t epoch;
    uint32_t buffer;
};
static_assert(sizeof(LinkPlane) == 16, "link record");

struct LinkProcess {
    uint32_t pid;          // of the guest; 0 while no overlay runs
    uint32_t cpu_ms;       // processor time since its start
    uint32_t resident_kib; //
};
static_assert(sizeof(LinkProcess) == 12, "link record");
