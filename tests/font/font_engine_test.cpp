// Font engines and their caches with the real font, recorded by world.h.

#include "font/font_engine.h"

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "draw/draw_param.h"
#include "font_calls.h"
#include "painting.h"
#include "reference.h"
#include "status.h"

static const std::string CACHED =
    "1234567890: -abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

static bool same_bitmap(const FT_BitmapGlyphRec &a, const FT_BitmapGlyphRec &b)
{
    const FT_Bitmap &x = a.bitmap;
    const FT_Bitmap &y = b.bitmap;
    return a.left == b.left && a.top == b.top && x.rows == y.rows && x.width == y.width &&
           x.pitch == y.pitch && x.pixel_mode == y.pixel_mode &&
           (x.rows == 0 || memcmp(x.buffer, y.buffer, x.rows * (size_t)x.pitch) == 0);
}

// Every test begins with an empty record and must leave no object.
class FontEngineTest : public testing::Test
{
  protected:
    FontEngineTest()
    {
        world::reset();
    }

    void TearDown() override
    {
        world::script.fails = nullptr;
        for (FontEngine &engine : engines) {
            if (engine.library)
                font_clear_engine(&engine);
        }
        expect_nothing_left();
    }

    static void expect_nothing_left()
    {
        EXPECT_EQ(world::objects_alive(), 0u);
        EXPECT_EQ(world::wrong_releases, 0);
    }

    // The next call of fn fails.
    static void fail(world::Fn failing)
    {
        world::clear_record();
        world::script.fails = [=](world::Fn fn, uint64_t n) { return fn == failing && n == 1; };
    }

    void build(FontEngine *engine, uint32_t pixel_size = 28)
    {
        ASSERT_EQ(font_init_engine(engine, TEST_FONT_PATH, pixel_size), STATUS_OK);
    }

    FontEngine engines[FONT_ENGINE_COUNT] = {};
};

class OsdInitFont : public FontEngineTest
{
};
class FontInitEngine : public FontEngineTest
{
};
class FontCache : public FontEngineTest
{
};
class FontGetGlyph : public FontEngineTest
{
};
class FontClearEngine : public FontEngineTest
{
};
class FontReleaseSlot : public FontEngineTest
{
};
class FontMetrics : public FontEngineTest
{
};

// ---- four engines ------------------------------------------------------------------------------

TEST_F(OsdInitFont, BuildsFourEnginesLargestFirst)
{
    int32_t status = -1;
    const Captured captured = capture([&] { status = osd_init_font(TEST_FONT_PATH, engines); });

    EXPECT_EQ(status, STATUS_OK);
    EXPECT_EQ(captured.err, "");
    EXPECT_EQ(captured.out, "");
    std::vector<std::string> sizes;
    for (const std::string &call : font_calls()) {
        if (call.starts_with("FT_Request_Size"))
            sizes.push_back(call);
    }
    EXPECT_EQ(sizes, std::vector<std::string>({"FT_Request_Size(REAL_DIM, 0 x 4032, at 0 x 0)",
                                               "FT_Request_Size(REAL_DIM, 0 x 2688, at 0 x 0)",
                                               "FT_Request_Size(REAL_DIM, 0 x 1792, at 0 x 0)",
                                               "FT_Request_Size(REAL_DIM, 0 x 896, at 0 x 0)"}));
    for (const FontEngine &engine : engines) {
        EXPECT_NE(engine.library, nullptr);
        EXPECT_EQ(engine.cache.count, 65u);
    }
    EXPECT_EQ(world::objects_alive(world::FONT_INIT), 4u);
    EXPECT_EQ(world::objects_alive(world::FONT_NEW_FACE), 4u);
    EXPECT_EQ(world::objects_alive(world::FONT_GET_GLYPH), 4 * 65u);
}

TEST_F(OsdInitFont, NullPathFailsAtEngineZero)
{
    const Captured captured =
        capture([&] { EXPECT_EQ(osd_init_font(nullptr, engines), STATUS_FAULT); });

    EXPECT_EQ(captured.err, error_line("invalid parameter", "font_init_engine") +
                                error_line("font_init_engine() failed", "osd_init_font"));
    EXPECT_TRUE(font_calls().empty());
}

TEST_F(OsdInitFont, NumberOutsideTheTableIsLoggedAndKeepsTheSize)
{
    for (const uint32_t number : {4u, 5u, 0xFFFFFFFFu}) {
        uint32_t width = 11;
        uint32_t lines = 22;

        const Captured captured = capture([&] { font_nominal_size(number, &width, &lines); });

        EXPECT_EQ(captured.err, error_line("invalid osd number", "osd_init_font"));
        EXPECT_EQ(width, 11u);
        EXPECT_EQ(lines, 22u);
    }
}

TEST_F(OsdInitFont, NominalSizesAreThoseOfTheTable)
{
    const uint32_t table[4][2] = {{1920, 1080}, {1280, 720}, {720, 480}, {352, 240}};
    for (uint32_t number = 0; number < 4; number++) {
        uint32_t width = 0;
        uint32_t lines = 0;
        font_nominal_size(number, &width, &lines);
        EXPECT_EQ(width, table[number][0]);
        EXPECT_EQ(lines, table[number][1]);
    }
}

// ---- one engine --------------------------------------------------------------------------------

TEST_F(FontInitEngine, CachesEveryCharacterOfTheSetInOrder)
{
    for (const uint32_t size : {63u, 42u, 28u, 14u}) {
        FontEngine &engine = engines[0];
        build(&engine, size);

        const reference::Font font(TEST_FONT_PATH, size);
        ASSERT_EQ(engine.cache.count, 65u);
        ASSERT_EQ(CACHED.size(), 65u);
        for (size_t i = 0; i < 65; i++) {
            const GlyphCacheEntry &entry = engine.cache.entries[i];
            EXPECT_EQ(entry.char_code, (uint32_t)CACHED[i]) << i;
            ASSERT_EQ(entry.glyph->format, FT_GLYPH_FORMAT_BITMAP) << i;
            const FT_BitmapGlyph glyph = (FT_BitmapGlyph)entry.glyph;
            EXPECT_EQ(glyph->bitmap.pixel_mode, FT_PIXEL_MODE_MONO) << i;
            const FT_BitmapGlyph expected = font.render((unsigned char)CACHED[i]);
            EXPECT_TRUE(same_bitmap(*glyph, *expected)) << CACHED[i] << " at " << size;
            FT_Done_Glyph((FT_Glyph)expected);
        }
        font_clear_engine(&engine);
    }
}

TEST_F(FontInitEngine, CallsFreeTypeInOrderWithItsArguments)
{
    build(&engines[0], 42);

    const std::vector<std::string> calls = font_calls();
    ASSERT_EQ(calls.size(), 4 + 65 * 4u);
    EXPECT_EQ(calls[0], "FT_Init_FreeType()");
    EXPECT_EQ(calls[1], "FT_New_Face(" TEST_FONT_PATH ", 0)");
    EXPECT_EQ(calls[2], "FT_Request_Size(REAL_DIM, 0 x 2688, at 0 x 0)");
    EXPECT_EQ(calls[3], "calloc(65, " + std::to_string(2 * sizeof(void *)) + ")");
    for (size_t i = 0; i < 65; i++) {
        const FT_UInt index = FT_Get_Char_Index(engines[0].face, (unsigned char)CACHED[i]);
        const std::string code = std::to_string(CACHED[i]);
        EXPECT_EQ(calls[4 + 4 * i], "FT_Get_Char_Index(" + code + ")");
        EXPECT_EQ(calls[5 + 4 * i], "FT_Load_Glyph(" + std::to_string(index) + ", 0)");
        EXPECT_EQ(calls[6 + 4 * i], "FT_Get_Glyph()");
        EXPECT_EQ(calls[7 + 4 * i], "FT_Glyph_To_Bitmap(mode 2, no origin, destroy 1)");
    }
    EXPECT_EQ(FT_LOAD_DEFAULT, 0);
    EXPECT_EQ(FT_RENDER_MODE_MONO, 2);
}

TEST_F(FontInitEngine, NullArgumentIsInvalidAndTouchesNothing)
{
    FontEngine engine;
    memset(&engine, 0xA5, sizeof engine);
    const FontEngine before = engine;

    const Captured captured = capture([&] {
        EXPECT_EQ(font_init_engine(nullptr, TEST_FONT_PATH, 28), STATUS_INVALID);
        EXPECT_EQ(font_init_engine(&engine, nullptr, 28), STATUS_INVALID);
    });

    const std::string line = error_line("invalid parameter", "font_init_engine");
    EXPECT_EQ(captured.err, line + line);
    EXPECT_EQ(memcmp(&engine, &before, sizeof engine), 0);
    EXPECT_TRUE(font_calls().empty());
}

TEST_F(FontInitEngine, ClearsTheRecordFirst)
{
    FontEngine engine;
    memset(&engine, 0xA5, sizeof engine);
    fail(world::FONT_INIT);

    const Captured captured =
        capture([&] { EXPECT_EQ(font_init_engine(&engine, TEST_FONT_PATH, 28), STATUS_FAULT); });

    EXPECT_EQ(captured.err, error_line("Init_FreeType error", "font_init_engine"));
    EXPECT_EQ(engine.library, nullptr);
    EXPECT_EQ(engine.face, nullptr);
    EXPECT_EQ(engine.cache.count, 0u);
    EXPECT_EQ(engine.cache.entries, nullptr);
    EXPECT_EQ(font_calls(), std::vector<std::string>({"FT_Init_FreeType()"}));
}

TEST_F(FontInitEngine, FileThatIsNoFontIsNamedInTheMessage)
{
    const std::string path = testing::TempDir() + "no_font.ttf";
    std::ofstream(path) << "this is no font";

    const Captured captured =
        capture([&] { EXPECT_EQ(font_init_engine(&engines[0], path.c_str(), 28), STATUS_FAULT); });

    EXPECT_EQ(captured.err, error_line("New_Face error. font file: " + path, "font_init_engine"));
    EXPECT_EQ(engines[0].library, nullptr);
}

// ---- cache -------------------------------------------------------------------------------------

TEST_F(FontCache, HoldsOneEntryPerByteOfTheSet)
{
    build(&engines[0]);
    GlyphCache cache = {};

    ASSERT_EQ(font_create_cache(engines[0].face, &cache, "A\xE9/A"), STATUS_OK);

    ASSERT_EQ(cache.count, 4u);
    EXPECT_EQ(cache.entries[0].char_code, 0x41u);
    EXPECT_EQ(cache.entries[1].char_code, 0xE9u); // bytes are unsigned
    EXPECT_EQ(cache.entries[2].char_code, 0x2Fu);
    EXPECT_EQ(cache.entries[3].char_code, 0x41u);
    font_free_cache(&cache);
}

TEST_F(FontCache, MissingCharacterIsTheFontsBoxAndNoError)
{
    build(&engines[0]);
    ASSERT_EQ(FT_Get_Char_Index(engines[0].face, 1), 0u);
    GlyphCache cache = {};

    const Captured captured =
        capture([&] { EXPECT_EQ(font_create_cache(engines[0].face, &cache, "\x01"), STATUS_OK); });

    EXPECT_EQ(captured.err, "");
    ASSERT_EQ(cache.count, 1u);
    const FT_BitmapGlyph box = (FT_BitmapGlyph)cache.entries[0].glyph;
    EXPECT_GT(box->bitmap.rows, 0u);
    const reference::Font font(TEST_FONT_PATH, 28);
    const FT_BitmapGlyph expected = font.render(2); // another missing character
    EXPECT_TRUE(same_bitmap(*box, *expected));
    FT_Done_Glyph((FT_Glyph)expected);
    font_free_cache(&cache);
}

TEST_F(FontCache, FailedAllocationKeepsTheCount)
{
    build(&engines[0]);
    fail(world::HEAP_CALLOC);
    GlyphCache cache = {};

    const Captured captured = capture(
        [&] { EXPECT_EQ(font_create_cache(engines[0].face, &cache, "ABC"), STATUS_NOMEM); });

    EXPECT_EQ(captured.err, error_line("calloc failed", "font_create_cache"));
    EXPECT_EQ(cache.count, 3u);
    EXPECT_EQ(cache.entries, nullptr);
    EXPECT_EQ(font_find_glyph(&cache, 'A'), nullptr);
    font_free_cache(&cache);
    EXPECT_EQ(cache.count, 0u);
    EXPECT_EQ(cache.entries, nullptr);
}

TEST_F(FontCache, FailedGlyphLeavesItEmpty)
{
    build(&engines[0]);
    world::clear_record();
    world::script.fails = [](world::Fn fn, uint64_t n) {
        return fn == world::FONT_LOAD_GLYPH && n == 2;
    };
    GlyphCache cache = {};

    (void)capture(
        [&] { EXPECT_EQ(font_create_cache(engines[0].face, &cache, "AB"), STATUS_FAULT); });

    EXPECT_EQ(cache.count, 0u);
    EXPECT_EQ(cache.entries, nullptr);
}

TEST_F(FontCache, IsReleasedInOrderOnce)
{
    build(&engines[0]);
    GlyphCache cache = {};
    ASSERT_EQ(font_create_cache(engines[0].face, &cache, "XYZ"), STATUS_OK);
    std::vector<int64_t> order;
    for (const GlyphCacheEntry &entry : {cache.entries[0], cache.entries[1], cache.entries[2]})
        order.push_back(world::number_of(entry.glyph));
    world::clear_record();

    font_free_cache(&cache);
    font_free_cache(&cache);

    EXPECT_EQ(released_glyphs(), order);
    EXPECT_EQ(cache.count, 0u);
    EXPECT_EQ(cache.entries, nullptr);
}

TEST_F(FontCache, LookupGivesTheFirstEntryWithTheWholeCode)
{
    FT_GlyphRec glyphs[4] = {};
    GlyphCacheEntry entries[] = {
        {0x131, &glyphs[0]}, {0x31, &glyphs[1]}, {0x31, &glyphs[2]}, {0xFFFFFF31, &glyphs[3]}};
    GlyphCache cache = {4, entries};

    EXPECT_EQ(font_find_glyph(&cache, 0x31), &glyphs[1]);
    EXPECT_EQ(font_find_glyph(&cache, 0x131), &glyphs[0]);
    EXPECT_EQ(font_find_glyph(&cache, 0xFFFFFF31), &glyphs[3]);
    EXPECT_EQ(font_find_glyph(&cache, 0x32), nullptr);
    cache.count = 1; // entries beyond the count do not count
    EXPECT_EQ(font_find_glyph(&cache, 0x31), nullptr);
    cache.count = 0;
    EXPECT_EQ(font_find_glyph(&cache, 0x131), nullptr);
}

TEST_F(FontCache, LookupLogsNothing)
{
    build(&engines[0]);

    const Captured captured = capture([&] {
        EXPECT_EQ(font_find_glyph(&engines[0].cache, '/'), nullptr);
        EXPECT_EQ(font_find_glyph(&engines[0].cache, 0), nullptr);
        for (size_t i = 0; i < CACHED.size(); i++)
            EXPECT_EQ(font_find_glyph(&engines[0].cache, (uint32_t)CACHED[i]),
                      engines[0].cache.entries[i].glyph);
    });

    EXPECT_EQ(captured.err + captured.out, "");
}

// ---- one glyph ---------------------------------------------------------------------------------

TEST_F(FontGetGlyph, RendersANewGlyphForTheCaller)
{
    build(&engines[0]);
    FT_Glyph glyph = nullptr;

    EXPECT_EQ(font_get_glyph(engines[0].face, '/', &glyph), STATUS_OK);

    const reference::Font font(TEST_FONT_PATH, 28);
    const FT_BitmapGlyph expected = font.render('/');
    EXPECT_TRUE(same_bitmap(*(FT_BitmapGlyph)glyph, *expected));
    FT_Done_Glyph((FT_Glyph)expected);
    FT_Done_Glyph(glyph);
}

// ---- teardown ----------------------------------------------------------------------------------

TEST_F(FontClearEngine, ReleasesGlyphsThenFaceThenLibrary)
{
    FontEngine &engine = engines[0];
    build(&engine);
    const FT_Face face = engine.face;
    std::vector<int64_t> order;
    for (uint32_t i = 0; i < engine.cache.count; i++)
        order.push_back(world::number_of(engine.cache.entries[i].glyph));
    world::clear_record();

    EXPECT_EQ(font_clear_engine(&engine), 0);

    EXPECT_EQ(released_glyphs(), order);
    std::vector<std::string> calls(65, "FT_Done_Glyph()");
    calls.push_back("FT_Done_Face()");
    calls.push_back("FT_Done_FreeType()");
    EXPECT_EQ(font_calls(), calls);
    EXPECT_EQ(engine.library, nullptr);
    EXPECT_EQ(engine.face, face); // not cleared: library alone marks an engine dead
    EXPECT_EQ(engine.cache.count, 0u);
    EXPECT_EQ(engine.cache.entries, nullptr);
    expect_nothing_left();
}

TEST_F(FontClearEngine, NullOrDeadEngineIsLoggedAndSucceeds)
{
    FontEngine dead = {};
    dead.face = (FT_Face)(uintptr_t)0x20;
    dead.cache.count = 65;

    const Captured captured = capture([&] {
        EXPECT_EQ(font_clear_engine(nullptr), 0);
        EXPECT_EQ(font_clear_engine(&dead), 0);
    });

    const std::string line = error_line("invalid param", "font_clear_engine");
    EXPECT_EQ(captured.err, line + line);
    EXPECT_EQ(dead.cache.count, 65u);
    EXPECT_TRUE(font_calls().empty());
}

TEST_F(FontClearEngine, TwiceIsHarmless)
{
    build(&engines[0]);

    const Captured captured = capture([&] {
        EXPECT_EQ(font_clear_engine(&engines[0]), 0);
        EXPECT_EQ(font_clear_engine(&engines[0]), 0);
    });

    EXPECT_EQ(captured.err, error_line("invalid param", "font_clear_engine"));
    expect_nothing_left();
}

TEST_F(FontClearEngine, ReturnsWhatFreeTypeSaysOfTheLibrary)
{
    build(&engines[0]);
    fail(world::FONT_DONE_FREETYPE);

    EXPECT_EQ(font_clear_engine(&engines[0]), world::FONT_FAILED);

    EXPECT_EQ(engines[0].library, nullptr);
}

TEST_F(FontReleaseSlot, TearsDownAnInitializedSlotOnce)
{
    DrawParams slot = {};
    slot.initialized = 1;
    build(&slot.engine);

    const Captured captured = capture([&] {
        font_release_slot(&slot);
        font_release_slot(&slot);
    });

    EXPECT_EQ(captured.err, "");
    EXPECT_EQ(slot.initialized, 0u);
    EXPECT_EQ(slot.engine.library, nullptr);
    expect_nothing_left();
}

TEST_F(FontReleaseSlot, LeavesAnUninitializedSlotAlone)
{
    DrawParams slot = {};
    build(&slot.engine);
    world::clear_record();

    font_release_slot(&slot);

    EXPECT_TRUE(font_calls().empty());
    EXPECT_NE(slot.engine.library, nullptr);
    font_clear_engine(&slot.engine);
}

TEST_F(FontReleaseSlot, SlotWithADeadEngineIsLoggedAndMarked)
{
    DrawParams slot = {};
    slot.initialized = 7;

    const Captured captured = capture([&] { font_release_slot(&slot); });

    EXPECT_EQ(captured.err, error_line("invalid param", "font_clear_engine"));
    EXPECT_EQ(slot.initialized, 0u);
}

// ---- metrics -----------------------------------------------------------------------------------

TEST_F(FontMetrics, AreThoseOfTheFaceAtItsSize)
{
    const int32_t cell_widths[] = {33, 22, 14, 7};
    const int32_t baselines[] = {-12, -8, -5, -2};
    ASSERT_EQ(osd_init_font(TEST_FONT_PATH, engines), STATUS_OK);

    for (uint32_t i = 0; i < 4; i++) {
        const reference::Font font(TEST_FONT_PATH, reference::font_pixel_size(i));
        EXPECT_EQ(font_cell_width(&engines[i]), font.cell_width());
        EXPECT_EQ(font_baseline_offset(&engines[i]), font.baseline_offset());
        EXPECT_EQ(font_cell_width(&engines[i]), cell_widths[i]);
        EXPECT_EQ(font_baseline_offset(&engines[i]), baselines[i]);
    }
}

TEST_F(FontMetrics, OfADeadEngineAreZeroWithoutReadingItsFace)
{
    FontEngine dead = {};
    EXPECT_EQ(font_cell_width(&dead), 0);
    EXPECT_EQ(font_baseline_offset(&dead), 0);

    dead.face = (FT_Face)(uintptr_t)0x20;
    EXPECT_EQ(font_cell_width(&dead), 0);
    EXPECT_EQ(font_baseline_offset(&dead), 0);
}

TEST_F(FontMetrics, DivisionTruncatesTowardZero)
{
    FT_SizeRec size = {};
    FT_FaceRec face = {};
    face.size = &size;
    FontEngine engine = {};
    engine.face = &face;
    int some_library = 0;
    engine.library = (FT_Library)&some_library; // alive; its content is not read

    const int advances[][2] = {{0, 1},     {1, 1},     {64, 1},   {65, 2},
                               {2085, 33}, {2112, 33}, {2113, 34}};
    for (const auto &[advance, pixels] : advances) {
        size.metrics.max_advance = advance;
        EXPECT_EQ(font_cell_width(&engine), pixels) << advance;
    }
    const int descenders[][2] = {{-832, -12}, {-833, -12}, {-895, -13}, {-128, -1}, {-127, -1},
                                 {-65, 0},    {-64, 0},    {-63, 0},    {-62, 1},   {0, 1}};
    for (const auto &[descender, rows] : descenders) {
        size.metrics.descender = descender;
        EXPECT_EQ(font_baseline_offset(&engine), rows) << descender;
    }
}
