"""tools/focus-palette, and the color table that is installed: palette_test.py SOURCE IMAGE"""
import importlib.machinery
import importlib.util
import os
import random
import struct
import subprocess
import sys
import tempfile
import unittest
import zlib

sys.dont_write_bytecode = True  # nothing beside the sources
PROGRAM = TABLE = IMAGE = palette = None


def plain_table(color="#808080"):
    """256 lines; line i + 1 is entry i, all of one color."""
    return "".join("%d name-%d %s 8\n" % (i, i, color) for i in range(256))


def with_line(number, line):
    lines = plain_table().split("\n")
    lines[number - 1] = line
    return "\n".join(lines)


class Color(unittest.TestCase):
    def test_primaries_have_their_full_range_bytes(self):
        for rgb, ycc in (((0, 0, 0), (0, 128, 128)), ((255, 255, 255), (255, 128, 128)),
                         ((255, 0, 0), (76, 85, 255)), ((0, 255, 0), (150, 44, 21)),
                         ((0, 0, 255), (29, 255, 107))):
            self.assertEqual(palette.ycc_of(rgb), ycc)

    def test_bytes_outside_the_rgb_cube_are_clipped(self):
        # red 239 - 1.402 * 19, green 282.9, blue 239 - 1.772 * 88
        self.assertEqual(palette.rgb_of((0xEF, 0x28, 0x6D)), (212, 255, 83))


class Table(unittest.TestCase):
    def assert_refused(self, text, line, reason):
        with self.assertRaises(palette.Refusal) as caught:
            palette.parse_table(text)
        self.assertEqual((caught.exception.line, caught.exception.reason), (line, reason))

    def test_an_entry_is_read_with_all_its_columns(self):
        entry = palette.parse_table(with_line(18, " 17\tbox  ycc:EF286d  7   text box, and more \r"))[17]
        self.assertEqual((entry.name, entry.ycc, entry.opacity, entry.use, entry.line),
                         ("box", (0xEF, 0x28, 0x6D), 7, "text box, and more", 18))

    def test_comments_and_blank_lines_count_as_lines_only(self):
        self.assertEqual(palette.parse_table("# head\n\n#\n  \n" + plain_table())[0].line, 5)

    def test_the_last_line_needs_no_line_end(self):
        self.assertEqual(len(palette.parse_table(plain_table()[:-1])), 256)

    def test_bad_input_is_refused_with_line_and_reason(self):
        for index in ("x", "256", "-1", "\u0662"):
            self.assert_refused(with_line(3, index + " name #000000 8"), 3,
                                "index '%s' is not a number from 0 to 255" % index)
        self.assert_refused(with_line(3, "4 name #000000 8"), 3,
                            "index 4 where 2 was expected: every index once, in order")
        self.assert_refused(with_line(3, "2"), 3, "the name is missing")
        self.assert_refused(with_line(3, "2 name"), 3, "the color is missing")
        for color in ("#00000", "#0000000", "#00000G", "#-00001", "ycc:0000", "red", "0x1234"):
            self.assert_refused(with_line(3, "2 name %s 8" % color), 3,
                                "color '%s' is neither #RRGGBB nor ycc:YYBBRR" % color)
        self.assert_refused(with_line(3, "2 name #000000"), 3, "the opacity is missing")
        for opacity in ("256", "-1", "8x", "99999999999"):
            self.assert_refused(with_line(3, "2 name #000000 " + opacity), 3,
                                "opacity '%s' is not a number from 0 to 255 (8 is opaque)" % opacity)

    def test_too_few_and_too_many_entries_are_refused(self):
        self.assert_refused("", 0, "the table ends before entry 0; it must have all 256")
        self.assert_refused("0 clear #000000 0\n", 1,
                            "the table ends before entry 1; it must have all 256")
        self.assert_refused(plain_table() + "256 name #000000 8\n", 257, "more than 256 entries")


class Image(unittest.TestCase):
    def test_an_entry_is_four_bytes_at_four_times_its_index(self):
        image = palette.pack(palette.parse_table(with_line(18, "17 box ycc:EF286D 9")))
        self.assertEqual(len(image), 1024)
        self.assertEqual(image[68:72], bytes((0xEF, 0x28, 0x6D, 9)))

    def test_a_short_image_leaves_the_rest_zero(self):
        table = palette.unpack(bytes(range(1, 9)))
        self.assertEqual((table[1].ycc, table[1].opacity), ((5, 6, 7), 8))
        self.assertEqual((table[2].ycc, table[2].opacity), ((0, 0, 0), 0))

    def test_sizes_that_no_table_has_are_refused(self):
        for size, reason in ((1028, "1028 bytes; a color table has at most 1024"),
                             (7, "7 bytes end in the middle of an entry of 4 bytes")):
            with self.assertRaises(palette.Refusal) as caught:
                palette.unpack(bytes(size))
            self.assertEqual(caught.exception.reason, reason)

    def test_every_byte_survives_the_way_through_the_table(self):
        numbers = random.Random(1)
        for _ in range(20):
            image = bytes(numbers.randrange(256) for _ in range(1024))
            text = palette.format_table(palette.unpack(image))
            self.assertEqual(palette.pack(palette.parse_table(text)), image)

    def test_colors_of_the_rgb_cube_are_written_as_such(self):
        text = palette.format_table(palette.unpack(bytes((76, 85, 255, 8, 0xEF, 0x28, 0x6D, 8))))
        self.assertIn("\n  0  clear            #FE0000     8  cleared", text)
        self.assertIn("\n  1  entry-1          ycc:EF286D  8\n", text)


class Check(unittest.TestCase):
    def setUp(self):
        self.table = palette.unpack(b"")
        for index, ycc, opacity in ((0, (0, 128, 128), 0), (11, (0, 128, 128), 8),
                                    (16, (0, 128, 128), 8), (17, (0xEF, 0x28, 0x6D), 8),
                                    (18, (0x4C, 0x54, 0xFF), 8), (19, (0xB2, 0xAA, 0x00), 8),
                                    (20, (0, 128, 128), 8)):
            self.table[index] = palette.Entry("e", ycc, opacity)

    def complaints(self):
        return [text for good, _, text in palette.check(self.table) if not good]

    def test_contrast_is_one_to_twenty_one(self):
        white = (255, 255, 255)
        self.assertAlmostEqual(palette.contrast_ratio((0, 0, 0), white), 21)
        self.assertAlmostEqual(palette.contrast_ratio((9, 9, 9), (9, 9, 9)), 1)
        # 0x77 gray on white is the well-known pair just short of 4.5, 0x76 the one just above.
        self.assertAlmostEqual(palette.contrast_ratio((0x77,) * 3, white), 4.478, delta=0.001)
        self.assertAlmostEqual(palette.contrast_ratio((0x76,) * 3, white), 4.542, delta=0.001)

    def test_color_difference_of_known_pairs(self):
        self.assertAlmostEqual(palette.color_difference((0, 0, 0), (255, 255, 255)), 100, delta=0.01)
        # Red is L 53.24, a 80.09, b 67.20 and green L 87.73, a -86.18, b 83.18 under D65.
        self.assertAlmostEqual(palette.color_difference((255, 0, 0), (0, 255, 0)), 170.6, delta=0.1)

    def test_a_legible_table_has_no_complaint(self):
        self.assertEqual(self.complaints(), [], "the cyan marker passes by its color alone")

    def test_each_forced_byte_is_compared_with_the_program(self):
        self.table[16].opacity = 9
        self.table[17].ycc = (0xEE, 0x28, 0x6D)
        self.table[18].ycc = (0x4C, 0x55, 0xFF)
        self.table[19].ycc = (0xB2, 0xAA, 0x01)
        self.assertEqual(self.complaints(),
                         ["entry 16 (e): byte 3 is 09, the overlay process writes 08",
                          "entry 17 (e): byte 0 is EE, the overlay process writes EF",
                          "entry 18 (e): byte 1 is 55, the overlay process writes 54",
                          "entry 19 (e): byte 2 is 01, the overlay process writes 00"])

    def test_the_readout_must_cover_and_cleared_memory_must_not(self):
        self.table[0].opacity = 1
        self.table[17].opacity = 7
        self.table[20].opacity = 0
        self.assertEqual(self.complaints(),
                         ["entry 0 (e): opacity 1, must be 0: cleared memory must let the picture "
                          "through",
                          "entry 17 (e): opacity 7, must be 8: it must cover the picture",
                          "entry 20 (e): opacity 0, must be 8: it must cover the picture"])

    def test_pale_text_is_refused_both_times(self):
        self.table[16].ycc = self.table[20].ycc = (255, 128, 128)  # white on the pale box
        first, second = self.complaints()
        self.assertRegex(first, "^entry 16 .*contrast 1.15 .*must have a contrast of 4.5$")
        self.assertRegex(second, "^entry 20 ")

    def test_a_painted_area_needs_contrast_or_another_color(self):
        self.table[11].ycc = (230, 60, 110)  # nearly the box
        complaint, = self.complaints()
        self.assertRegex(complaint, "must have a contrast of 3.0 or a difference of 40$")


def read_png(png):
    """Rows of a PNG picture, each a list of (r, g, b): 8-bit RGB without filters only."""
    assert png[:8] == b"\x89PNG\r\n\x1a\n"
    at, chunks = 8, {}
    while at < len(png):
        length, kind = struct.unpack(">I4s", png[at:at + 8])
        data, crc = png[at + 8:at + 8 + length], png[at + 8 + length:at + 12 + length]
        assert struct.unpack(">I", crc)[0] == zlib.crc32(kind + data), kind
        chunks[kind] = data
        at += 12 + length
    assert list(chunks) == [b"IHDR", b"IDAT", b"IEND"]
    width, height = struct.unpack(">II", chunks[b"IHDR"][:8])
    assert chunks[b"IHDR"][8:] == bytes((8, 2, 0, 0, 0))
    lines = zlib.decompress(chunks[b"IDAT"])
    assert len(lines) == height * (1 + 3 * width)
    rows = [lines[i:i + 1 + 3 * width] for i in range(0, len(lines), 1 + 3 * width)]
    assert all(row[0] == 0 for row in rows)
    return [[tuple(row[i:i + 3]) for i in range(1, len(row), 3)] for row in rows]


class Swatch(unittest.TestCase):
    def setUp(self):
        self.table = palette.unpack(b"")

    def picture(self):
        rows = read_png(palette.swatch_png(self.table))
        self.assertEqual((len(rows), {len(row) for row in rows}), (640, {640}))
        return rows

    def test_a_cell_shows_the_color_of_its_entry(self):
        self.table[17] = palette.Entry("e", (0xEF, 0x28, 0x6D), 8)
        self.table[255] = palette.Entry("e", (255, 128, 128), 200)  # more than opaque is opaque
        rows = self.picture()
        self.assertEqual(rows[40 + 39][40 + 39], (212, 255, 83))
        self.assertEqual(rows[639][639], (255, 255, 255))

    def test_the_ground_shows_through_by_the_opacity(self):
        self.table[0] = palette.Entry("e", (0, 128, 128), 0)
        self.table[1] = palette.Entry("e", (0, 128, 128), 4)
        rows = self.picture()
        self.assertEqual(rows[32][32], (0x60,) * 3)
        self.assertEqual(rows[31][39], (0xC0,) * 3)
        self.assertEqual(rows[32][72], (0x60,) * 3)
        self.assertEqual(rows[31][72], (0x30,) * 3)

    def test_the_index_is_written_into_the_cell(self):
        self.table = [palette.Entry("e", (255, 128, 128), 8) for _ in range(256)]
        rows = self.picture()
        # Entry 17: a digit pixel is 2 by 2, the number begins 3 pixels from the corner of the cell.
        drawn = ["".join("#" if rows[43 + 2 * y][43 + 2 * x] == (0, 0, 0) else "." for x in range(7))
                 for y in range(5)]
        self.assertEqual(drawn, [".#..###",
                                 "##....#",
                                 ".#....#",
                                 ".#....#",
                                 "###...#"])


class Program(unittest.TestCase):
    def setUp(self):
        box = tempfile.TemporaryDirectory()
        self.addCleanup(box.cleanup)
        self.box = box.name

    def run_program(self, *words):
        done = subprocess.run([sys.executable, PROGRAM, *words], cwd=self.box, encoding="utf-8",
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        return done.returncode, done.stdout, done.stderr

    def write(self, name, text):
        with open(os.path.join(self.box, name), "w") as file:
            file.write(text)

    def read(self, path):
        with open(os.path.join(self.box, path), "rb") as file:
            return file.read()

    def test_the_installed_image_holds_what_the_readout_needs(self):
        image = self.read(IMAGE)
        self.assertEqual(len(image), 1024)
        entries = [tuple(image[i:i + 4]) for i in range(0, 1024, 4)]
        self.assertEqual([entries[i][3] for i in (0, 11, 16, 20)], [0, 8, 8, 8])
        self.assertEqual(entries[17:20], [(0xEF, 0x28, 0x6D, 8), (0x4C, 0x54, 0xFF, 8),
                                          (0xB2, 0xAA, 0x00, 8)])

    def test_the_shipped_table_passes_the_check(self):
        status, out, err = self.run_program("check", TABLE)
        self.assertEqual((status, err), (0, ""))
        for text in ("entry 16 (text): contrast 18.23 on entry 17",
                     "entry 18 (bar-fill): contrast 3.50 on entry 17",
                     "entry 19 (bar-marker): contrast 1.09 on entry 17"):
            self.assertIn(text, out)

    def test_the_installed_image_goes_to_a_table_and_back(self):
        self.assertEqual(self.run_program("unpack", IMAGE, "table.txt"), (0, "", ""))
        self.assertEqual(self.run_program("pack", "table.txt", "again.plt"), (0, "", ""))
        self.assertEqual(self.read("again.plt"), self.read(IMAGE))

    def test_a_bad_table_is_named_with_file_line_and_reason(self):
        self.write("bad.txt", "# a table\n0 clear #00000 0\n")
        self.write("old.plt", "an older image")
        self.assertEqual(self.run_program("pack", "bad.txt", "old.plt"),
                         (1, "", "bad.txt:2: color '#00000' is neither #RRGGBB nor ycc:YYBBRR\n"))
        self.assertEqual(self.read("old.plt"), b"an older image")

    def test_an_illegible_table_is_named_with_the_line_of_the_entry(self):
        text = self.read(TABLE).decode()
        line = text[:text.index(" 20  text-highlight")].count("\n") + 1
        self.write("pale.txt", text.replace("#B00040", "#E0E0E0"))
        status, _, err = self.run_program("check", "pale.txt")
        self.assertEqual(status, 1)
        self.assertTrue(err.startswith("pale.txt:%d: entry 20 (text-highlight): contrast 1." % line), err)

    def test_files_that_cannot_be_read_or_written_are_named(self):
        for words, err in ((("check", "missing.plt"), "missing.plt: No such file or directory\n"),
                           (("unpack", IMAGE, "no/such/folder.txt"),
                            "no/such/folder.txt: No such file or directory\n"),
                           (("check", "."), ".: Is a directory\n"),
                           (("unpack", IMAGE, "/dev/full"), "/dev/full: No space left on device\n")):
            self.assertEqual(self.run_program(*words), (1, "", err))
        self.assertEqual(os.listdir(self.box), [])

    def test_a_swatch_is_a_png_file(self):
        self.assertEqual(self.run_program("swatch", TABLE, "swatch.png"), (0, "", ""))
        read_png(self.read("swatch.png"))

    def test_wrong_usage_is_answered_with_the_usage(self):
        for words in ((), ("pack",), ("pack", "a"), ("check",), ("check", "a", "b"), ("paint", "a", "b")):
            status, _, err = self.run_program(*words)
            self.assertEqual(status, 2, words)
            self.assertTrue(err.startswith("usage: focus-palette pack TABLE IMAGE"), err)
        self.assertEqual(self.run_program("--help")[0], 0)


if __name__ == "__main__":
    SOURCE, IMAGE = sys.argv[1:3]
    PROGRAM = SOURCE + "/tools/focus-palette"
    TABLE = SOURCE + "/data/osd_def_color.txt"
    loader = importlib.machinery.SourceFileLoader("focus_palette", PROGRAM)
    palette = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(palette)
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
