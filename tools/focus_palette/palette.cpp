// Reading and writing of the two forms of a color table.

#include "palette.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace palette
{

namespace
{

struct ReadoutEntry {
    int index;
    const char *name;
    const char *use;
};

// What a raw image cannot say about the entries that the readout draws with.
constexpr ReadoutEntry READOUT_ENTRIES[] = {
    {CLEAR, "clear", "cleared memory: the picture shows through"},
    {FRAME, "bar-frame", "frame of the bar"},
    {TEXT, "text", "text"},
    {BOX, "box", "text box and unfilled part of the bar"},
    {FILL, "bar-fill", "filled part of the bar"},
    {MARKER, "bar-marker", "marker at 85 % of the bar"},
    {HIGHLIGHT, "text-highlight", "text from 85 % on"},
};

uint8_t byte_of(double value)
{
    return static_cast<uint8_t>(std::lround(std::fmin(std::fmax(value, 0.0), 255.0)));
}

std::string_view next_word(std::string_view *rest)
{
    const size_t start = rest->find_first_not_of(" \t");
    if (start == std::string_view::npos) {
        *rest = {};
        return {};
    }
    const size_t end = std::min(rest->find_first_of(" \t", start), rest->size());
    const std::string_view word = rest->substr(start, end - start);
    rest->remove_prefix(end);
    return word;
}

bool parse_number(std::string_view word, int base, unsigned *value)
{
    const char *end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, *value, base);
    return error == std::errc() && stop == end;
}

bool parse_three_bytes(std::string_view digits, std::array<uint8_t, 3> *bytes)
{
    unsigned value = 0;
    if (digits.size() != 6 || !parse_number(digits, 16, &value))
        return false;
    *bytes = {static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 8),
              static_cast<uint8_t>(value)};
    return true;
}

bool parse_color(std::string_view word, std::array<uint8_t, 3> *ycc)
{
    std::array<uint8_t, 3> bytes = {};
    if (word.starts_with("#") && parse_three_bytes(word.substr(1), &bytes)) {
        *ycc = ycc_of({bytes[0], bytes[1], bytes[2]});
        return true;
    }
    return word.starts_with("ycc:") && parse_three_bytes(word.substr(4), ycc);
}

std::string format_color(const std::array<uint8_t, 3> &ycc)
{
    const Rgb rgb = rgb_of(ycc);
    char text[16];
    if (ycc_of(rgb) == ycc)
        std::snprintf(text, sizeof text, "#%02X%02X%02X", rgb.r, rgb.g, rgb.b);
    else // no RGB color gives these bytes back
        std::snprintf(text, sizeof text, "ycc:%02X%02X%02X", ycc[0], ycc[1], ycc[2]);
    return text;
}

// Returns the reason for which the line is refused, empty for none.
std::string parse_entry(std::string_view line, unsigned expected, Table *table)
{
    const auto quoted = [](std::string_view word) { return "'" + std::string(word) + "'"; };

    const std::string_view index_word = next_word(&line);
    unsigned index = 0;
    if (!parse_number(index_word, 10, &index) || index >= ENTRY_COUNT)
        return "index " + quoted(index_word) + " is not a number from 0 to 255";
    if (index != expected)
        return "index " + std::to_string(index) + " where " + std::to_string(expected) +
               " was expected: every index once, in order";

    Entry entry;
    entry.name = next_word(&line);
    if (entry.name.empty())
        return "the name is missing";

    const std::string_view color = next_word(&line);
    if (color.empty())
        return "the color is missing";
    if (!parse_color(color, &entry.ycc))
        return "color " + quoted(color) + " is neither #RRGGBB nor ycc:YYBBRR";

    const std::string_view opacity_word = next_word(&line);
    unsigned opacity = 0;
    if (opacity_word.empty())
        return "the opacity is missing";
    if (!parse_number(opacity_word, 10, &opacity) || opacity > 255)
        return "opacity " + quoted(opacity_word) + " is not a number from 0 to 255 (8 is opaque)";
    entry.opacity = static_cast<uint8_t>(opacity);

    const size_t use = line.find_first_not_of(" \t");
    if (use != std::string_view::npos)
        entry.use = line.substr(use, line.find_last_not_of(" \t") + 1 - use);
    (*table)[index] = entry;
    return "";
}

} // namespace

Rgb rgb_of(const std::array<uint8_t, 3> &ycc)
{
    const double y = ycc[0];
    const double blue = ycc[1] - 128.0;
    const double red = ycc[2] - 128.0;
    return {byte_of(y + 1.402 * red), byte_of(y - 0.344136 * blue - 0.714136 * red),
            byte_of(y + 1.772 * blue)};
}

std::array<uint8_t, 3> ycc_of(const Rgb &rgb)
{
    const double y = 0.299 * rgb.r + 0.587 * rgb.g + 0.114 * rgb.b;
    return {byte_of(y), byte_of(128.0 + (rgb.b - y) / 1.772), byte_of(128.0 + (rgb.r - y) / 1.402)};
}

std::optional<Refusal> parse_table(std::string_view text, Table *table)
{
    unsigned next_index = 0;
    int line_number = 0;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        ++line_number;

        if (line.ends_with('\r'))
            line.remove_suffix(1);
        if (line.starts_with('#') || line.find_first_not_of(" \t") == std::string_view::npos)
            continue;
        if (next_index == ENTRY_COUNT)
            return Refusal{line_number, "more than 256 entries"};
        const std::string reason = parse_entry(line, next_index, table);
        if (!reason.empty())
            return Refusal{line_number, reason};
        (*table)[next_index++].line = line_number;
    }
    if (next_index < ENTRY_COUNT)
        return Refusal{line_number, "the table ends before entry " + std::to_string(next_index) +
                                        "; all 256 are wanted"};
    return std::nullopt;
}

std::string format_table(const Table &table)
{
    std::string text = "# index  name  color  opacity in eighths  use\n";
    for (int index = 0; index < ENTRY_COUNT; ++index) {
        const Entry &entry = table[static_cast<size_t>(index)];
        char numbers[32];
        std::snprintf(numbers, sizeof numbers, "%3d  ", index);
        std::string line = numbers + entry.name;
        line.resize(std::max<size_t>(line.size() + 2, 22), ' ');
        line += format_color(entry.ycc);
        line.resize(std::max<size_t>(line.size() + 2, 34), ' ');
        std::snprintf(numbers, sizeof numbers, "%d", entry.opacity);
        line += numbers;
        if (!entry.use.empty())
            line += "  " + entry.use;
        text += line + "\n";
    }
    return text;
}

std::optional<Refusal> unpack(const std::vector<uint8_t> &image, Table *table)
{
    if (image.size() > ENTRY_COUNT * ENTRY_BYTES)
        return Refusal{0, std::to_string(image.size()) + " bytes; a color table has at most 1024"};
    if (image.size() % ENTRY_BYTES != 0)
        return Refusal{0, std::to_string(image.size()) +
                              " bytes end in the middle of an entry of 4 bytes"};

    for (size_t index = 0; index < ENTRY_COUNT; ++index) {
        Entry entry;
        const size_t offset = index * ENTRY_BYTES;
        if (offset < image.size()) {
            entry.ycc = {image[offset], image[offset + 1], image[offset + 2]};
            entry.opacity = image[offset + 3];
        }
        entry.name = "entry-" + std::to_string(index);
        (*table)[index] = entry;
    }
    for (const ReadoutEntry &known : READOUT_ENTRIES) {
        Entry &entry = (*table)[static_cast<size_t>(known.index)];
        entry.name = known.name;
        entry.use = known.use;
    }
    return std::nullopt;
}

std::vector<uint8_t> pack(const Table &table)
{
    std::vector<uint8_t> image;
    for (const Entry &entry : table) {
        image.insert(image.end(), entry.ycc.begin(), entry.ycc.end());
        image.push_back(entry.opacity);
    }
    return image;
}

} // namespace palette
