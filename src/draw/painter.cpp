// The two painters. No state.

#include "draw/painter.h"

#include <string.h>

#include "error_log.h"
#include "palette_index.h"
#include "resolution.h"

static const int32_t FRAME_PIXELS[RESOLUTION_COUNT] = {5, 4, 3, 2}; // by resolution index

bool draw_depth_is_valid(uint32_t depth)
{
    return depth == 2 || depth == 4 || depth == 8;
}

// The background as a pixel of the rectangle's depth.
static uint32_t background_of(const DrawRect *rect)
{
    return rect->bg_color & ((1u << rect->depth) - 1);
}

// How many of count bytes from offset on lie within size; offset is not negative.
static size_t bytes_within(int64_t offset, int64_t count, uint32_t size)
{
    const int64_t room = (int64_t)size - offset;
    if (count <= 0 || room <= 0)
        return 0;
    return (size_t)(count < room ? count : room);
}

// ---- rectangle ---------------------------------------------------------------------------------

void draw_rectangle(uint8_t *target, const DrawRect *rect, uint32_t target_size)
{
    if (!draw_depth_is_valid(rect->depth)) {
        log_error(__func__, "invalid mask");
        return;
    }

    uint32_t fill = 0; // a byte full of background pixels
    for (uint32_t bit = 0; bit < 8; bit += rect->depth)
        fill |= background_of(rect) << bit;

    const int64_t painted = (int64_t)rect->width * (int64_t)rect->depth / 8;
    const size_t line = bytes_within(0, rect->pitch, target_size);
    const size_t filled = bytes_within(0, painted, target_size);
    const size_t inside = filled < line ? filled : line;
    if (line > 0) {
        memset(target, (int)fill, inside);
        memset(target + inside, 0, line - inside);
    }
    for (size_t byte = line; byte < filled; byte++)
        target[byte] = (uint8_t)(target[byte] | fill); // beyond the pitch nothing was cleared

    for (int32_t i = 1; i < rect->height; i++) {
        const int64_t offset = (int64_t)i * rect->pitch;
        const size_t bytes = bytes_within(offset, rect->pitch, target_size);
        if (bytes == 0)
            return; // and so it is for all further lines
        memcpy(target + offset, target, bytes);
    }
}

// ---- bar ---------------------------------------------------------------------------------------

// Paints the first columns bytes of an interior line of a bar that is pitch columns wide.
static void paint_interior_line(uint8_t *line, size_t columns, int32_t pitch, int32_t frame,
                                int32_t percent, uint8_t fill)
{
    // The order of these operations, in double precision, decides on which column a bound falls.
    const int32_t width = pitch - 2 * frame;
    const double marker = frame + width * 0.01 * 85.0;
    const double marker_begin = marker - frame;
    const double marker_end = marker + frame;
    const double filled_end = frame + percent * (width * 0.01);

    for (size_t column = 0; column < columns; column++) {
        const int32_t j = (int32_t)column;
        if (j < frame || j > pitch - frame - 1)
            line[column] = PALETTE_FRAME;
        else if (j > marker_begin && j < marker_end)
            line[column] = PALETTE_MARKER;
        else
            line[column] = filled_end <= j ? fill : PALETTE_FILL;
    }
}

void draw_rectangle_bitmap(uint8_t *target, const DrawRect *rect, int32_t percent,
                           uint32_t target_size)
{
    if (!draw_depth_is_valid(rect->depth)) {
        log_error(__func__, "invalid mask");
        return;
    }

    const int32_t pitch = rect->pitch;
    const int32_t height = rect->height;
    const int32_t frame = rect->resolution < RESOLUTION_COUNT ? FRAME_PIXELS[rect->resolution] : 0;

    const size_t first = bytes_within(0, pitch, target_size);
    if (first > 0)
        memset(target, PALETTE_CLEAR, first);

    // All interior lines are equal: the first is painted, the others are copies of it.
    const uint8_t *interior = nullptr;
    for (int32_t i = 0; i < height; i++) {
        const int64_t offset = (int64_t)i * pitch;
        const size_t bytes = bytes_within(offset, pitch, target_size);
        if (bytes == 0)
            return; // and so it is for all further lines
        uint8_t *line = target + offset;
        if (i < frame || i > height - frame - 1) {
            memset(line, PALETTE_FRAME, bytes);
        } else if (interior) {
            memcpy(line, interior, bytes);
        } else {
            paint_interior_line(line, bytes, pitch, frame, percent, (uint8_t)background_of(rect));
            interior = line;
        }
    }
}
