// Paints the cells and writes the PNG itself, uncompressed, so that the tool needs no library
// where a camera's software is cross-built.

#include "swatch.h"

#include <algorithm>

namespace palette
{

namespace
{

constexpr int CELLS = 16; // a line
constexpr int SIZE = CELLS * SWATCH_CELL;
constexpr int CHECK = 8; // pixels of a square of the ground
constexpr int DIGIT_WIDTH = 3, DIGIT_HEIGHT = 5, DIGIT_SCALE = 2;

// One digit an entry, one octal digit a line from the top, the left pixel in bit 2.
constexpr unsigned DIGITS[10] = {075557, 026227, 071747, 071717, 055711,
                                 074717, 074757, 071111, 075757, 075717};

Rgb ground_at(int x, int y)
{
    const uint8_t gray = ((x / CHECK + y / CHECK) & 1) != 0 ? 0xC0 : 0x60;
    return {gray, gray, gray};
}

Rgb mix(const Rgb &front, const Rgb &back, int eighths)
{
    const auto one = [eighths](int f, int b) {
        return static_cast<uint8_t>((f * eighths + b * (OPAQUE - eighths) + 4) / OPAQUE);
    };
    return {one(front.r, back.r), one(front.g, back.g), one(front.b, back.b)};
}

bool digit_at(unsigned digit, int x, int y)
{
    const int shift = (DIGIT_HEIGHT - 1 - y) * 3 + (DIGIT_WIDTH - 1 - x);
    return ((DIGITS[digit] >> shift) & 1) != 0;
}

// Whether the pixel at x, y of a cell belongs to the number written at its top left.
bool number_at(int number, int x, int y)
{
    const std::string text = std::to_string(number);
    const int column = (x - 3) / DIGIT_SCALE, line = (y - 3) / DIGIT_SCALE;
    if (x < 3 || y < 3 || line >= DIGIT_HEIGHT)
        return false;
    const size_t place = static_cast<size_t>(column / (DIGIT_WIDTH + 1));
    const int inside = column % (DIGIT_WIDTH + 1);
    return place < text.size() && inside < DIGIT_WIDTH &&
           digit_at(static_cast<unsigned>(text[place] - '0'), inside, line);
}

Rgb pixel_at(const Table &table, int x, int y)
{
    const int index = y / SWATCH_CELL * CELLS + x / SWATCH_CELL;
    const Entry &entry = table[static_cast<size_t>(index)];
    const Rgb color = mix(rgb_of(entry.ycc), ground_at(x, y), std::min<int>(entry.opacity, OPAQUE));
    if (!number_at(index, x % SWATCH_CELL, y % SWATCH_CELL))
        return color;
    const int brightness = 299 * color.r + 587 * color.g + 114 * color.b;
    return brightness < 128000 ? Rgb{255, 255, 255} : Rgb{0, 0, 0};
}

void put_word(std::vector<uint8_t> *bytes, uint32_t word)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes->push_back(static_cast<uint8_t>(word >> shift));
}

uint32_t crc32_of(const uint8_t *bytes, size_t count)
{
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < count; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xEDB88320 : crc >> 1;
    }
    return ~crc;
}

uint32_t adler32_of(const std::vector<uint8_t> &bytes)
{
    uint32_t low = 1, high = 0;
    for (const uint8_t byte : bytes) {
        low = (low + byte) % 65521;
        high = (high + low) % 65521;
    }
    return high << 16 | low;
}

void put_chunk(std::vector<uint8_t> *png, const char *type, const std::vector<uint8_t> &data)
{
    put_word(png, static_cast<uint32_t>(data.size()));
    const size_t start = png->size();
    png->insert(png->end(), type, type + 4);
    png->insert(png->end(), data.begin(), data.end());
    put_word(png, crc32_of(png->data() + start, png->size() - start));
}

// A zlib stream of stored blocks.
std::vector<uint8_t> stored(const std::vector<uint8_t> &data)
{
    std::vector<uint8_t> stream = {0x78, 0x01};
    for (size_t at = 0; at < data.size();) {
        const size_t length = std::min<size_t>(data.size() - at, 0xFFFF);
        stream.push_back(at + length == data.size() ? 1 : 0); // whether it is the last block
        for (const size_t value : {length, ~length}) {
            stream.push_back(static_cast<uint8_t>(value));
            stream.push_back(static_cast<uint8_t>(value >> 8));
        }
        const auto from = data.begin() + static_cast<std::ptrdiff_t>(at);
        stream.insert(stream.end(), from, from + static_cast<std::ptrdiff_t>(length));
        at += length;
    }
    put_word(&stream, adler32_of(data));
    return stream;
}

} // namespace

std::vector<uint8_t> swatch_png(const Table &table)
{
    std::vector<uint8_t> lines;
    for (int y = 0; y < SIZE; ++y) {
        lines.push_back(0); // no filter
        for (int x = 0; x < SIZE; ++x) {
            const Rgb pixel = pixel_at(table, x, y);
            lines.insert(lines.end(), {pixel.r, pixel.g, pixel.b});
        }
    }

    std::vector<uint8_t> header;
    put_word(&header, SIZE);
    put_word(&header, SIZE);
    header.insert(header.end(), {8, 2, 0, 0, 0}); // 8 bits a component, RGB

    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    put_chunk(&png, "IHDR", header);
    put_chunk(&png, "IDAT", stored(lines));
    put_chunk(&png, "IEND", {});
    return png;
}

} // namespace palette
