// What drawing costs, as a multiple of setting the same bytes in the same run: one table, with the
// pixel-by-pixel reference beside the program. Every figure is the best of several runs taken in
// random order, so that what else the machine does counts little.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "app/post_state.h"
#include "draw/readout.h"
#include "font/font_text.h"
#include "reference.h"

// ---- allocations -------------------------------------------------------------------------------

static long allocations; // of the whole process, FreeType's too

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *memory, size_t size);

void *malloc(size_t size)
{
    allocations++;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    allocations++;
    return __libc_calloc(count, size);
}

void *realloc(void *memory, size_t size)
{
    allocations++;
    return __libc_realloc(memory, size);
}
}

// ---- a codec library that hands out the same memory for ever -----------------------------------

static std::vector<uint8_t> plane_memory[POST_COUNT][2]; // by resource id and OSD number

extern "C" {

int32_t qm7_cl_post_open_osd(uint32_t postResId, const OsdOpenParam *param, uint32_t *,
                             uint32_t *pitch)
{
    *pitch = (param->width + 15u) / 16 * 16;
    plane_memory[postResId][param->number].assign(*pitch * param->height, 0);
    return 0;
}

int32_t qm7_cl_post_clear_osd(uint32_t, uint32_t)
{
    return 0;
}

int32_t qm7_cl_post_close_osd(uint32_t, uint32_t)
{
    return 0;
}

int32_t qm7_cl_post_get_osd_mem(uint32_t postResId, int32_t number, uint32_t *osdId, OsdMem *mem)
{
    std::vector<uint8_t> &memory = plane_memory[postResId][number];
    *osdId = (uint32_t)number;
    mem->addr = memory.data();
    mem->size = (uint32_t)memory.size();
    return 0;
}

int32_t qm7_cl_post_set_osd(uint32_t, uint32_t, OsdPosition)
{
    benchmark::ClobberMemory();
    return 0;
}

} // extern "C"

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

static void clear(std::vector<uint8_t> &memory)
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
}

// The text with the glyphs of the cache, "/" rendered: what font_get_target_bitmap does, pixel by
// pixel.
static void paint_text_literally(std::vector<uint8_t> &memory, const FontEngine &engine,
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
    auto &memory = plane_memory[post->id];
    clear(memory[0]);
    reference::paint_bar(memory[0], *make_bar_rect(&post->regions[0], post->state.planes[0].pitch),
                         CURRENT);
    clear(memory[1]);
    paint_text_literally(memory[1], post->state.params.engine,
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
    size_t bytes; // that memset sets
    double limit; // of product / memset; 0: none
    std::function<void()> memset;
    std::function<void()> product;
    std::function<void()> literal; // may be empty
    std::function<void()> slash;   // the part that is FreeType's, may be empty
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

static long allocations_of(const std::function<void()> &action)
{
    action(); // what is made once
    const long before = allocations;
    action();
    return allocations - before;
}

// A multiple, or a dash where nothing was measured.
static std::string multiple(double part, double whole)
{
    char text[32] = "-";
    if (part > 0)
        snprintf(text, sizeof text, "%.1f", part / whole);
    return text;
}

static const char *remark(double multiple, double slash, double limit)
{
    if (limit == 0 || multiple <= limit)
        return "";
    return multiple - slash <= limit ? "  over, by the \"/\"" : "  OVER";
}

static void print(const std::vector<Line> &lines, const BestTimes &times)
{
    printf("\nTimes are multiples of memset of the same bytes in the same run; \"/\" is the one\n"
           "character that is rendered anew each time, here by FreeType alone.\n\n"
           "%-24s %9s %5s %8s %6s %8s %6s %9s %12s\n",
           "", "memset ns", "GB/s", "literal", "limit", "program", "\"/\"", "the rest",
           "allocations");
    for (const Line &line : lines) {
        const double base = times.of(line.name, "memset");
        const double product = times.of(line.name, "program");
        const double slash = times.of(line.name, "slash");
        if (base <= 0 || product <= 0)
            continue; // left out by a filter
        printf("%-24s %9.0f %5.0f %8s %6s %8s %6s %9s %12ld%s\n", line.name.c_str(), base,
               (double)line.bytes / base, multiple(times.of(line.name, "literal"), base).c_str(),
               multiple(line.limit, 1).c_str(), multiple(product, base).c_str(),
               multiple(slash, base).c_str(), multiple(product - slash, base).c_str(),
               allocations_of(line.product), remark(product / base, slash / base, line.limit));
    }
}

// ---- main --------------------------------------------------------------------------------------

static void add_painters(std::vector<Line> *lines)
{
    static std::vector<uint8_t> memory(720 * 108);
    static DrawRect rect = {};
    rect.width = 720;
    rect.height = 108;
    rect.depth = 8;
    rect.bg_color = 17;
    rect.pitch = 720;
    const uint32_t size = (uint32_t)memory.size();

    lines->push_back({"bar 720x108", size, 3, [] { clear(memory); },
                      [size] { draw_rectangle_bitmap(memory.data(), &rect, CURRENT, size); },
                      [] { reference::paint_bar(memory, rect, CURRENT); }, nullptr});
    lines->push_back({"draw_rectangle 720x108", size, 2, [] { clear(memory); },
                      [size] { draw_rectangle(memory.data(), &rect, size); },
                      [] { reference::paint_rectangle(memory, rect); }, nullptr});
}

// The text's box alone, in a buffer of its own.
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
    const size_t bytes = plane_memory[post->id][0].size() + plane_memory[post->id][1].size();
    lines->push_back({name, bytes, limit,
                      [=] {
                          clear(plane_memory[post->id][0]);
                          clear(plane_memory[post->id][1]);
                      },
                      [=] { redraw(post); }, [=] { redraw_literally(post); },
                      [=] { render_slash(post->state.params.engine); }});
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
    add_painters(&lines);
    for (uint32_t i = 0; i < POST_COUNT; i++) {
        open_post(&posts[i], i, outputs[i].width, outputs[i].height);
        add_text(&lines, std::string("text ") + outputs[i].name, &posts[i]);
    }
    for (uint32_t i = 0; i < POST_COUNT; i++)
        add_redraw(&lines, std::string("whole redraw ") + outputs[i].name, outputs[i].limit,
                   &posts[i]);
    for (const Line &line : lines) {
        measure(line.name, "memset", line.memset);
        measure(line.name, "program", line.product);
        measure(line.name, "literal", line.literal);
        measure(line.name, "slash", line.slash);
    }

    // Arguments of the command line stand last and win.
    std::vector<std::string> arguments = {argv[0], "--benchmark_repetitions=15",
                                          "--benchmark_min_time=0.01",
                                          "--benchmark_enable_random_interleaving=true"};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    std::vector<char *> pointers;
    for (std::string &argument : arguments)
        pointers.push_back(argument.data());
    int count = (int)pointers.size();
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data()))
        return 2;

    BestTimes times;
    benchmark::RunSpecifiedBenchmarks(&times);
    print(lines, times);
    return 0;
}
