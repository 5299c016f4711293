// Drawing a string. No state except the cache of the caller's engine.

#include "font/font_text.h"

#include <stddef.h>
#include <string.h>

#include "error_log.h"
#include "palette_index.h"
#include "status.h"

// A glyph's bits and their position in the target. Pixels of the target are numbered consecutively
// from its first line, so a run past the end of a line continues in the next.
struct GlyphPlace {
    const uint8_t *bits; // rows of pitch bytes, most significant bit first
    int32_t pitch;       // bytes
    int32_t rows;
    int32_t cols;
    int64_t first;       // pixel number of the first bit; may be outside the target
    int64_t line_pixels; // from one row to the next
};

// For a valid depth. A division would be a library call of dozens of instructions on the target.
static int32_t pixels_per_byte(uint32_t depth)
{
    if (depth == 8)
        return 1;
    return depth == 4 ? 2 : 4;
}

static int64_t line_pixels_of(const DrawRect *target)
{
    return (int64_t)target->pitch * pixels_per_byte(target->depth);
}

// ---- glyph -------------------------------------------------------------------------------------

// Expands four bits of a glyph to four bytes; a set bit becomes 0xFF.
static const uint8_t NIBBLE_MASKS[16][4] = {
    {0x00, 0x00, 0x00, 0x00}, {0x00, 0x00, 0x00, 0xFF}, {0x00, 0x00, 0xFF, 0x00},
    {0x00, 0x00, 0xFF, 0xFF}, {0x00, 0xFF, 0x00, 0x00}, {0x00, 0xFF, 0x00, 0xFF},
    {0x00, 0xFF, 0xFF, 0x00}, {0x00, 0xFF, 0xFF, 0xFF}, {0xFF, 0x00, 0x00, 0x00},
    {0xFF, 0x00, 0x00, 0xFF}, {0xFF, 0x00, 0xFF, 0x00}, {0xFF, 0x00, 0xFF, 0xFF},
    {0xFF, 0xFF, 0x00, 0x00}, {0xFF, 0xFF, 0x00, 0xFF}, {0xFF, 0xFF, 0xFF, 0x00},
    {0xFF, 0xFF, 0xFF, 0xFF}};

// Sets the pixels at dest for the set bits of the nibble; colors holds the color four times.
static void paint_nibble(uint8_t *dest, uint32_t nibble, uint32_t colors)
{
    uint32_t mask;
    uint32_t pixels;
    memcpy(&mask, NIBBLE_MASKS[nibble], sizeof mask);
    memcpy(&pixels, dest, sizeof pixels);
    pixels = (pixels & ~mask) | (colors & mask);
    memcpy(dest, &pixels, sizeof pixels);
}

// Does the same for the eight bits of a byte.
static void paint_byte(uint8_t *dest, uint32_t byte, uint32_t colors)
{
    if (byte >> 4 != 0)
        paint_nibble(dest, byte >> 4, colors);
    if ((byte & 0x0F) != 0)
        paint_nibble(dest + 4, byte & 0x0F, colors);
}

// Draws at 8 bits per pixel, eight pixels at a time. All of them must be inside the buffer, also up
// to 7 columns after the last column of the glyph.
static void draw_glyph_bytes(uint8_t *buffer, const GlyphPlace *place, uint8_t color)
{
    const uint32_t colors = color * 0x01010101u;
    const int32_t last = (place->cols - 1) / 8;
    const uint32_t last_bits = 0xFF00u >> (place->cols - 8 * last); // the rest is beyond the glyph
    const uint8_t *bits = place->bits;
    ptrdiff_t first = (ptrdiff_t)place->first;

    for (int32_t row = 0; row < place->rows; row++) {
        uint8_t *dest = buffer + first;
        for (int32_t i = 0; i < last; i++, dest += 8)
            paint_byte(dest, bits[i], colors);
        paint_byte(dest, bits[last] & last_bits, colors);
        bits += place->pitch;
        first += (ptrdiff_t)place->line_pixels;
    }
}

// Draws at any depth and position, pixel by pixel.
static void draw_glyph_pixels(uint8_t *buffer, int64_t pixels, const GlyphPlace *place,
                              uint32_t depth, uint32_t value)
{
    const uint32_t mask = (1u << depth) - 1;

    for (int32_t row = 0; row < place->rows; row++) {
        const uint8_t *bits = place->bits + (ptrdiff_t)row * place->pitch;
        const int64_t row_first = place->first + row * place->line_pixels;
        for (int32_t col = 0; col < place->cols; col++) {
            const int64_t p = row_first + col;
            if ((bits[col / 8] & (0x80u >> (col % 8))) == 0 || p < 0 || p >= pixels)
                continue;
            uint8_t *byte = &buffer[p * depth / 8];
            const uint32_t shift = (uint32_t)(p * depth % 8);
            *byte = (uint8_t)((*byte & ~(mask << shift)) | (value << shift));
        }
    }
}

int32_t font_draw_target(uint8_t *buffer, const DrawRect *target, FT_Glyph glyph,
                         int32_t baseline_offset, int32_t x_origin, uint8_t highlight,
                         uint32_t buffer_size)
{
    const FT_BitmapGlyph source = (FT_BitmapGlyph)glyph;
    const FT_Bitmap *bitmap = &source->bitmap;

    if (bitmap->pixel_mode != FT_PIXEL_MODE_MONO) {
        log_error(__func__, "invalid pixel_mode");
        return STATUS_INVALID;
    }
    if (!draw_depth_is_valid(target->depth)) {
        log_error(__func__, "invalid mask");
        return STATUS_INVALID;
    }

    const int64_t line_pixels = line_pixels_of(target);
    const int64_t x0 = (int64_t)source->left + x_origin;
    const int64_t y0 = (int64_t)target->height - source->top + baseline_offset;

    // Deliberately coarse: clips only a glyph that is larger than the whole target ...
    int64_t rows = bitmap->rows;
    int64_t cols = bitmap->width;
    if (target->height < rows)
        rows = target->height - y0;
    if (cols > line_pixels)
        cols = line_pixels - x0;
    // ... so that more columns or rows may remain than the glyph has.
    if (rows > (int64_t)bitmap->rows)
        rows = bitmap->rows;
    if (cols > (int64_t)bitmap->width)
        cols = bitmap->width;

    if (rows <= 0 || cols <= 0)
        return STATUS_OK;

    const uint32_t mask = (1u << target->depth) - 1;
    const uint32_t value = (highlight != 0 ? PALETTE_HIGHLIGHT : target->fg_color) & mask;

    GlyphPlace place;
    place.bits = bitmap->buffer;
    place.pitch = bitmap->pitch;
    place.rows = (int32_t)rows;
    place.cols = (int32_t)cols;
    place.first = y0 * line_pixels + x0;
    place.line_pixels = line_pixels;

    const int64_t pixels = (int64_t)buffer_size * pixels_per_byte(target->depth);
    const int64_t end = place.first + (rows - 1) * line_pixels + (cols + 7) / 8 * 8;
    if (target->depth == 8 && line_pixels >= 0 && place.first >= 0 && end <= pixels)
        draw_glyph_bytes(buffer, &place, (uint8_t)value);
    else
        draw_glyph_pixels(buffer, pixels, &place, target->depth, value);
    return STATUS_OK;
}

// ---- string ------------------------------------------------------------------------------------

static const char BITMAP_NAME[] = "font_get_target_bitmap"; // name in the error lines of its steps

// Draws a glyph of the cache. If that fails, releases the glyph and clears its entry.
static int32_t draw_cached(FontEngine *engine, FT_Glyph glyph, const DrawRect *target,
                           uint8_t *buffer, int32_t x_origin, uint8_t highlight,
                           uint32_t buffer_size)
{
    if (font_draw_target(buffer, target, glyph, font_baseline_offset(engine), x_origin, highlight,
                         buffer_size) == STATUS_OK)
        return STATUS_OK;

    log_error(BITMAP_NAME, "draw target failed");
    for (uint32_t i = 0; i < engine->cache.count; i++) {
        if (engine->cache.entries[i].glyph == glyph)
            engine->cache.entries[i].glyph = nullptr;
    }
    FT_Done_Glyph(glyph);
    return STATUS_FAULT;
}

// Renders a character that is not cached, draws it and releases it.
static int32_t draw_uncached(const FontEngine *engine, uint32_t char_code, const DrawRect *target,
                             uint8_t *buffer, int32_t x_origin, uint8_t highlight,
                             uint32_t buffer_size)
{
    FT_Glyph glyph = nullptr;
    const FT_Face face = engine->library ? engine->face : nullptr; // stale without a library
    if (font_get_glyph(face, char_code, &glyph) != STATUS_OK) {
        log_error(BITMAP_NAME, "set glyph failed");
        FT_Done_Glyph(glyph);
        return STATUS_FAULT;
    }

    int32_t status = STATUS_OK;
    if (font_draw_target(buffer, target, glyph, font_baseline_offset(engine), x_origin, highlight,
                         buffer_size) != STATUS_OK) {
        log_error(BITMAP_NAME, "draw target failed");
        status = STATUS_FAULT;
    }
    FT_Done_Glyph(glyph);
    return status;
}

int32_t font_get_target_bitmap(FontEngine *engine, const char *text, const DrawRect *target,
                               uint8_t *buffer, uint8_t highlight, uint32_t buffer_size)
{
    if (!engine || !text || !buffer) {
        log_error(__func__, "invalid parameter");
        return STATUS_INVALID;
    }
    if (!draw_depth_is_valid(target->depth)) {
        log_error(__func__, "invalid mask");
        return STATUS_INVALID;
    }

    const size_t length = strlen(text);
    if ((int64_t)target->cell_width * (int64_t)length > line_pixels_of(target)) {
        log_error(__func__, "target width is too small");
        return STATUS_FAULT;
    }

    draw_rectangle(buffer, target, buffer_size);

    for (size_t i = 0; i < length; i++) {
        const uint32_t char_code = (unsigned char)text[i];
        const int32_t x_origin = (int32_t)i * target->cell_width;
        const FT_Glyph glyph = font_find_glyph(&engine->cache, char_code);
        const int32_t status =
            glyph ? draw_cached(engine, glyph, target, buffer, x_origin, highlight, buffer_size)
                  : draw_uncached(engine, char_code, target, buffer, x_origin, highlight,
                                  buffer_size);
        if (status != STATUS_OK)
            return STATUS_FAULT;
    }
    return STATUS_OK;
}
