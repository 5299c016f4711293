// Error codes of the codec library, compared by EXPECT_CODE and ASSERT_CODE and printed in
// hexadecimal.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ostream>

#include <gtest/gtest.h>

enum class Code : uint32_t {}; // 0: no error

inline void PrintTo(Code code, std::ostream *stream)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
    *stream << text;
}

#define EXPECT_CODE(actual, expected) EXPECT_EQ(Code(actual), Code(expected))
#define ASSERT_CODE(actual, expected) ASSERT_EQ(Code(actual), Code(expected))
