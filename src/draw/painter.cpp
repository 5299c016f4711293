// The two painters. No state.

#include "draw/painter.h"

#include <string.h>

#include "error_log.h"
#include "focus_threshold.h"
#include "palette_index.h"
#include "resolution.h"

#ifdef __FAST_MATH__
#error "-ffast-math moves columns of the bar: build with -fno-fast-math, placed after it"
#endif

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

// Returns how many of the count bytes at offset lie within size; offset is not negative.
static size_t bytes_within(int64_t offset, int64_t count, uint32_t size)
{
    const int64_t room = (int64_t)size - offset;
    if (count <= 0 || room <= 0)
        return 0;
    return (size_t)(count < room ? count : room);
}

// Repeats the first line_bytes of lines until bytes are filled. Copies grow by using earlier copies
// as their source, up to a size that fits the first-level cache.
static void repeat_line(uint8_t *lines, size_t line_bytes, size_t bytes)
{
    constexpr size_t SOURCE_BYTES = 4096;

    size_t source = line_bytes;
    for (size_t done = line_bytes; done < bytes;) {
        const size_t part = source < bytes - done ? source : bytes - done;
        memcpy(lines + done, lines, part);
        done += part;
        if (source < SOURCE_BYTES)
            source = done;
    }
}

// ---- rectangle ---------------------------------------------------------------------------------

void draw_rectangle(uint8_t *target, const DrawRect *rect, uint32_t target_size)
{
    if (!draw_depth_is_valid(rect->depth)) {
        log_error(__func__, "invalid mask");
        return;
    }

    uint32_t fill = 0; // a byte of background pixels
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
        target[byte] = (uint8_t)(target[byte] | fill); // bytes beyond the pitch were not cleared

    const int64_t lines = (int64_t)rect->height * rect->pitch;
    if (line > 0)
        repeat_line(target, line, bytes_within(0, lines, target_size));
}

// ---- bar ---------------------------------------------------------------------------------------

// The first whole column at or after place.
static int64_t column_from(double place)
{
    const int64_t column = (int64_t)place; // truncates toward 0
    return (double)column < place ? column + 1 : column;
}

// Sets columns begin .. end - 1, as far as the line has them.
static void paint_columns(uint8_t *line, size_t columns, int64_t begin, int64_t end, uint8_t color)
{
    if (begin < 0)
        begin = 0;
    if (end > (int64_t)columns)
        end = (int64_t)columns;
    if (begin < end)
        memset(line + begin, color, (size_t)(end - begin));
}

// Paints the first columns bytes of an interior line of a bar that is pitch columns wide.
static void paint_interior_line(uint8_t *line, size_t columns, int32_t pitch, int32_t frame,
                                int32_t percent, uint8_t fill)
{
    // Keep the order of these double-precision operations: it decides the column of each bound.
    const int32_t width = pitch - 2 * frame;
    const double marker = frame + width * 0.01 * FOCUS_THRESHOLD_PERCENT;
    const double marker_begin = marker - frame; // the marker is strictly between the bounds
    const double marker_end = marker + frame;
    const double filled_end = frame + percent * (width * 0.01); // first column not filled

    const int64_t right = (int64_t)pitch - frame;
    const int64_t marker_first = -column_from(-marker_begin) + 1;
    paint_columns(line, columns, 0, right, PALETTE_FILL);
    paint_columns(line, columns, column_from(filled_end), right, fill);
    paint_columns(line, columns, marker_first, column_from(marker_end), PALETTE_MARKER);
    paint_columns(line, columns, 0, frame, PALETTE_FRAME);
    paint_columns(line, columns, right, pitch, PALETTE_FRAME);
}

void draw_rectangle_bitmap(uint8_t *target, const DrawRect *rect, int32_t percent,
                           uint32_t target_size)
{
    if (!draw_depth_is_valid(rect->depth)) {
        log_error(__func__, "invalid mask");
        return;
    }

    const int32_t pitch = rect->pitch;
    const int32_t frame = rect->resolution < RESOLUTION_COUNT ? FRAME_PIXELS[rect->resolution] : 0;

    const size_t line = bytes_within(0, pitch, target_size);
    if (line == 0)
        return;
    memset(target, PALETTE_CLEAR, line); // a bar without height shows only this line

    // Lines 0 .. top - 1 are frame, top .. bottom - 1 interior, bottom .. height - 1 frame.
    const int64_t height = rect->height > 0 ? rect->height : 0;
    const int64_t top = frame < height ? frame : height;
    const int64_t bottom = height - frame > top ? height - frame : top;

    const size_t bytes = bytes_within(0, height * pitch, target_size);
    const size_t interior = bytes_within(0, top * pitch, target_size);
    const size_t interior_end = bytes_within(0, bottom * pitch, target_size);
    memset(target, PALETTE_FRAME, interior);
    if (interior < interior_end) {
        uint8_t *lines = target + interior;
        const size_t room = interior_end - interior;
        const size_t first = line < room ? line : room;
        paint_interior_line(lines, first, pitch, frame, percent, (uint8_t)background_of(rect));
        repeat_line(lines, first, room);
    }
    memset(target + interior_end, PALETTE_FRAME, bytes - interior_end);
}
