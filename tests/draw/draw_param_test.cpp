// Drawing parameters and regions of a post, with the engines of the real font.

#include "draw/draw_param.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "capture.h"
#include "painting.h"
#include "product_state.h"
#include "status.h"

static const std::string INVALID_RESOLUTION = error_line("invalid resolution", "init_draw_param");

// Begins with the process's four engines built, no parameters and regions full of junk.
class InitDrawParam : public testing::Test
{
  protected:
    void SetUp() override
    {
        reset_product_state();
        ASSERT_EQ(osd_init_font(TEST_FONT_PATH, font_engines), STATUS_OK);
        memset(regions, 0xA5, sizeof regions);
    }

    void TearDown() override
    {
        reset_product_state();
    }

    // Runs init_draw_param, which always returns 0. Returns what it logged.
    std::string init(uint32_t width, uint32_t height)
    {
        const PostGeometry geometry = {1, width, height};
        const Captured captured = capture([&] {
            EXPECT_EQ(init_draw_param(&params, &geometry, "/no/such/font", 99, regions), 0);
        });
        EXPECT_EQ(captured.out, "");
        return captured.err;
    }

    DrawParams params = {};
    OsdRegion regions[OSD_PLANE_COUNT];
};

TEST_F(InitDrawParam, ComputesTheTableOfTheFourWidths)
{
    const struct {
        uint32_t width, height;
        uint32_t index, font_size;
        uint16_t region_width, region_height;
        uint32_t x, y;
        int32_t cell_width;
    } table[] = {
        {1920, 1080, 0, 63, 720, 108, 600, 864, 33}, {1280, 720, 1, 42, 480, 72, 400, 576, 22},
        {720, 480, 2, 28, 280, 48, 220, 384, 14},    {720, 576, 2, 33, 280, 48, 220, 460, 14},
        {352, 240, 3, 14, 132, 24, 110, 192, 7},     {352, 288, 3, 16, 132, 24, 110, 230, 7}};
    for (const auto &row : table) {
        params = {};
        memset(regions, 0xA5, sizeof regions);

        EXPECT_EQ(init(row.width, row.height), "");

        EXPECT_EQ(params.initialized, 1u);
        EXPECT_EQ(params.font_size, row.font_size);
        EXPECT_EQ(params.cell_width, row.cell_width);
        EXPECT_EQ(memcmp(&params.engine, &font_engines[row.index], sizeof params.engine), 0);
        for (const OsdRegion &region : regions) {
            EXPECT_EQ(region.width, row.region_width);
            EXPECT_EQ(region.height, row.region_height);
            EXPECT_EQ(region.depth_code, 2u);
            EXPECT_EQ(region.x, row.x);
            EXPECT_EQ(region.y, row.y);
            EXPECT_EQ(region.color, 17u);
            EXPECT_EQ(region.resolution, row.index);
        }
    }
}

TEST_F(InitDrawParam, CellIsTheAdvanceOfTheFaceRoundedUp)
{
    init(1920, 1080);

    const FT_Pos advance = font_engines[0].face->size->metrics.max_advance;
    EXPECT_GE(params.cell_width * 64, advance);
    EXPECT_LT((params.cell_width - 1) * 64, advance);
}

TEST_F(InitDrawParam, PlaceIsComputedIn32BitsUnsigned)
{
    init(720, 0);
    EXPECT_EQ(regions[0].y, 0u);

    params = {};
    init(720, 0x40000002); // times 4 is 8 in 32 bits
    EXPECT_EQ(regions[0].y, 1u);

    params = {};
    regions[0].width = 132;
    init(100, 240); // no such resolution: the region keeps its width, and x wraps
    EXPECT_EQ(regions[0].x, (0u - 32) / 2);
}

TEST_F(InitDrawParam, SecondCallChangesNothing)
{
    init(1920, 1080);
    const DrawParams params_before = params;
    memset(regions, 0x5A, sizeof regions);
    OsdRegion regions_before[OSD_PLANE_COUNT];
    memcpy(regions_before, regions, sizeof regions);

    EXPECT_EQ(init(352, 240), "");
    EXPECT_EQ(init(640, 480), "");

    EXPECT_EQ(memcmp(&params, &params_before, sizeof params), 0);
    EXPECT_EQ(memcmp(regions, regions_before, sizeof regions), 0);
}

TEST_F(InitDrawParam, AnyNonzeroFlagCountsAsInitialized)
{
    params.initialized = 0x80000000;

    EXPECT_EQ(init(640, 480), "");

    EXPECT_EQ(params.initialized, 0x80000000);
    EXPECT_EQ(params.font_size, 0u);
}

TEST_F(InitDrawParam, UnknownWidthIsLoggedOnceAndLeavesSizesAsTheyWere)
{
    for (const uint32_t width : {0u, 351u, 353u, 640u, 704u, 719u, 1919u, 1921u, 65536u + 720u}) {
        params = {};
        for (OsdRegion &region : regions) {
            region = {};
            region.width = 300;
            region.height = 40;
        }

        EXPECT_EQ(init(width, 480), INVALID_RESOLUTION) << width;
        EXPECT_EQ(init(width, 480), "") << width;

        EXPECT_EQ(params.initialized, 1u);
        EXPECT_EQ(params.font_size, 28u);
        EXPECT_EQ(params.cell_width, 0); // no face to take it from
        EXPECT_EQ(params.engine.library, nullptr);
        EXPECT_EQ(params.engine.face, nullptr);
        EXPECT_EQ(params.engine.cache.count, 0u);
        for (const OsdRegion &region : regions) {
            EXPECT_EQ(region.width, 300);
            EXPECT_EQ(region.height, 40);
            EXPECT_EQ(region.depth_code, 2u);
            EXPECT_EQ(region.color, 17u);
            EXPECT_EQ(region.resolution, 4u);
            EXPECT_EQ(region.x, (width - 300) / 2);
            EXPECT_EQ(region.y, 384u);
        }
    }
}

TEST_F(InitDrawParam, UnknownWidthKeepsTheEngineAndItsCell)
{
    params.engine = font_engines[1];

    EXPECT_EQ(init(640, 480), INVALID_RESOLUTION);

    EXPECT_EQ(params.cell_width, 22);
    EXPECT_EQ(memcmp(&params.engine, &font_engines[1], sizeof params.engine), 0);
}

TEST_F(InitDrawParam, DeadEngineGivesNoCellAndIsNotRead)
{
    reset_product_state(); // no engine is alive
    for (FontEngine &engine : font_engines)
        engine.face = (FT_Face)(uintptr_t)0x20; // what teardown leaves

    for (const uint32_t width : {1920u, 1280u, 720u, 352u}) {
        params = {};
        EXPECT_EQ(init(width, 240), "");
        EXPECT_EQ(params.initialized, 1u);
        EXPECT_EQ(params.cell_width, 0);
        EXPECT_EQ(params.engine.library, nullptr);
    }
}

TEST_F(InitDrawParam, PathAndSpareAreIgnored)
{
    const PostGeometry geometry = {0, 352, 240}; // valid is not looked at either

    EXPECT_EQ(init_draw_param(&params, &geometry, nullptr, 0xFFFFFFFF, regions), 0);

    EXPECT_EQ(params.initialized, 1u);
    EXPECT_EQ(params.cell_width, 7);
}

// ---- regions and requests ----------------------------------------------------------------------

TEST(InitOsdRegion, SetsSizeDepthAndColorOnly)
{
    const uint16_t sizes[4][2] = {{720, 108}, {480, 72}, {280, 48}, {132, 24}};
    for (uint32_t index = 0; index < 4; index++) {
        OsdRegion region;
        memset(&region, 0xA5, sizeof region);

        init_osd_region(&region, index);

        EXPECT_EQ(region.width, sizes[index][0]);
        EXPECT_EQ(region.height, sizes[index][1]);
        EXPECT_EQ(region.depth_code, 2u);
        EXPECT_EQ(region.color, 17u);
        EXPECT_EQ(region.x, 0xA5A5A5A5);
        EXPECT_EQ(region.y, 0xA5A5A5A5);
        EXPECT_EQ(region.resolution, 0xA5A5A5A5);
    }
}

TEST(InitOsdRegion, UnknownIndexKeepsTheSize)
{
    for (const uint32_t index : {4u, 5u, 0x80000000u, 0xFFFFFFFFu}) {
        OsdRegion region;
        memset(&region, 0xA5, sizeof region);

        init_osd_region(&region, index);

        EXPECT_EQ(region.width, 0xA5A5);
        EXPECT_EQ(region.height, 0xA5A5);
        EXPECT_EQ(region.depth_code, 2u);
        EXPECT_EQ(region.color, 17u);
    }
}

TEST(MakeOsdOpenParam, CopiesNumberSizeAndDepthCodeUnchecked)
{
    const OsdRegion region = {65535, 1, 7, 2, 3, 4, 5};

    const OsdOpenParam *param = make_osd_open_param(77, &region);

    EXPECT_EQ(param->number, 77u);
    EXPECT_EQ(param->width, 65535);
    EXPECT_EQ(param->height, 1);
    EXPECT_EQ(param->depth_code, 7u);
}

TEST(MakeOsdOpenParam, ReturnsOneSharedRecord)
{
    const OsdRegion text = {280, 48, 2, 0, 0, 17, 2};
    const OsdRegion bar = {132, 24, 1, 0, 0, 17, 3};

    const OsdOpenParam *first = make_osd_open_param(1, &text);
    const OsdOpenParam *second = make_osd_open_param(0, &bar);

    EXPECT_EQ(first, second);
    EXPECT_EQ(first->number, 0u);
    EXPECT_EQ(first->width, 132);
    EXPECT_EQ(first->height, 24);
    EXPECT_EQ(first->depth_code, 1u);
}
