// Tests of the test tools.

#include <cerrno>
#include <cstdio>
#include <unistd.h>

#include <gtest/gtest.h>

#include "capture.h"
#include "difference.h"
#include "fake_codec.h"
#include "guarded_memory.h"

TEST(Capture, CapturesBothStreamsAndRestoresThem)
{
    const Captured captured = capture([] {
        printf("no line end");
        fputs("E1\n", stderr);
        EXPECT_EQ(write(STDOUT_FILENO, "first", 5), 5); // printf's text is still in the buffer
    });

    EXPECT_EQ(captured.out, "firstno line end");
    EXPECT_EQ(captured.err, "E1\n");
    EXPECT_EQ(capture([] {}).out, "");
}

TEST(GuardedMemory, IsFullOfJunkAndDetectsAByteWrittenBesideIt)
{
    GuardedMemory memory(100);
    EXPECT_EQ(memory.bytes(), std::vector<uint8_t>(100, 0xA5));
    EXPECT_TRUE(memory.surroundings_are_whole());

    memory.data()[-1] = 0;

    EXPECT_FALSE(memory.surroundings_are_whole());
}

TEST(GuardedMemoryDeathTest, CrashesAtThePageBesideIt)
{
    const GuardedMemory memory(100);
    EXPECT_DEATH(memory.data()[100] = 0, "");
    const GuardedMemory front(100, Guard::BEFORE);
    EXPECT_DEATH(front.data()[-1] = 0, "");
}

TEST(FakeCodec, FailsTheCallsItWasToldTo)
{
    FakeCodec codec;
    codec.fail_nth("qm7_cl_library_init", 2, 0x81000001);

    EXPECT_EQ(qm7_cl_library_init(), 0);
    EXPECT_NE((uint32_t)errno, 0x81000001u);
    EXPECT_NE(qm7_cl_library_init(), 0);
    EXPECT_EQ((uint32_t)errno, 0x81000001u);
    EXPECT_EQ(qm7_cl_library_init(), 0);
    EXPECT_EQ(codec.calls, Calls(3, "qm7_cl_library_init()"));

    codec.fail_always("qm7_cl_library_exit", 7);
    EXPECT_NE(qm7_cl_library_exit(), 0);
    EXPECT_NE(qm7_cl_library_exit(), 0);
}

TEST(FakeCodec, NotesARecordThatWasNotZeroed)
{
    FakeCodec codec;
    OsdMem mem = {nullptr, 1};
    uint32_t osdId = 0;

    EXPECT_EQ(qm7_cl_post_get_osd_mem(7, 1, &osdId, &mem), 0);

    EXPECT_EQ(codec.calls, Calls({"qm7_cl_post_get_osd_mem(7, 1, not zeroed)"}));
}

TEST(FakeCodec, KeepsWhatWasShownWithItsPlace)
{
    FakeCodec codec;
    FakeCodec::plane(7, 1).size = 3;
    OsdMem mem = {};
    uint32_t osdId = 0;
    ASSERT_EQ(qm7_cl_post_get_osd_mem(7, 1, &osdId, &mem), 0);
    ((uint8_t *)mem.addr)[1] = 0x11;

    EXPECT_EQ(qm7_cl_post_set_osd(7, osdId, {5, 6}), 0);

    ASSERT_EQ(codec.shown.size(), 1u);
    EXPECT_EQ(codec.shown[0].number, 1);
    EXPECT_EQ(codec.shown[0].x, 5u);
    EXPECT_EQ(codec.shown[0].y, 6u);
    EXPECT_EQ(codec.shown[0].bytes, (std::vector<uint8_t>{0xA5, 0x11, 0xA5}));
    EXPECT_EQ(codec.calls[1], "qm7_cl_post_set_osd(7, 1001, {5, 6})");
}

TEST(Difference, NamesLineColumnAndIndexOfTheFirstByte)
{
    std::vector<uint8_t> expected(3 * 10, 17);
    std::vector<uint8_t> actual = expected;
    EXPECT_EQ(difference(actual, expected, 10), "");

    actual[14] = 19;
    actual[29] = 0xA5;

    EXPECT_EQ(difference(actual, expected, 10),
              "line 1, column 4: marker (19), expected box (17); 2 of 30 bytes differ");
    EXPECT_EQ(difference(actual, expected, 0),
              "byte 14: marker (19), expected box (17); 2 of 30 bytes differ");
    EXPECT_EQ(difference({actual.data(), 29}, expected, 10), "29 bytes, expected 30");
    EXPECT_EQ(differing_bytes({actual.data(), 29}, expected), 2u); // one of them is missing
}

TEST(Difference, NamesEntryAndByteOfAColorTableInHexadecimal)
{
    const std::vector<uint8_t> expected(24, 0);
    std::vector<uint8_t> actual = expected;
    EXPECT_EQ(table_difference(actual, expected), "");

    actual[18] = 0xAB;

    EXPECT_EQ(table_difference(actual, expected),
              "entry 4, byte 2: 0xAB, expected 0x00; 1 of 24 bytes differ");
}
