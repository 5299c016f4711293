// Kept literal and slow on purpose: an optimization here would need a reference of its own.

#include "reference.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace reference
{

static constexpr uint32_t REGION_WIDTH[] = {720, 480, 280, 132};
static constexpr uint32_t REGION_HEIGHT[] = {108, 72, 48, 24};
static constexpr uint32_t FONT_PIXELS[] = {63, 42, 28, 14};

static void put_byte(std::span<uint8_t> memory, int64_t offset, uint8_t value)
{
    if (offset >= 0 && offset < (int64_t)memory.size())
        memory[(size_t)offset] = value;
}

static uint8_t get_byte(std::span<uint8_t> memory, int64_t offset)
{
    return offset >= 0 && offset < (int64_t)memory.size() ? memory[(size_t)offset] : 0;
}

void paint_rectangle(std::span<uint8_t> memory, const DrawRect &rect)
{
    const int64_t pitch = rect.pitch;
    const int64_t depth = rect.depth;
    const uint32_t color = rect.bg_color & ((1u << rect.depth) - 1);

    const int64_t size = (int64_t)memory.size(); // pixels outside are dropped

    for (int64_t b = 0; b < pitch && b < size; b++)
        put_byte(memory, b, 0);

    for (int64_t b = 0; b < rect.width * depth / 8 && b < size; b++)
        for (int64_t p = 0; p < 8 / depth; p++)
            put_byte(memory, b, (uint8_t)(get_byte(memory, b) | (color << (p * depth))));

    for (int64_t line = 1; pitch > 0 && line < rect.height && line * pitch < size; line++)
        for (int64_t b = 0; b < pitch && line * pitch + b < size; b++)
            put_byte(memory, line * pitch + b, get_byte(memory, b));
}

int frame_thickness(uint32_t resolution)
{
    switch (resolution) {
    case 0:
        return 5;
    case 1:
        return 4;
    case 2:
        return 3;
    case 3:
        return 2;
    default:
        return 0;
    }
}

static int bar_pixel(const DrawRect &rect, int i, int j, int percent)
{
    const int t = frame_thickness(rect.resolution);
    if (i < t || i > rect.height - t - 1 || j < t || j > rect.pitch - t - 1)
        return COLOR_FRAME;

    const int w = rect.pitch - 2 * t;
    const double m = w * 0.01 * THRESHOLD;
    const double c = t + m;
    if (j > c - t && j < c + t)
        return COLOR_MARKER;

    const double f = t + percent * (w * 0.01);
    if (f <= j)
        return (int)(rect.bg_color & ((1u << rect.depth) - 1));
    return COLOR_FILL;
}

void paint_bar(std::span<uint8_t> memory, const DrawRect &rect, int32_t percent)
{
    const int64_t pitch = rect.pitch;
    const int64_t size = (int64_t)memory.size(); // pixels outside are dropped
    for (int64_t b = 0; b < pitch && b < size; b++)
        put_byte(memory, b, 0);

    for (int i = 0; pitch > 0 && i < rect.height && i * pitch < size; i++)
        for (int j = 0; j < rect.pitch && i * pitch + j < size; j++)
            put_byte(memory, (int64_t)i * rect.pitch + j, (uint8_t)bar_pixel(rect, i, j, percent));
}

static void put_pixel(std::span<uint8_t> memory, int64_t pixel, int64_t depth, uint32_t value)
{
    if (pixel < 0)
        return;
    const int64_t shift = pixel * depth % 8;
    const uint32_t mask = ((1u << depth) - 1) << shift;
    const uint32_t old = get_byte(memory, pixel * depth / 8);
    put_byte(memory, pixel * depth / 8, (uint8_t)((old & ~mask) | (value << shift)));
}

void paint_glyph(std::span<uint8_t> memory, const DrawRect &target, const FT_BitmapGlyphRec &glyph,
                 int32_t baseline_offset, int32_t x_origin, bool highlight)
{
    const FT_Bitmap &bitmap = glyph.bitmap;
    const int64_t line_pixels = (int64_t)target.pitch * (8 / (int64_t)target.depth);
    const int64_t x0 = (int64_t)glyph.left + x_origin;
    const int64_t y0 = (int64_t)target.height - glyph.top + baseline_offset;

    int64_t rows = bitmap.rows;
    if (target.height < rows)
        rows = target.height - y0;
    int64_t cols = bitmap.width;
    if (cols > line_pixels)
        cols = line_pixels - x0;

    const uint32_t mask = (1u << target.depth) - 1;
    const uint32_t value = mask & (highlight ? COLOR_HIGHLIGHT : target.fg_color);
    for (int64_t r = 0; r < rows && r < bitmap.rows; r++) {
        for (int64_t c = 0; c < cols && c < bitmap.width; c++) {
            const int bits = bitmap.buffer[r * bitmap.pitch + c / 8];
            if ((bits >> (7 - c % 8)) & 1)
                put_pixel(memory, (y0 + r) * line_pixels + x0 + c, target.depth, value);
        }
    }
}

static void check(FT_Error error, const char *what)
{
    if (error)
        throw std::runtime_error(std::string("reference font: ") + what);
}

Font::Font(const std::string &path, uint32_t pixel_size)
{
    check(FT_Init_FreeType(&library_), "no library");
    check(FT_New_Face(library_, path.c_str(), 0, &face_), path.c_str());
    FT_Size_RequestRec request = {FT_SIZE_REQUEST_TYPE_REAL_DIM, 0, (FT_Long)pixel_size * 64, 0, 0};
    check(FT_Request_Size(face_, &request), "no such size");
}

Font::~Font()
{
    FT_Done_Face(face_);
    FT_Done_FreeType(library_);
}

int32_t Font::cell_width() const
{
    return (int32_t)((face_->size->metrics.max_advance - 1) / 64 + 1);
}

int32_t Font::baseline_offset() const
{
    return (int32_t)((face_->size->metrics.descender - 1) / 64 + 1);
}

FT_BitmapGlyph Font::render(unsigned char character) const
{
    FT_Glyph glyph = nullptr;
    check(FT_Load_Glyph(face_, FT_Get_Char_Index(face_, character), FT_LOAD_DEFAULT), "no glyph");
    check(FT_Get_Glyph(face_->glyph, &glyph), "no glyph");
    check(FT_Glyph_To_Bitmap(&glyph, FT_RENDER_MODE_MONO, nullptr, 1), "no bitmap");
    return (FT_BitmapGlyph)glyph;
}

void paint_text(std::span<uint8_t> memory, const DrawRect &target, const Font &font,
                const std::string &text, bool highlight)
{
    paint_rectangle(memory, target);
    for (size_t i = 0; i < text.size(); i++) {
        const FT_BitmapGlyph glyph = font.render((unsigned char)text[i]);
        paint_glyph(memory, target, *glyph, font.baseline_offset(), (int32_t)i * target.cell_width,
                    highlight);
        FT_Done_Glyph((FT_Glyph)glyph);
    }
}

uint32_t resolution_index(uint32_t output_width)
{
    switch (output_width) {
    case 1920:
        return 0;
    case 1280:
        return 1;
    case 720:
        return 2;
    case 352:
        return 3;
    default:
        throw std::runtime_error("no such output width");
    }
}

uint32_t font_pixel_size(uint32_t resolution)
{
    return FONT_PIXELS[resolution];
}

uint32_t region_width(uint32_t resolution)
{
    return REGION_WIDTH[resolution];
}

uint32_t region_height(uint32_t resolution)
{
    return REGION_HEIGHT[resolution];
}

static Plane cleared_plane(uint32_t output_width, uint32_t pitch)
{
    const uint32_t index = resolution_index(output_width);
    const uint32_t height = REGION_HEIGHT[index];
    return {std::vector<uint8_t>(pitch * height), REGION_WIDTH[index], height, pitch, 0, 0};
}

Plane bar_plane(uint32_t output_width, uint32_t output_height, uint32_t pitch, int32_t percent)
{
    Plane plane = cleared_plane(output_width, pitch);
    plane.x = (output_width - plane.width) / 2;
    plane.y = output_height * 4 / 5;

    DrawRect rect = {};
    rect.height = (int32_t)plane.height;
    rect.depth = 8;
    rect.bg_color = COLOR_BOX;
    rect.pitch = (int32_t)pitch;
    rect.resolution = resolution_index(output_width);
    paint_bar(plane.bytes, rect, percent);
    return plane;
}

Plane text_plane(uint32_t output_width, uint32_t output_height, uint32_t pitch,
                 const std::string &font_path, const std::string &text, bool highlight)
{
    const Font font(font_path, FONT_PIXELS[resolution_index(output_width)]);
    return text_plane(output_width, output_height, pitch, font, text, highlight);
}

Plane text_plane(uint32_t output_width, uint32_t output_height, uint32_t pitch, const Font &font,
                 const std::string &text, bool highlight)
{
    const uint32_t index = resolution_index(output_width);
    Plane plane = cleared_plane(output_width, pitch);
    const uint32_t font_size = std::max(output_height / 17, 8u);

    DrawRect target = {};
    target.width = 21 * font.cell_width();
    target.height = (int32_t)font_size;
    target.depth = 8;
    target.fg_color = COLOR_TEXT;
    target.bg_color = COLOR_BOX;
    target.cell_width = font.cell_width();
    target.pitch = (int32_t)pitch;
    paint_text(plane.bytes, target, font, text, highlight);

    const int32_t region_x = (int32_t)(output_width - plane.width) / 2;
    const int32_t x =
        index < 2 ? region_x + ((int32_t)plane.width - target.width) / 2 : region_x + 1;
    plane.x = (uint32_t)x;
    plane.y = output_height * 4 / 5 - font_size;
    return plane;
}

} // namespace reference
