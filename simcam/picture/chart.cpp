// Draws the lens chart at twice its size and halves it, which anti-aliases all of it equally.
#include "picture/chart.h"

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace simcam
{

// Units of a 1280 x 720 picture; drawn with SUB bits of fraction.
static constexpr double CHART_WIDTH = 1280.0;
static constexpr double CHART_HEIGHT = 720.0;
static constexpr int SUB = 8;
static constexpr double PI = 3.14159265358979323846;

// Light on dark with low contrast, which keeps the measurement within three digits.
static const cv::Scalar PAPER(56, 51, 47);
static const cv::Scalar INK(134, 141, 144);
static const cv::Scalar ACCENT(84, 140, 222);

struct Sheet {
    cv::Mat picture;
    double scale; // pixels for each unit
};

static cv::Point at(const Sheet &sheet, double x, double y)
{
    const double factor = sheet.scale * (1 << SUB);
    return {cvRound(x * factor), cvRound(y * factor)};
}

static void fill(const Sheet &sheet, const std::vector<cv::Point2d> &corners,
                 const cv::Scalar &color)
{
    std::vector<cv::Point> points;
    points.reserve(corners.size());
    for (const cv::Point2d &corner : corners)
        points.push_back(at(sheet, corner.x, corner.y));
    cv::fillConvexPoly(sheet.picture, points, color, cv::LINE_AA, SUB);
}

static void fill_box(const Sheet &sheet, double x, double y, double width, double height,
                     const cv::Scalar &color)
{
    fill(sheet, {{x, y}, {x + width, y}, {x + width, y + height}, {x, y + height}}, color);
}

static void fill_circle(const Sheet &sheet, double x, double y, double radius,
                        const cv::Scalar &color)
{
    cv::circle(sheet.picture, at(sheet, x, y), cvRound(radius * sheet.scale * (1 << SUB)), color,
               cv::FILLED, cv::LINE_AA, SUB);
}

static void write(const Sheet &sheet, const std::string &text, double x, double y, double height,
                  const cv::Scalar &color = INK)
{
    const double size = height * sheet.scale / 22.0; // the font's capitals are 22 pixels high
    cv::putText(sheet.picture, text, {cvRound(x * sheet.scale), cvRound(y * sheet.scale)},
                cv::FONT_HERSHEY_SIMPLEX, size, color, std::max(1, cvRound(size * 2.4)),
                cv::LINE_AA);
}

// ---- Parts of the chart -----------------------------------------------------------------------

static void draw_star(const Sheet &sheet, double x, double y, double radius, int spokes)
{
    for (int i = 0; i < spokes; i++) {
        const double from = 2 * PI * i / spokes;
        const double middle = from + PI / spokes / 2;
        const double to = from + PI / spokes;
        fill(sheet,
             {{x, y},
              {x + radius * std::cos(from), y + radius * std::sin(from)},
              {x + radius * std::cos(middle), y + radius * std::sin(middle)},
              {x + radius * std::cos(to), y + radius * std::sin(to)}},
             INK);
    }
    fill_circle(sheet, x, y, radius * 0.05, ACCENT);
}

// A slightly rotated square, as used to measure edges.
static void draw_slanted_square(const Sheet &sheet, double x, double y, double side, double degrees)
{
    const double angle = degrees * PI / 180;
    std::vector<cv::Point2d> corners;
    for (int i = 0; i < 4; i++) {
        const double direction = angle + PI / 4 + i * PI / 2;
        corners.emplace_back(x + side / std::sqrt(2.0) * std::cos(direction),
                             y + side / std::sqrt(2.0) * std::sin(direction));
    }
    fill(sheet, corners, INK);
}

static void draw_checker(const Sheet &sheet, double x, double y, int columns, int lines,
                         double side)
{
    for (int line = 0; line < lines; line++)
        for (int column = line % 2; column < columns; column += 2)
            fill_box(sheet, x + column * side, y + line * side, side, side, INK);
}

// Lines whose spacing shrinks evenly from the first to the last.
static void draw_wedge(const Sheet &sheet, double x, double y, double length, double wide,
                       double narrow)
{
    constexpr int LINES = 9;
    for (int i = 0; i < LINES; i++) {
        const double place = i - (LINES - 1) / 2.0;
        fill(sheet,
             {{x + (place - 0.25) * wide, y},
              {x + (place + 0.25) * wide, y},
              {x + (place + 0.25) * narrow, y + length},
              {x + (place - 0.25) * narrow, y + length}},
             INK);
    }
}

static void draw_text_lines(const Sheet &sheet, double x, double y)
{
    static const std::array<double, 6> heights = {22, 17, 13, 10, 8, 6.5};
    for (const double height : heights) {
        write(sheet, "FOCUS 0123", x, y + height, height);
        y += height * 1.9;
    }
}

static void draw_gray_steps(const Sheet &sheet, double x, double y, double width, double height)
{
    constexpr int STEPS = 16;
    for (int i = 0; i < STEPS; i++)
        fill_box(sheet, x + width * i / STEPS, y, width / STEPS, height,
                 cv::Scalar::all(16 + 14.0 * i));
}

static void draw_frame(const Sheet &sheet)
{
    constexpr double INSET = 20;
    constexpr double LENGTH = 60;
    constexpr double THICK = 3;
    for (const double x : {INSET, CHART_WIDTH - INSET - LENGTH})
        for (const double y : {INSET, CHART_HEIGHT - INSET - THICK})
            fill_box(sheet, x, y, LENGTH, THICK, INK);
    for (const double x : {INSET, CHART_WIDTH - INSET - THICK})
        for (const double y : {INSET, CHART_HEIGHT - INSET - LENGTH})
            fill_box(sheet, x, y, THICK, LENGTH, INK);
}

cv::Mat chart_draw(int width, int height)
{
    const Sheet sheet = {cv::Mat(height * 2, width * 2, CV_8UC3, PAPER), width * 2 / CHART_WIDTH};

    draw_frame(sheet);
    draw_star(sheet, 640, 300, 190, 20);
    for (const double x : {132.0, 1148.0})
        for (const double y : {150.0, 440.0})
            draw_slanted_square(sheet, x, y, 130, x < 640 ? 5 : -5);
    draw_wedge(sheet, 290, 84, 250, 14, 4);
    draw_checker(sheet, 224, 380, 6, 8, 15);
    draw_text_lines(sheet, 868, 84);
    draw_checker(sheet, 960, 380, 11, 14, 9);
    draw_gray_steps(sheet, 110, 664, 1060, 26);
    write(sheet, "LENS CHART", 60, 606, 16, ACCENT);
    write(sheet, "1280 x 720", 60, 634, 12);

    cv::Mat chart;
    cv::resize(sheet.picture, chart, {width, height}, 0, 0, cv::INTER_AREA);
    return chart;
}

} // namespace simcam
