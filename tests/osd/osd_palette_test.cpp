#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "difference.h"
#include "fake_codec.h"
#include "fake_files.h"
#include "osd/osd_palette.h"

using Bytes = std::vector<uint8_t>;
using FileCalls = std::vector<std::string>;

static const char PATH[] = "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt";
static const std::string OPEN = std::string("open(") + PATH + ", 0)"; // 0 is O_RDONLY

// What perror prints for PATH.
static std::string path_error(const std::string &reason)
{
    std::string line = PATH;
    line.append(": ").append(reason).append("\n");
    return line;
}

// Bytes 1, 2, 3 ..., never 0xA5.
static Bytes numbered(size_t count)
{
    Bytes bytes(count);
    for (size_t i = 0; i < count; i++)
        bytes[i] = (uint8_t)(i % 150 + 1);
    return bytes;
}

// ---- osd_open_file -----------------------------------------------------------------------------

TEST(OsdOpenFile, GivesAReadableDescriptorAndTheSize)
{
    FakeFiles files;
    files.put(PATH, {7, 8, 9});
    uint32_t size = 0xDEAD;

    const int32_t descriptor = osd_open_file(PATH, &size);

    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(files.calls, FileCalls({OPEN, "fstat"}));
    uint8_t bytes[4];
    EXPECT_EQ(read(descriptor, bytes, 4), 3);
    close(descriptor);
}

TEST(OsdOpenFile, SizeMayBeNull)
{
    FakeFiles files;
    files.put(PATH, {7, 8, 9});

    const int32_t descriptor = osd_open_file(PATH, nullptr);

    EXPECT_GE(descriptor, 0);
    close(descriptor);
}

TEST(OsdOpenFile, FailingOpenIsPrintedWithThePath)
{
    FakeFiles files;
    files.fail_open(PATH, ENOENT);
    uint32_t size = 0xDEAD;

    const Captured captured = capture([&] { EXPECT_EQ(osd_open_file(PATH, &size), -1); });

    EXPECT_EQ(captured.err, path_error("No such file or directory"));
    EXPECT_EQ(files.calls, FileCalls({OPEN}));
    EXPECT_EQ(size, 0xDEADu);
}

TEST(OsdOpenFile, FailingStatusIsPrintedBeforeTheFileIsClosed)
{
    FakeFiles files;
    files.put(PATH, {7, 8, 9});
    files.fstat_error = EIO;
    uint32_t size = 0xDEAD;

    const Captured captured = capture([&] { EXPECT_EQ(osd_open_file(PATH, &size), -1); });

    EXPECT_EQ(captured.err, "fstat: Input/output error\n");
    EXPECT_EQ(files.calls, FileCalls({OPEN, "fstat", "close"}));
    EXPECT_EQ(size, 0xDEADu);
}

// ---- osd_load_file -----------------------------------------------------------------------------

TEST(OsdLoadFile, ReadsTheWholeFileAtOnceAndClosesIt)
{
    FakeFiles files;
    files.put(PATH, {7, 8, 9});
    Bytes buffer(5, 0xA5);

    const Captured captured = capture([&] { EXPECT_EQ(osd_load_file(PATH, buffer.data(), 5), 0); });

    EXPECT_EQ(buffer, Bytes({7, 8, 9, 0xA5, 0xA5}));
    EXPECT_EQ(files.calls, FileCalls({OPEN, "fstat", "read(3)", "close"}));
    EXPECT_EQ(captured.out + captured.err, "");
}

TEST(OsdLoadFile, DescriptorZeroIsValid)
{
    FakeFiles files;
    files.put(PATH, {7, 8, 9});
    Bytes buffer(3, 0xA5);
    const int standard_input = dup(STDIN_FILENO);
    close(STDIN_FILENO);

    const int32_t result = osd_load_file(PATH, buffer.data(), 3);

    if (standard_input >= 0) {
        dup2(standard_input, STDIN_FILENO);
        close(standard_input);
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(buffer, Bytes({7, 8, 9}));
    EXPECT_EQ(files.descriptors, std::set<int>());
}

TEST(OsdLoadFile, EmptyFileLoads)
{
    FakeFiles files;
    files.put(PATH, {});
    uint8_t byte = 0xA5;

    EXPECT_EQ(osd_load_file(PATH, &byte, 0), 0);
    EXPECT_EQ(osd_load_file(PATH, &byte, 1), 0);

    EXPECT_EQ(byte, 0xA5);
}

TEST(OsdLoadFile, FileAsLongAsTheBufferLoads)
{
    FakeFiles files;
    files.put(PATH, numbered(80));
    Bytes buffer(80, 0xA5);

    EXPECT_EQ(osd_load_file(PATH, buffer.data(), 80), 0);

    EXPECT_EQ(buffer, numbered(80));
}

TEST(OsdLoadFile, FileThatCannotBeOpenedOrMeasuredIsAnError)
{
    FakeFiles files;
    uint8_t byte = 0xA5;
    files.fail_open(PATH, ENOENT);
    (void)capture([&] { EXPECT_EQ(osd_load_file(PATH, &byte, 1), -1); });

    files.put(PATH, {7});
    files.fstat_error = EIO;
    (void)capture([&] { EXPECT_EQ(osd_load_file(PATH, &byte, 1), -1); });

    EXPECT_EQ(byte, 0xA5);
}

TEST(OsdLoadFile, FailingReadIsPrintedBeforeTheFileIsClosed)
{
    FakeFiles files;
    files.put(PATH, {7});
    files.read_error = EIO;
    uint8_t byte = 0xA5;

    const Captured captured = capture([&] { EXPECT_EQ(osd_load_file(PATH, &byte, 1), -1); });

    EXPECT_EQ(captured.err, path_error("Input/output error"));
    EXPECT_EQ(files.calls, FileCalls({OPEN, "fstat", "read(1)", "close"}));
}

TEST(OsdLoadFile, SizesAreComparedUnsignedAndPrintedSigned)
{
    FakeFiles files;
    files.put(PATH, {7});
    files.fstat_size = INT32_MIN; // 0x80000000 in 32 bits
    uint8_t byte = 0xA5;

    const Captured captured =
        capture([&] { EXPECT_EQ(osd_load_file(PATH, &byte, 0x7FFFFFFF), -1); });
    EXPECT_EQ(captured.out, "size=-2147483648\nbuffer_len=2147483647\nfile too large\n");

    files.fstat_size = 1;
    EXPECT_EQ(osd_load_file(PATH, &byte, 0xFFFFFFFF), 0);
    EXPECT_EQ(byte, 7);
}

TEST(OsdLoadFile, LargeBufferLengthIsPrintedSigned)
{
    FakeFiles files;
    files.put(PATH, {7});
    files.fstat_size = -1; // 0xFFFFFFFF in 32 bits
    uint8_t byte = 0xA5;

    const Captured captured =
        capture([&] { EXPECT_EQ(osd_load_file(PATH, &byte, 0xFFFFFFFE), -1); });

    EXPECT_EQ(captured.out, "size=-1\nbuffer_len=-2\nfile too large\n");
}

// ---- osd_fill_color_mem ------------------------------------------------------------------------

// bytes with the forced bytes, as far as it has them. Entry 16 begins at byte 64, entry 17 at 68,
// entry 18 at 72, entry 19 at 76.
static Bytes with_forced_bytes(Bytes bytes)
{
    const std::pair<size_t, uint8_t> forced[] = {
        {67, 0x08}, {68, 0xEF}, {69, 0x28}, {70, 0x6D}, {72, 0x4C},
        {73, 0x54}, {74, 0xFF}, {76, 0xB2}, {77, 0xAA}, {78, 0x00},
    };
    for (const auto &[offset, value] : forced) {
        if (offset < bytes.size())
            bytes[offset] = value;
    }
    return bytes;
}

static Bytes resized(Bytes bytes, size_t size)
{
    bytes.resize(size, 0);
    return bytes;
}

// Fills size bytes of guarded memory and returns them.
static Bytes filled(uint32_t size)
{
    const GuardedMemory memory(size);
    const OsdMem mem = {memory.data(), size};
    osd_fill_color_mem(&mem);
    EXPECT_TRUE(memory.surroundings_are_whole());
    return memory.bytes();
}

TEST(OsdFillColorMem, FileOfAllEntriesIsCopiedExceptForTheForcedBytes)
{
    FakeFiles files;
    files.put(PATH, numbered(1024));

    Bytes table;

    const Captured captured = capture([&] { table = filled(1024); });

    EXPECT_EQ(table_difference(table, with_forced_bytes(numbered(1024))), "");
    EXPECT_EQ(captured.out + captured.err, "");
    EXPECT_EQ(files.calls, FileCalls({OPEN, "fstat", "read(1024)", "close"}));
}

TEST(OsdFillColorMem, EntriesBeyondTheFileAreZero)
{
    FakeFiles files;
    files.put(PATH, numbered(90));

    const Bytes table = filled(1024);

    EXPECT_EQ(table_difference(table, with_forced_bytes(resized(numbered(90), 1024))), "");
}

TEST(OsdFillColorMem, EntriesBeyondAFileOfSixteenHaveOnlyTheirForcedBytes)
{
    FakeFiles files;
    files.put(PATH, numbered(64));

    Bytes expected = numbered(64);
    expected.insert(expected.end(), {0, 0, 0, 0x08,         // 16
                                     0xEF, 0x28, 0x6D, 0,   // 17
                                     0x4C, 0x54, 0xFF, 0,   // 18
                                     0xB2, 0xAA, 0x00, 0}); // 19
    expected.resize(96, 0);
    EXPECT_EQ(table_difference(filled(96), expected), "");
}

TEST(OsdFillColorMem, EmptyFileLeavesZerosAndTheForcedBytes)
{
    FakeFiles files;
    files.put(PATH, {});

    Bytes table;

    const Captured captured = capture([&] { table = filled(1024); });

    EXPECT_EQ(table_difference(table, with_forced_bytes(Bytes(1024, 0))), "");
    EXPECT_EQ(captured.out + captured.err, "");
}
