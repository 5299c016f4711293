// The literal reference of the painters and of the text: pixel by pixel, without copied lines, kept
// columns or cached glyphs. Tests compare the program's planes with these, byte for byte. The test
// of every bar, tests/exhaustive, has too many of them to paint each pixel and derives one line of
// each from the same colors and frames.
//
// Memory is a span; a pixel outside of it is dropped.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

#include "draw/painter.h"

namespace reference
{

// Percentage from which the text is highlighted, and place of the bar's marker. Written here again:
// a test that used the program's constant could not notice a changed one.
constexpr int THRESHOLD = 85;

// Palette indices of the readout.
constexpr uint8_t COLOR_FRAME = 11;
constexpr uint8_t COLOR_TEXT = 16;
constexpr uint8_t COLOR_BOX = 17;
constexpr uint8_t COLOR_FILL = 18;
constexpr uint8_t COLOR_MARKER = 19;
constexpr uint8_t COLOR_HIGHLIGHT = 20;

// The solid rectangle of rect->bg_color.
void paint_rectangle(std::span<uint8_t> memory, const DrawRect &rect);

// The framed bar, filled up to percent.
void paint_bar(std::span<uint8_t> memory, const DrawRect &rect, int32_t percent);

// One glyph of one bit per pixel.
void paint_glyph(std::span<uint8_t> memory, const DrawRect &target, const FT_BitmapGlyphRec &glyph,
                 int32_t baseline_offset, int32_t x_origin, bool highlight);

// The font at one size, opened for one picture.
class Font
{
  public:
    Font(const std::string &path, uint32_t pixel_size);
    ~Font();
    Font(const Font &) = delete;
    Font &operator=(const Font &) = delete;

    // Advance of the face in whole pixels, rounded up: the width of a character cell.
    int32_t cell_width() const;

    // Row of the baseline, counted from the bottom edge.
    int32_t baseline_offset() const;

    // A new glyph of one bit per pixel, the caller's to release.
    FT_BitmapGlyph render(unsigned char character) const;

    FT_Face face() const
    {
        return face_;
    }

  private:
    FT_Library library_ = nullptr;
    FT_Face face_ = nullptr;
};

// The box of target's background with text in it.
void paint_text(std::span<uint8_t> memory, const DrawRect &target, const Font &font,
                const std::string &text, bool highlight);

// A plane of the readout as it stands on an output of the given size: sizes, places and colors by
// the tables, the whole memory cleared first.
struct Plane {
    std::vector<uint8_t> bytes; // region height lines of pitch bytes
    uint32_t width;             // pixels that are shown of each line
    uint32_t height;            // lines
    uint32_t pitch;             // bytes per line
    uint32_t x;                 // where it is shown on the output
    uint32_t y;
};

Plane bar_plane(uint32_t output_width, uint32_t output_height, uint32_t pitch, int32_t percent);
Plane text_plane(uint32_t output_width, uint32_t output_height, uint32_t pitch, const Font &font,
                 const std::string &text, bool highlight);
Plane text_plane(uint32_t output_width, uint32_t output_height, uint32_t pitch,
                 const std::string &font_path, const std::string &text, bool highlight);

// Index of the output's width, 0..3.
uint32_t resolution_index(uint32_t output_width);

// Pixels of the bar's frame at a resolution index; 0 for others.
int frame_thickness(uint32_t resolution);

// Pixel size of the font at a resolution index.
uint32_t font_pixel_size(uint32_t resolution);

// Width and height of the planes at a resolution index.
uint32_t region_width(uint32_t resolution);
uint32_t region_height(uint32_t resolution);

} // namespace reference
