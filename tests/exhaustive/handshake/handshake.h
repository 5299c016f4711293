// The product's two sides of the handshake, compiled with the <atomic> of this folder: what the
// library's thread calls, and what the display thread does. Sources with the standard library's
// own <atomic> use them by these functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace handshake
{

struct Report {
    uint32_t post;
    bool start;
    uint32_t id; // of a start; a later report has a larger one
};

// osd_post_notify for each report in turn.
void send(const std::vector<Report> &reports);
// The same, with the id stored after the bit: wrong on purpose.
void send_bit_first(const std::vector<Report> &reports);

// Takes the reports of posts 0 and 3 rounds times while the callback runs and once after it, by
// osd_take_started, osd_take_stopped and osd_post_res_id. Returns an error, or an empty string: a
// report was not taken, one was taken that was not made, or an id is older than its report.
std::string take_all(const std::vector<Report> &reports, int rounds);

// Passes of the display loop: rounds while the callback runs and one after it. Returns an error, or
// an empty string: if the last report is a start, the last pass must draw the post with its id.
std::string display_all(const std::vector<Report> &reports, int rounds);

} // namespace handshake
