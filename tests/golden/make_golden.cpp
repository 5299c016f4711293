// Writes the images of this folder, drawn by the pixel-by-pixel reference, never by the program.
// Build the target make_golden, run it with this folder as its argument, and look at the changes
// before you commit them.

#include <cstdio>
#include <string>

#include "golden.h"
#include "picture.h"
#include "reference.h"

int main(int argc, char **argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: make_golden FOLDER\n");
        return 2;
    }
    const std::string folder = std::string(argv[1]) + "/";
    for (const GoldenOutput &output : GOLDEN_OUTPUTS) {
        for (const GoldenValues &values : GOLDEN_VALUES) {
            const uint32_t index = reference::resolution_index(output.width);
            const uint32_t pitch = (reference::region_width(index) + 15) / 16 * 16;
            const reference::Plane bar =
                reference::bar_plane(output.width, output.height, pitch, values.percent);
            write_image(folder + golden_bar_name(output, values) + ".png", bar.bytes, pitch);

            const reference::Plane text =
                reference::text_plane(output.width, output.height, pitch, TEST_FONT_PATH,
                                      values.text, values.percent >= 85);
            write_image(folder + golden_text_name(output, values, golden_freetype_version()) +
                            ".png",
                        text.bytes, pitch);
        }
    }
    return 0;
}
