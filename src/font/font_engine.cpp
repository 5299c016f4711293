// Font engines and their glyph caches.
//
// State: font_engines, the four engines; display thread only.

#include "font/font_engine.h"

#include <stdlib.h>
#include <string.h>

#include "error_log.h"
#include "status.h"

static const char CACHED_CHARACTERS[] =
    "1234567890: -abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

constexpr uint32_t LINES_PER_PIXEL = 17;
constexpr uint32_t PIXEL_SIZE_MIN = 8;

FontEngine font_engines[FONT_ENGINE_COUNT];

// ---- cache -------------------------------------------------------------------------------------

int32_t font_get_glyph(FT_Face face, uint32_t char_code, FT_Glyph *glyph_out)
{
    const FT_UInt index = FT_Get_Char_Index(face, char_code); // 0: the box for missing glyphs

    if (FT_Load_Glyph(face, index, FT_LOAD_DEFAULT) != 0) {
        log_error(__func__, "load glyph failed");
        return STATUS_FAULT;
    }
    if (FT_Get_Glyph(face->glyph, glyph_out) != 0) {
        log_error(__func__, "get glyph failed");
        return STATUS_FAULT;
    }
    // 1: releases the outline when the bitmap replaces it.
    if (FT_Glyph_To_Bitmap(glyph_out, FT_RENDER_MODE_MONO, nullptr, 1) != 0) {
        log_error(__func__, "glyph to bitmap failed");
        return STATUS_FAULT;
    }
    return STATUS_OK;
}

void font_free_cache(GlyphCache *cache)
{
    if (cache->entries) {
        for (uint32_t i = 0; i < cache->count; i++)
            FT_Done_Glyph(cache->entries[i].glyph); // null if none was rendered
        free(cache->entries);
        cache->entries = nullptr;
    }
    cache->count = 0;
}

int32_t font_create_cache(FT_Face face, GlyphCache *cache, const char *charset)
{
    cache->count = (uint32_t)strlen(charset);
    cache->entries = (GlyphCacheEntry *)calloc(cache->count, sizeof(GlyphCacheEntry));
    if (!cache->entries) {
        log_error(__func__, "calloc failed");
        return STATUS_NOMEM; // count stays set; without an array it is ignored
    }

    for (uint32_t i = 0; i < cache->count; i++) {
        const uint32_t char_code = (unsigned char)charset[i];
        if (font_get_glyph(face, char_code, &cache->entries[i].glyph) != STATUS_OK) {
            log_error(__func__, "set glyph failed");
            font_free_cache(cache);
            return STATUS_FAULT;
        }
        cache->entries[i].char_code = char_code;
    }
    return STATUS_OK;
}

FT_Glyph font_find_glyph(const GlyphCache *cache, uint32_t char_code)
{
    if (!cache->entries)
        return nullptr;
    const GlyphCacheEntry *end = cache->entries + cache->count;
#pragma GCC unroll 4 // half of the time of a short text is this search
    for (const GlyphCacheEntry *entry = cache->entries; entry < end; entry++) {
        if (entry->char_code == char_code)
            return entry->glyph;
    }
    return nullptr;
}

// ---- engine ------------------------------------------------------------------------------------

int32_t font_clear_engine(FontEngine *engine)
{
    if (!engine || !engine->library) {
        log_error(__func__, "invalid param");
        return STATUS_OK; // a second call is harmless
    }

    font_free_cache(&engine->cache);
    FT_Done_Face(engine->face);
    const int32_t result = FT_Done_FreeType(engine->library);
    engine->library = nullptr;
    return result;
}

int32_t font_init_engine(FontEngine *engine, const char *font_path, uint32_t pixel_size)
{
    if (!engine || !font_path) {
        log_error(__func__, "invalid parameter");
        return STATUS_INVALID;
    }
    memset(engine, 0, sizeof *engine);

    if (FT_Init_FreeType(&engine->library) != 0) {
        log_error(__func__, "Init_FreeType error");
        engine->library = nullptr; // dead; the failed call may have written to it
        return STATUS_FAULT;
    }

    if (FT_New_Face(engine->library, font_path, 0, &engine->face) != 0) {
        log_error(__func__, "New_Face error. font file: %s", font_path);
        FT_Done_FreeType(engine->library);
        engine->library = nullptr;
        return STATUS_FAULT;
    }

    FT_Size_RequestRec request = {};
    request.type = FT_SIZE_REQUEST_TYPE_REAL_DIM;
    request.height = (FT_Long)pixel_size * 64; // 26.6 fixed point
    if (FT_Request_Size(engine->face, &request) != 0) {
        log_error(__func__, "request size error");
        (void)font_clear_engine(engine); // the failure is already reported
        return STATUS_FAULT;
    }

    if (font_create_cache(engine->face, &engine->cache, CACHED_CHARACTERS) != STATUS_OK) {
        log_error(__func__, "create buffer error");
        (void)font_clear_engine(engine); // the failure is already reported
        return STATUS_FAULT;
    }
    return STATUS_OK;
}

uint32_t font_pixel_size(uint32_t line_count)
{
    const uint32_t pixels = line_count / LINES_PER_PIXEL;
    return pixels < PIXEL_SIZE_MIN ? PIXEL_SIZE_MIN : pixels;
}

void font_nominal_size(uint32_t osd_number, uint32_t *width, uint32_t *line_count)
{
    static const uint32_t SIZES[FONT_ENGINE_COUNT][2] = {
        {1920, 1080}, {1280, 720}, {720, 480}, {352, 240}};

    if (osd_number >= FONT_ENGINE_COUNT) {
        log_error("osd_init_font", "invalid osd number");
        return;
    }
    *width = SIZES[osd_number][0];
    *line_count = SIZES[osd_number][1];
}

int32_t osd_init_font(const char *font_path, FontEngine engines[FONT_ENGINE_COUNT])
{
    uint32_t width = 0; // not used for the pixel size
    uint32_t line_count = 0;

    for (uint32_t osd_number = 0; osd_number < FONT_ENGINE_COUNT; osd_number++) {
        font_nominal_size(osd_number, &width, &line_count);
        if (font_init_engine(&engines[osd_number], font_path, font_pixel_size(line_count)) !=
            STATUS_OK) {
            log_error(__func__, "font_init_engine() failed");
            return STATUS_FAULT;
        }
    }
    return STATUS_OK;
}

// ---- metrics -----------------------------------------------------------------------------------

// A 26.6 value in whole pixels. Positive values are rounded up; for negative values the division
// truncates toward 0 before 1 is added.
static int32_t pixels_of(FT_Pos value)
{
    return (int32_t)((value - 1) / 64 + 1);
}

int32_t font_cell_width(const FontEngine *engine)
{
    if (!engine->library)
        return 0;
    return pixels_of(engine->face->size->metrics.max_advance);
}

int32_t font_baseline_offset(const FontEngine *engine)
{
    if (!engine->library)
        return 0;
    return pixels_of(engine->face->size->metrics.descender);
}
