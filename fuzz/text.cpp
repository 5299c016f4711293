// A string of glyphs of any shape, pitch and position on memory of any size and depth: every byte
// must match the pixel-by-pixel reference. The engine is built once; its cached glyphs are replaced
// by those of the input. FreeType renders the one character that the cache lacks.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "difference.h"
#include "font/font_text.h"
#include "input.h"
#include "reference.h"

static constexpr char CHARACTERS[] = "019 -aZ/"; // "/" is not in the cache
static constexpr size_t GLYPHS = 3;              // in the input, used in turn

static FontEngine &engine()
{
    static FontEngine made;
    if (!made.library && font_init_engine(&made, TEST_FONT_PATH, 14) != 0)
        abort();
    return made;
}

// A bitmap in an exact-size heap block, so that the sanitizer detects reads outside it.
struct Shape {
    FT_BitmapGlyphRec glyph = {};
    std::unique_ptr<uint8_t[]> bits;

    void take(Input *input)
    {
        FT_Bitmap &bitmap = glyph.bitmap;
        bitmap.rows = input->byte() % 24;
        bitmap.width = input->byte() % 40;
        const uint8_t more = input->byte();
        const unsigned line = (bitmap.width + 7) / 8 + more % 3;
        bitmap.pitch = (int)line;
        bitmap.pixel_mode = FT_PIXEL_MODE_MONO;
        glyph.left = (int8_t)input->byte() / 4;
        glyph.top = (int8_t)input->byte() / 2;

        const size_t size = (size_t)bitmap.rows * line;
        bits.reset(new uint8_t[size]);
        const uint8_t first = input->byte();
        const uint8_t step = input->byte();
        for (size_t i = 0; i < size; i++)
            bits[i] = (uint8_t)(first + i * step);
        bitmap.buffer = bits.get();
        if ((more & 128) != 0 && bitmap.rows > 0) { // lines in upward order
            bitmap.buffer += (bitmap.rows - 1) * line;
            bitmap.pitch = -bitmap.pitch;
        }
    }
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static constexpr uint32_t DEPTHS[] = {2, 4, 8, 8};
    static const reference::Font font(TEST_FONT_PATH, 14);
    static std::vector<FT_Glyph> real; // those of the cache
    Input input = {data, size};
    GlyphCache &cache = engine().cache;
    if (real.empty()) {
        for (uint32_t i = 0; i < cache.count; i++)
            real.push_back(cache.entries[i].glyph);
    }

    DrawRect target = {};
    const uint8_t what = input.byte();
    target.depth = DEPTHS[what % 4];
    const bool highlight = (what & 4) != 0;
    const bool wide = (what & 8) != 0;
    target.width = input.signed_byte();
    target.height = input.signed_byte() / 2;
    target.pitch = input.signed_byte() + (wide ? 128 : 64);
    target.cell_width = input.signed_byte() / 8;
    target.fg_color = input.byte();
    target.bg_color = input.byte();
    const size_t bytes = input.half() % 768;
    const size_t length = input.byte() % 5;
    char text[5] = {};
    for (size_t i = 0; i < length; i++) {
        const uint8_t which = input.byte();
        text[i] = CHARACTERS[which < 250 ? which % 7 : 7];
    }
    Shape shapes[GLYPHS];
    for (Shape &shape : shapes)
        shape.take(&input);
    for (uint32_t i = 0; i < cache.count; i++)
        cache.entries[i].glyph = (FT_Glyph)&shapes[i % GLYPHS].glyph;

    const std::unique_ptr<uint8_t[]> drawn(new uint8_t[bytes]);
    const std::unique_ptr<uint8_t[]> expected(new uint8_t[bytes]);
    memset(drawn.get(), 0xA5, bytes);
    memset(expected.get(), 0xA5, bytes);

    const int64_t line_pixels = (int64_t)target.pitch * (8 / (int64_t)target.depth);
    const bool fits = (int64_t)target.cell_width * (int64_t)length <= line_pixels;
    int32_t status = 0;
    if (fits)
        status = font_get_target_bitmap(&engine(), text, &target, drawn.get(), highlight,
                                        (uint32_t)bytes);
    if (status != 0) {
        fprintf(stderr, "status %d, expected 0\n", status);
        abort();
    }
    if (fits) {
        const std::span<uint8_t> memory(expected.get(), bytes);
        reference::paint_rectangle(memory, target);
        for (size_t i = 0; i < length; i++) {
            const int32_t x = (int32_t)i * target.cell_width;
            uint32_t entry = 0;
            while (entry < cache.count && cache.entries[entry].char_code != (uint8_t)text[i])
                entry++;
            if (entry < cache.count) {
                reference::paint_glyph(memory, target, shapes[entry % GLYPHS].glyph,
                                       font.baseline_offset(), x, highlight);
            } else {
                const FT_BitmapGlyph glyph = font.render((uint8_t)text[i]);
                reference::paint_glyph(memory, target, *glyph, font.baseline_offset(), x,
                                       highlight);
                FT_Done_Glyph((FT_Glyph)glyph);
            }
        }
    }
    for (uint32_t i = 0; i < cache.count; i++)
        cache.entries[i].glyph = real[i];

    const std::string first = difference({drawn.get(), bytes}, {expected.get(), bytes},
                                         (size_t)std::max(target.pitch, 0));
    if (!first.empty()) {
        fprintf(stderr, "text: %s\n", first.c_str());
        abort();
    }
    return 0;
}
