// Font engines: FreeType, one face at one pixel size, and a cache of every character of the readout
// except "/", rendered in advance at one bit per pixel. Display thread only.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <ft2build.h>
#include FT_FREETYPE_H
#include FT_GLYPH_H

#define FONT_PATH "/usr/local/morvel/import/font/dejavu/font/DejaVuSansMono.ttf"

constexpr uint32_t FONT_ENGINE_COUNT = 4; // one per resolution index

struct GlyphCacheEntry {
    uint32_t char_code; // byte value of the character
    FT_Glyph glyph;     // owned FT_BitmapGlyph of one bit per pixel; null: none
};
static_assert(sizeof(void *) != 4 || sizeof(GlyphCacheEntry) == 8, "two words");
static_assert(sizeof(void *) != 4 || offsetof(GlyphCacheEntry, glyph) == 4, "two words");

struct GlyphCache {
    uint32_t count;           // entries
    GlyphCacheEntry *entries; // heap array; null: no entries, whatever count is
};
static_assert(sizeof(void *) != 4 || sizeof(GlyphCache) == 8, "two words");
static_assert(sizeof(void *) != 4 || offsetof(GlyphCache, entries) == 4, "two words");

// One engine. It is alive while library is not null; then face is not null either.
struct FontEngine {
    FT_Library library;
    FT_Face face;
    GlyphCache cache;
};
static_assert(sizeof(void *) != 4 || sizeof(FontEngine) == 16, "four words");
static_assert(sizeof(void *) != 4 || offsetof(FontEngine, face) == 4, "four words");
static_assert(sizeof(void *) != 4 || offsetof(FontEngine, cache) == 8, "four words");

// The engines by resolution index, zero until osd_init_font.
extern FontEngine font_engines[FONT_ENGINE_COUNT];

// Builds the four engines, at 63, 42, 28 and 14 pixels.
//
// Returns 0, or STATUS_FAULT at the first failure; the engines before it stay alive.
int32_t osd_init_font(const char *font_path, FontEngine engines[FONT_ENGINE_COUNT]);

// Nominal output size of an OSD number 0..3; another number is logged and leaves both unchanged.
void font_nominal_size(uint32_t osd_number, uint32_t *width, uint32_t *line_count);

// Text height for an output of line_count lines: a seventeenth of it, at least 8 pixels.
uint32_t font_pixel_size(uint32_t line_count);

// Builds one engine and its cache; pixel_size is the height from ascender to descender.
//
// Returns 0, STATUS_INVALID for a null argument, or STATUS_FAULT with everything undone.
int32_t font_init_engine(FontEngine *engine, const char *font_path, uint32_t pixel_size);

// Fills cache with one entry per byte of charset.
//
// Returns 0; STATUS_NOMEM with count set and entries null; or STATUS_FAULT with the cache empty.
int32_t font_create_cache(FT_Face face, GlyphCache *cache, const char *charset);

// Renders a character at one bit per pixel; a character that the font lacks gives its box for
// missing glyphs. A null face fails. The caller releases *glyph_out, also after a failure, which
// may leave it unwritten.
//
// Returns 0 or STATUS_FAULT.
int32_t font_get_glyph(FT_Face face, uint32_t char_code, FT_Glyph *glyph_out);

// Releases the glyphs in order, then the array; accepts an empty cache.
void font_free_cache(GlyphCache *cache);

// Releases an engine: glyphs, array, face, library. A null or dead engine is logged and nothing
// changes. face keeps its stale value.
//
// Returns the result of FT_Done_FreeType; 0 for a null or dead engine.
int32_t font_clear_engine(FontEngine *engine);

// The glyph of the first entry with char_code, or null. It belongs to the cache.
FT_Glyph font_find_glyph(const GlyphCache *cache, uint32_t char_code);

// Advance of the face, rounded up to whole pixels; 0 for a dead engine.
int32_t font_cell_width(const FontEngine *engine);

// Row of the baseline relative to the bottom edge, negative: above it; 0 for a dead engine.
int32_t font_baseline_offset(const FontEngine *engine);
