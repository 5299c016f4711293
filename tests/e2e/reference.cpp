// Draws and reads readouts. Slow and plain on purpose.

#include "reference.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <stdexcept>

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

#include "difference.h"

static const char FONT[] = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf";

namespace
{

struct Face {
    FT_Library library = nullptr;
    FT_Face face = nullptr;

    explicit Face(int pixels)
    {
        FT_Size_RequestRec request = {FT_SIZE_REQUEST_TYPE_REAL_DIM, 0, pixels * 64, 0, 0};
        if (FT_Init_FreeType(&library) || FT_New_Face(library, FONT, 0, &face) ||
            FT_Request_Size(face, &request))
            throw std::runtime_error("no reference font");
    }
    Face(const Face &) = delete;
    Face &operator=(const Face &) = delete;
    ~Face()
    {
        FT_Done_Face(face);
        FT_Done_FreeType(library);
    }
};

constexpr int LINE_COUNTS[4] = {1080, 720, 480, 240};
constexpr int FRAME[4] = {5, 4, 3, 2};
constexpr int REGIONS[4][2] = {{720, 108}, {480, 72}, {280, 48}, {132, 24}};
constexpr uint8_t BAR_FRAME = 11, TEXT = 16, BOX = 17, BAR_FILL = 18, MARKER = 19, HIGHLIGHT = 20;

const Face &face_of(int index)
{
    static std::array<Face *, 4> faces = {};
    Face *&face = faces[static_cast<size_t>(index)];
    if (!face)
        face = new Face(LINE_COUNTS[index] / 17);
    return *face;
}

} // namespace

ReferenceLayout reference_layout(int width, int height)
{
    const std::map<int, int> indices = {{1920, 0}, {1280, 1}, {720, 2}, {352, 3}};
    ReferenceLayout layout;
    layout.index = indices.at(width);
    layout.bar_width = REGIONS[layout.index][0];
    layout.bar_height = REGIONS[layout.index][1];
    layout.bar_x = (width - layout.bar_width) / 2;
    layout.bar_y = height * 4 / 5;
    layout.font_size = std::max(height / 17, 8);
    const long advance = face_of(layout.index).face->size->metrics.max_advance;
    layout.cell_width = static_cast<int>((advance + 63) / 64);
    layout.text_x = layout.index <= 1
                        ? layout.bar_x + (layout.bar_width - 21 * layout.cell_width) / 2
                        : layout.bar_x + 1;
    layout.text_y = layout.bar_y - layout.font_size;
    return layout;
}

std::vector<uint8_t> reference_bar(const ReferenceLayout &layout, int pitch, int percent)
{
    const int height = layout.bar_height;
    const int frame = FRAME[layout.index];
    const double interior = pitch - 2 * frame;
    const double center = frame + interior * 0.01 * 85.0;
    const double end = frame + percent * (interior * 0.01);
    std::vector<uint8_t> bytes;
    for (int y = 0; y < height; y++) {
        for (int x = 0; x < pitch; x++) {
            const bool inside =
                x >= frame && x <= pitch - frame - 1 && y >= frame && y <= height - frame - 1;
            uint8_t pixel = BAR_FRAME;
            if (inside && x > center - frame && x < center + frame)
                pixel = MARKER;
            else if (inside)
                pixel = end <= x ? BOX : BAR_FILL;
            bytes.push_back(pixel);
        }
    }
    return bytes;
}

std::vector<uint8_t> reference_text(const ReferenceLayout &layout, int pitch,
                                    const std::string &text, bool highlight)
{
    std::vector<uint8_t> bytes(static_cast<size_t>(pitch * layout.bar_height), 0);
    // The box is 21 cells wide where a line has room for them; where it has not, what runs over is
    // painted over by the next line, and past the last line goes one line's rest.
    const int box = 21 * layout.cell_width;
    for (int y = 0; y < layout.font_size; y++)
        for (int x = 0; x < std::min(box, pitch); x++)
            bytes[static_cast<size_t>(y * pitch + x)] = BOX;

    FT_Face face = face_of(layout.index).face;
    const long descender = face->size->metrics.descender;
    const int baseline = static_cast<int>((descender - 1) / 64) + 1;
    for (size_t i = 0; i < text.size(); i++) {
        FT_Glyph glyph = nullptr;
        if (FT_Load_Glyph(face, FT_Get_Char_Index(face, static_cast<FT_ULong>(text[i])),
                          FT_LOAD_DEFAULT) ||
            FT_Get_Glyph(face->glyph, &glyph) ||
            FT_Glyph_To_Bitmap(&glyph, FT_RENDER_MODE_MONO, nullptr, 1))
            throw std::runtime_error("no reference glyph");
        const auto *bitmap = reinterpret_cast<const FT_BitmapGlyphRec *>(glyph);
        const int x0 = static_cast<int>(i) * layout.cell_width + bitmap->left;
        const int y0 = layout.font_size - bitmap->top + baseline;
        for (int y = 0; y < static_cast<int>(bitmap->bitmap.rows); y++) {
            for (int x = 0; x < static_cast<int>(bitmap->bitmap.width); x++) {
                const uint8_t *line = bitmap->bitmap.buffer + y * bitmap->bitmap.pitch;
                if (line[x / 8] & (0x80 >> x % 8))
                    bytes.at(static_cast<size_t>((y0 + y) * pitch + x0 + x)) =
                        highlight ? HIGHLIGHT : TEXT;
            }
        }
        FT_Done_Glyph(glyph);
    }
    return bytes;
}

// The character of text whose drawing is in the cell at position.
static char read_cell(const ReferenceLayout &layout, int pitch, const std::vector<uint8_t> &bytes,
                      int position, bool highlight, const std::string &candidates)
{
    for (const char candidate : candidates) {
        const std::string text = std::string(static_cast<size_t>(position), ' ') + candidate;
        const auto drawn = reference_text(layout, pitch, text, highlight);
        bool same = true;
        for (int y = 0; y < layout.font_size && same; y++) {
            const auto at = y * pitch + position * layout.cell_width;
            same = std::equal(drawn.begin() + at, drawn.begin() + at + layout.cell_width,
                              bytes.begin() + at);
        }
        if (same)
            return candidate;
    }
    return '?';
}

static std::string read_text(const ReferenceLayout &layout, int pitch,
                             const std::vector<uint8_t> &bytes, bool highlight)
{
    std::string text = "FOCUS ASSIST ";
    for (int position = 13; position < 20; position++)
        text += read_cell(layout, pitch, bytes, position, highlight,
                          position == 16 ? "/" : " 0123456789-");
    return text;
}

// The lowest percentage whose bar differs from bytes in the fewest places. problem gets the first
// difference, and stays empty if there is none.
static int read_bar(const ReferenceLayout &layout, int pitch, const std::vector<uint8_t> &bytes,
                    std::string *problem)
{
    int nearest = 0;
    size_t fewest = SIZE_MAX;
    for (int percent = 0; percent <= 100; percent++) {
        const size_t count = differing_bytes(bytes, reference_bar(layout, pitch, percent));
        if (count < fewest) {
            fewest = count;
            nearest = percent;
        }
    }
    if (fewest != 0)
        *problem =
            "the bar is nearest to " + std::to_string(nearest) + " %; " +
            difference(bytes, reference_bar(layout, pitch, nearest), static_cast<size_t>(pitch));
    return nearest;
}

Readout readout_read(int width, int height, const simcam::PlaneImage &bar,
                     const simcam::PlaneImage &text)
{
    Readout readout;
    if (bar.bytes.empty() || text.bytes.empty()) {
        readout.problem = "a plane is not shown";
        return readout;
    }
    const ReferenceLayout layout = reference_layout(width, height);
    const int bar_pitch = static_cast<int>(bar.state.pitch);
    const int text_pitch = static_cast<int>(text.state.pitch);
    readout.percent = read_bar(layout, bar_pitch, bar.bytes, &readout.problem);
    if (!readout.problem.empty())
        return readout;
    readout.highlight =
        std::find(text.bytes.begin(), text.bytes.end(), HIGHLIGHT) != text.bytes.end();
    readout.text = read_text(layout, text_pitch, text.bytes, readout.highlight);
    const auto drawn = reference_text(layout, text_pitch, readout.text, readout.highlight);
    if (drawn != text.bytes) {
        readout.problem = "the text is nearest to \"" + readout.text + "\"; " +
                          difference(text.bytes, drawn, static_cast<size_t>(text_pitch));
        return readout;
    }
    readout.current = std::atoi(readout.text.substr(13, 3).c_str());
    readout.peak =
        readout.text.substr(17) == "---" ? 0 : std::atoi(readout.text.substr(17).c_str());
    readout.valid = true;
    return readout;
}
