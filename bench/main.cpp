// What drawing costs, as a multiple of setting the same bytes in the same run: one table, with the
// pixel-by-pixel reference beside the program. Every figure is the best of several runs taken in
// random order, which reduces the influence of other load on the machine.
//
// --limits=FACTOR exits with status 1 if a line, without the time for rendering the "/", exceeds
// FACTOR times its limit. All other options belong to the benchmark library.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "allocations.h"
#include "app/display_loop.h"
#include "app/post_state.h"
#include "draw/readout.h"
#include "font/font_text.h"
#include "null_codec.h"
#include "osd/osd_session.h"
#include "reference.h"

// ---- what is measured --------------------------------------------------------------------------

static constexpr int32_t CURRENT = 72;
static constexpr int32_t PEAK = 100;
static constexpr char TEXT[] = "FOCUS ASSIST  72/100";

// A post whose planes are open.
struct Post {
    uint32_t id;
    PostState state;
    OsdRegion regions[OSD_PLANE_COUNT];
};

static void open_post(Post *post, uint32_t id, uint32_t width, uint32_t height)
{
    *post = {};
    post->id = id;
    post->state.geometry = {1, width, height};
    init_draw_param(&post->state.params, &post->state.geometry, "", 0, post->regions);
    for (uint32_t number = 0; number < 2; number++)
        osd_open_osd(id, &post->state.planes[number],
                     make_osd_open_param(number, &post->regions[number]));
}

static void clear(std::span<uint8_t> memory)
{
    memset(memory.data(), 0, memory.size());
    benchmark::DoNotOptimize(memory.data());
    benchmark::ClobberMemory();
}

static void redraw(Post *post)
{
    const DrawRect *bar = make_bar_rect(&post->regions[0], post->state.planes[0].pitch);
    if (show_bar(post->id, 0, bar, CURRENT) != 0)
        abort();
    const DrawRect *text = make_string_rect(&post->regions[1], &post->state, 1);
    if (show_string(post->id, 1, &post->state.params.engine, text, CURRENT, PEAK, CURRENT) != 0)
        abort();
    benchmark::ClobberMemory();
}

// The text with the glyphs of the cache, "/" rendered: what font_get_target_bitmap does, pixel by
// pixel.
static void paint_text_literally(std::span<uint8_t> memory, const FontEngine &engine,
                                 const DrawRect &target)
{
    reference::paint_rectangle(memory, target);
    for (int32_t i = 0; TEXT[i] != 0; i++) {
        const uint32_t code = (unsigned char)TEXT[i];
        const FT_Glyph cached = font_find_glyph(&engine.cache, code);
        FT_Glyph rendered = nullptr;
        if (!cached)
            font_get_glyph(engine.face, code, &rendered);
        const FT_BitmapGlyph glyph = (FT_BitmapGlyph)(cached ? cached : rendered);
        reference::paint_glyph(memory, target, *glyph, font_baseline_offset(&engine),
                               i * target.cell_width, false);
        FT_Done_Glyph(rendered);
    }
}

static void redraw_literally(Post *post)
{
    const std::span<uint8_t> bar = null_codec_plane(post->id, 0);
    const std::span<uint8_t> text = null_codec_plane(post->id, 1);
    clear(bar);
    reference::paint_bar(bar, *make_bar_rect(&post->regions[0], post->state.planes[0].pitch),
                         CURRENT);
    clear(text);
    paint_text_literally(text, post->state.params.engine,
                         *make_string_rect(&post->regions[1], &post->state, 1));
    benchmark::ClobberMemory();
}

static void render_slash(const FontEngine &engine)
{
    FT_Glyph glyph = nullptr;
    font_get_glyph(engine.face, '/', &glyph);
    benchmark::DoNotOptimize(glyph);
    FT_Done_Glyph(glyph);
}

// ---- table -------------------------------------------------------------------------------------

// One line of the table: an operation and what it is compared with.
struct Line {
    std::string name;
    size_t bytes; // set by memset
    double limit; // of product / memset; 0: no limit
    std::function<void()> memset;
    std::function<void()> product;
    std::function<void()> literal; // may be empty
    std::function<void()> slash;   // FreeType rendering the "/"; may be empty
};

// Keeps the best time of every benchmark.
class BestTimes : public benchmark::BenchmarkReporter
{
  public:
    bool ReportContext(const Context &) override
    {
        return true;
    }

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.run_type != Run::RT_Iteration)
                continue;
            const auto [at, is_new] = best.try_emplace(run.benchmark_name(), 1e30);
            at->second = std::min(at->second, run.GetAdjustedCPUTime());
        }
    }

    double of(const std::string &line, const std::string &part) const
    {
        for (const auto &[name, time] : best) {
            if (name.starts_with(line + "|" + part))
                return time;
        }
        return 0;
    }

  private:
    std::map<std::string, double> best; // nanoseconds
};

static void measure(const std::string &line, const std::string &part,
                    const std::function<void()> &action)
{
    if (!action)
        return;
    benchmark::RegisterBenchmark((line + "|" + part).c_str(), [action](benchmark::State &state) {
        for (auto _ : state)
            action();
    });
}

// Returns an action that copies this many bytes.
static std::function<void()> make_copy(size_t bytes)
{
    const auto source = std::make_shared<std::vector<uint8_t>>(bytes, (uint8_t)1);
    const auto target = std::make_shared<std::vector<uint8_t>>(bytes);
    return [=] {
        memcpy(target->data(), source->data(), bytes);
        benchmark::DoNotOptimize(target->data());
        benchmark::ClobberMemory();
    };
}

static long allocations_of(const std::function<void()> &action)
{
    action(); // the first call may allocate more than later ones
    const int64_t before = allocations().calls;
    action();
    return (long)(allocations().calls - before);
}

// A multiple, or a dash where nothing was measured.
static std::string multiple(double part, double whole)
{
    char text[32] = "-";
    if (part > 0)
        snprintf(text, sizeof text, "%.1f", part / whole);
    return text;
}

static bool is_over(double multiple, double limit)
{
    return limit != 0 && multiple > limit;
}

static const char *remark(double multiple, double slash, double limit)
{
    if (!is_over(multiple, limit))
        return "";
    return is_over(multiple - slash, limit) ? "  OVER" : "  over, by the \"/\"";
}

// Returns the number of lines that exceed their limit times factor.
static int print(const std::vector<Line> &lines, const BestTimes &times, double factor)
{
    int over = 0;
    printf("\nTimes are multiples of memset of the same bytes in the same run; \"/\" is the one\n"
           "character that is rendered anew each time, here by FreeType alone.\n\n"
           "%-24s %9s %5s %6s %8s %6s %8s %6s %9s %12s\n",
           "", "memset ns", "GB/s", "memcpy", "literal", "limit", "program", "\"/\"", "the rest",
           "allocations");
    for (const Line &line : lines) {
        const double base = times.of(line.name, "memset");
        const double product = times.of(line.name, "program");
        const double slash = times.of(line.name, "slash");
        if (base <= 0 || product <= 0)
            continue; // left out by a filter
        over += is_over((product - slash) / base, line.limit * factor);
        printf("%-24s %9.0f %5.0f %6s %8s %6s %8s %6s %9s %12ld%s\n", line.name.c_str(), base,
               (double)line.bytes / base, multiple(times.of(line.name, "memcpy"), base).c_str(),
               multiple(times.of(line.name, "literal"), base).c_str(),
               multiple(line.limit, 1).c_str(), multiple(product, base).c_str(),
               multiple(slash, base).c_str(), multiple(product - slash, base).c_str(),
               allocations_of(line.product), remark(product / base, slash / base, line.limit));
    }
    return over;
}

// ---- main --------------------------------------------------------------------------------------

// The bar of a post, and a filled box of the same size. limited: their limits apply.
static void add_painters(std::vector<Line> *lines, const Post *post, bool limited)
{
    const OsdRegion &region = post->regions[0];
    const std::string size = std::to_string(region.width) + "x" + std::to_string(region.height);
    DrawRect rect = *make_bar_rect(&region, post->state.planes[0].pitch);
    rect.width = rect.pitch; // the box as wide as the memory, as the bar is
    const uint32_t bytes = (uint32_t)(rect.pitch * rect.height);
    const auto memory = std::make_shared<std::vector<uint8_t>>(bytes);

    lines->push_back({"bar " + size, bytes, limited ? 3.0 : 0, [=] { clear(*memory); },
                      [=] { draw_rectangle_bitmap(memory->data(), &rect, CURRENT, bytes); },
                      [=] { reference::paint_bar(*memory, rect, CURRENT); }, nullptr});
    lines->push_back({"draw_rectangle " + size, bytes, limited ? 2.0 : 0, [=] { clear(*memory); },
                      [=] { draw_rectangle(memory->data(), &rect, bytes); },
                      [=] { reference::paint_rectangle(*memory, rect); }, nullptr});
}

// The box of the text alone, in its own buffer.
static void add_text(std::vector<Line> *lines, const std::string &name, Post *post)
{
    const DrawRect target = *make_string_rect(&post->regions[1], &post->state, 1);
    const auto memory =
        std::make_shared<std::vector<uint8_t>>((size_t)(target.pitch * target.height));
    FontEngine *engine = &post->state.params.engine;

    lines->push_back({name, memory->size(), 0, [=] { clear(*memory); },
                      [=] {
                          font_get_target_bitmap(engine, TEXT, &target, memory->data(), 0,
                                                 (uint32_t)memory->size());
                      },
                      [=] { paint_text_literally(*memory, *engine, target); },
                      [=] { render_slash(*engine); }});
}

static void add_redraw(std::vector<Line> *lines, const std::string &name, double limit, Post *post)
{
    const std::span<uint8_t> bar = null_codec_plane(post->id, 0);
    const std::span<uint8_t> text = null_codec_plane(post->id, 1);
    lines->push_back({name, bar.size() + text.size(), limit,
                      [=] {
                          clear(bar);
                          clear(text);
                      },
                      [=] { redraw(post); }, [=] { redraw_literally(post); },
                      [=] { render_slash(post->state.params.engine); }});
}

// A pass of the display thread over all posts, and what it does before its first one: four engines,
// 260 glyphs. The latter is compared with setting the bytes of the glyphs.
static void add_whole(std::vector<Line> *lines)
{
    static FocusState state;
    state.current.store(CURRENT);
    state.peak.store(PEAK);
    static DisplayState display;
    size_t bytes = 0;
    for (uint32_t p = 0; p < POST_COUNT; p++) {
        for (uint32_t j = 0; j < OSD_PLANE_COUNT; j++)
            display.posts[p].planes[j].number = j;
        osd_post_notify({0, p, p, 1});
        bytes += null_codec_plane(p, 0).size() + null_codec_plane(p, 1).size();
    }
    lines->push_back({"pass, four posts", bytes, 0,
                      [] {
                          for (uint32_t p = 0; p < POST_COUNT; p++) {
                              clear(null_codec_plane(p, 0));
                              clear(null_codec_plane(p, 1));
                          }
                      },
                      [] {
                          display_pass(&state, &display);
                          benchmark::ClobberMemory();
                      },
                      nullptr, nullptr});

    size_t glyph_bytes = 0;
    for (const FontEngine &engine : font_engines) {
        for (uint32_t i = 0; i < engine.cache.count; i++) {
            const FT_Bitmap &bitmap = ((FT_BitmapGlyph)engine.cache.entries[i].glyph)->bitmap;
            glyph_bytes += (size_t)bitmap.pitch * bitmap.rows;
        }
    }
    const auto memory = std::make_shared<std::vector<uint8_t>>(glyph_bytes);
    lines->push_back({"start-up, 260 glyphs", glyph_bytes, 0, [=] { clear(*memory); },
                      [] {
                          static FontEngine engines[RESOLUTION_COUNT];
                          if (osd_init_font(BENCH_FONT_PATH, engines) != 0)
                              abort();
                          for (FontEngine &engine : engines)
                              font_clear_engine(&engine);
                      },
                      nullptr, nullptr});
}

int main(int argc, char **argv)
{
    const struct {
        const char *name;
        uint32_t width;
        uint32_t height;
        double limit;
    } outputs[POST_COUNT] = {{"1920x1080", 1920, 1080, 6},
                             {"1280x720", 1280, 720, 8},
                             {"720x480", 720, 480, 12},
                             {"352x240", 352, 240, 16}};
    if (osd_init_font(BENCH_FONT_PATH, font_engines) != 0)
        return 1;
    Post posts[POST_COUNT];
    std::vector<Line> lines;
    for (uint32_t i = 0; i < POST_COUNT; i++) {
        null_codec_set_post(i, (uint16_t)outputs[i].width, (uint16_t)outputs[i].height);
        open_post(&posts[i], i, outputs[i].width, outputs[i].height);
        add_painters(&lines, &posts[i], i == 0);
    }
    for (uint32_t i = 0; i < POST_COUNT; i++) {
        add_text(&lines, std::string("text ") + outputs[i].name, &posts[i]);
    }
    for (uint32_t i = 0; i < POST_COUNT; i++)
        add_redraw(&lines, std::string("whole redraw ") + outputs[i].name, outputs[i].limit,
                   &posts[i]);
    add_whole(&lines);
    for (const Line &line : lines) {
        measure(line.name, "memset", line.memset);
        measure(line.name, "memcpy", make_copy(line.bytes));
        measure(line.name, "program", line.product);
        measure(line.name, "literal", line.literal);
        measure(line.name, "slash", line.slash);
    }

    // Those of the command line follow, and the last one of a name counts.
    std::vector<std::string> arguments = {argv[0], "--benchmark_repetitions=15",
                                          "--benchmark_min_time=0.01",
                                          "--benchmark_enable_random_interleaving=true"};
    double factor = 0; // 0: limits are only shown
    const std::string limits = "--limits=";
    for (const char *option : std::span(argv + 1, argv + argc)) {
        const std::string argument = option;
        if (!argument.starts_with(limits)) {
            arguments.push_back(argument);
            continue;
        }
        factor = atof(argument.c_str() + limits.size());
        if (!(factor > 0)) {
            fprintf(stderr, "%s: not a factor\n", argument.c_str());
            return 2;
        }
    }
    std::vector<char *> pointers;
    for (std::string &argument : arguments)
        pointers.push_back(argument.data());
    int count = (int)pointers.size();
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data()))
        return 2;

    BestTimes times;
    benchmark::RunSpecifiedBenchmarks(&times);
    const int over = print(lines, times, factor);
    if (over == 0)
        return 0;
    printf("%d over %g times their limit\n", over, factor);
    return 1;
}
