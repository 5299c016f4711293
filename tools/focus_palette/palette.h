// A color table of the on-screen display, as a readable table and as the raw image that a camera
// loads.
//
// Raw image: 4 bytes an entry, Y, Cb, Cr (BT.601, full range) and the opacity in eighths, of which
// 8 and more are opaque. It may end early; the entries behind its end are 0.
//
// Table: one entry a line, in the order of the indices, all 256 of them:
//     index  name  color  opacity  what it is used for
// The color is #RRGGBB, or ycc:YYBBRR for the three bytes themselves. Blank lines and lines that
// begin with # say nothing.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace palette
{

constexpr int ENTRY_COUNT = 256;
constexpr int ENTRY_BYTES = 4;
constexpr int OPAQUE = 8; // eighths

// The entries that the readout draws with.
constexpr int CLEAR = 0;      // cleared memory
constexpr int FRAME = 11;     // of the bar
constexpr int TEXT = 16;      // ordinary text
constexpr int BOX = 17;       // behind the text, and the unfilled bar
constexpr int FILL = 18;      // the filled bar
constexpr int MARKER = 19;    // at 85 % of the bar
constexpr int HIGHLIGHT = 20; // text from 85 % on

struct Rgb {
    uint8_t r = 0, g = 0, b = 0;
};

struct Entry {
    std::array<uint8_t, 3> ycc = {}; // Y, Cb, Cr
    uint8_t opacity = 0;             // eighths
    std::string name;                // one word
    std::string use;                 // a phrase, may be empty
    int line = 0;                    // of the table it was read from, 0 for none
};

using Table = std::array<Entry, ENTRY_COUNT>;

// Why an input was refused.
struct Refusal {
    int line = 0; // 0: it concerns the file as a whole
    std::string reason;
};

Rgb rgb_of(const std::array<uint8_t, 3> &ycc);
std::array<uint8_t, 3> ycc_of(const Rgb &rgb);

std::optional<Refusal> parse_table(std::string_view text, Table *table);
std::string format_table(const Table &table);

std::optional<Refusal> unpack(const std::vector<uint8_t> &image, Table *table);
std::vector<uint8_t> pack(const Table &table);

} // namespace palette
