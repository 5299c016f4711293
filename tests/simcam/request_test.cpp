// Decoding packets: which are accepted as requests and which are refused.

#include <cstring>
#include <gtest/gtest.h>

#include "link/request.h"

using namespace simcam;

static std::vector<uint8_t> packet(uint32_t version, uint32_t call, size_t payload)
{
    const uint32_t words[3] = {version, call, 77};
    std::vector<uint8_t> bytes(sizeof words + payload, 0x5A);
    std::memcpy(bytes.data(), words, sizeof words);
    return bytes;
}

static bool decodes(const std::vector<uint8_t> &bytes)
{
    Request request;
    return request_decode(bytes.data(), bytes.size(), &request);
}

TEST(Request, EveryCallIsAcceptedOnlyAtItsSize)
{
    // In the order of WireCall: bytes after the header.
    const size_t sizes[] = {0, 0, 0, 0, 4, 4, 0, 0, 4, 16, 8, 8, 8, 12, 0, 92, 0};

    for (uint32_t call = 1; call <= std::size(sizes); call++) {
        const size_t size = sizes[call - 1];
        EXPECT_TRUE(decodes(packet(WIRE_VERSION, call, size))) << call;
        EXPECT_FALSE(decodes(packet(WIRE_VERSION, call, size + 1))) << call;
        if (size) {
            EXPECT_FALSE(decodes(packet(WIRE_VERSION, call, size - 1))) << call;
        }
    }
    EXPECT_EQ(std::size(sizes) + 1, size_t{WIRE_CALL_END});
}

TEST(Request, UnknownVersionsAndCallsAreRefused)
{
    EXPECT_FALSE(decodes(packet(WIRE_VERSION + 1, WIRE_LIBRARY_INIT, 0)));
    EXPECT_FALSE(decodes(packet(WIRE_VERSION, 0, 0)));
    EXPECT_FALSE(decodes(packet(WIRE_VERSION, WIRE_CALL_END, 0)));
    EXPECT_FALSE(decodes(packet(WIRE_VERSION, 0xFFFFFFFF, 0)));
}

TEST(Request, EveryLengthShorterThanAHeaderIsRefused)
{
    const auto whole = packet(WIRE_VERSION, WIRE_LIBRARY_INIT, 0);
    for (size_t size = 0; size < whole.size(); size++)
        EXPECT_FALSE(decodes({whole.begin(), whole.begin() + static_cast<long>(size)})) << size;
}

TEST(Request, EveryNameFindsItsCall)
{
    const auto names = request_names();
    ASSERT_EQ(names.size(), size_t{WIRE_CALL_END} - 1);
    for (uint32_t call = 1; call < WIRE_CALL_END; call++)
        EXPECT_EQ(request_call(names[call - 1]), call);
    EXPECT_EQ(request_call("qm7_cl_post_set_osd"), uint32_t{WIRE_POST_SET_OSD});
    EXPECT_EQ(request_call("CAM_FOCUS_READ"), uint32_t{WIRE_FOCUS_READ});
    EXPECT_EQ(request_call(""), 0u);
    EXPECT_EQ(request_call("read"), 0u);
}

TEST(Request, ArgumentsAreShownAsTheCallNamesThem)
{
    Request request;
    request.header = {WIRE_VERSION, WIRE_POST_SET_OSD, 1};
    const WireSetOsd set = {0x51000001, 0x40000003, 600, 864};
    std::memcpy(request.payload, &set, sizeof set);
    EXPECT_EQ(request_arguments(request), "postResId=0x51000001, osdId=0x40000003, x=600, y=864");

    request.header.call = WIRE_POST_GET_OSD_MEM;
    const WirePlane plane = {0x51000001, 0xFFFFFFFF};
    std::memcpy(request.payload, &plane, sizeof plane);
    EXPECT_EQ(request_arguments(request), "postResId=0x51000001, OSD num=-1");

    request.header.call = WIRE_LIBRARY_INIT;
    EXPECT_EQ(request_arguments(request), "");
}
