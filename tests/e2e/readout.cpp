#include "readout.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>

#include "difference.h"

static const char FONT[] = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf";
static constexpr uint8_t HIGHLIGHT = 20;

namespace
{

// What was read, and from where.
struct Source {
    uint32_t width, height; // of the output
    const reference::Font *font;
    std::span<const uint8_t> bytes;
    uint32_t pitch;
};

} // namespace

// Opened once for each size.
static const reference::Font &font_of(uint32_t width)
{
    static std::map<uint32_t, std::unique_ptr<reference::Font>> fonts;
    std::unique_ptr<reference::Font> &font = fonts[width];
    if (!font)
        font = std::make_unique<reference::Font>(
            FONT, reference::font_pixel_size(reference::resolution_index(width)));
    return *font;
}

reference::Plane readout_text_plane(int width, int height, uint32_t pitch, const std::string &text,
                                    bool highlight)
{
    const uint32_t output_width = static_cast<uint32_t>(width);
    return reference::text_plane(output_width, static_cast<uint32_t>(height), pitch,
                                 font_of(output_width), text, highlight);
}

static std::vector<uint8_t> drawn_text(const Source &source, const std::string &text,
                                       bool highlight)
{
    return reference::text_plane(source.width, source.height, source.pitch, *source.font, text,
                                 highlight)
        .bytes;
}

// The character among candidates that is drawn in the cell at position.
static char read_cell(const Source &source, size_t position, bool highlight,
                      const std::string &candidates)
{
    const size_t cell = static_cast<size_t>(source.font->cell_width());
    const size_t lines = std::max(source.height / 17, 8u);
    for (const char candidate : candidates) {
        const auto drawn = drawn_text(source, std::string(position, ' ') + candidate, highlight);
        bool same = true;
        for (size_t y = 0; y < lines && same; y++) {
            const auto at = static_cast<std::ptrdiff_t>(y * source.pitch + position * cell);
            same = std::equal(drawn.begin() + at, drawn.begin() + at + static_cast<int>(cell),
                              source.bytes.begin() + at);
        }
        if (same)
            return candidate;
    }
    return '?';
}

static std::string read_text(const Source &source, bool highlight)
{
    std::string text = "FOCUS ASSIST ";
    for (size_t position = 13; position < 20; position++)
        text += read_cell(source, position, highlight, position == 16 ? "/" : " 0123456789-");
    return text;
}

// The lowest percentage whose bar differs in the fewest bytes. problem gets the first difference,
// and stays empty if there is none.
static int read_bar(const Source &source, std::string *problem)
{
    const auto drawn = [&source](int percent) {
        return reference::bar_plane(source.width, source.height, source.pitch, percent).bytes;
    };
    int nearest = 0;
    size_t fewest = SIZE_MAX;
    for (int percent = 0; percent <= 100; percent++) {
        const size_t count = differing_bytes(source.bytes, drawn(percent));
        if (count < fewest) {
            fewest = count;
            nearest = percent;
        }
    }
    if (fewest != 0)
        *problem = "the bar is nearest to " + std::to_string(nearest) + " %; " +
                   difference(source.bytes, drawn(nearest), source.pitch);
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
    Source source = {static_cast<uint32_t>(width), static_cast<uint32_t>(height),
                     &font_of(static_cast<uint32_t>(width)), bar.bytes, bar.state.pitch};
    readout.percent = read_bar(source, &readout.problem);
    if (!readout.problem.empty())
        return readout;

    source.bytes = text.bytes;
    source.pitch = text.state.pitch;
    readout.highlight =
        std::find(text.bytes.begin(), text.bytes.end(), HIGHLIGHT) != text.bytes.end();
    readout.text = read_text(source, readout.highlight);
    const auto drawn = drawn_text(source, readout.text, readout.highlight);
    if (drawn != text.bytes) {
        readout.problem = "the text is nearest to \"" + readout.text + "\"; " +
                          difference(text.bytes, drawn, source.pitch);
        return readout;
    }
    readout.current = std::atoi(readout.text.substr(13, 3).c_str());
    readout.peak =
        readout.text.substr(17) == "---" ? 0 : std::atoi(readout.text.substr(17).c_str());
    readout.valid = true;
    return readout;
}
