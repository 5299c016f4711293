// The handshake of the library's thread and the display thread, in every execution: no report is
// lost, and no id is used that is older than its report. That weaker code is noticed is tested too.

#include <cstdio>

#include <gtest/gtest.h>

#include "handshake/handshake.h"
#include "handshake/interleaving.h"

using handshake::Report;
using interleaving::Kind;
using interleaving::Order;
using interleaving::Result;

using Reports = std::vector<Report>;

#ifdef FOCUS_TEST_THINNED // programs are slow, under emulation and sanitizers
static constexpr size_t LENGTH = 2;
#else
static constexpr size_t LENGTH = 3;
#endif

// All sequences of 1 to length reports of the kinds; ids rise from 1 on.
static std::vector<Reports> sequences(size_t length, const Reports &kinds)
{
    std::vector<Reports> found;
    std::vector<Reports> last = {{}};
    for (size_t n = 1; n <= length; n++) {
        std::vector<Reports> longer;
        for (const Reports &begin : last) {
            for (Report kind : kinds) {
                kind.id = kind.start ? (uint32_t)n : 0;
                longer.push_back(begin);
                longer.back().push_back(kind);
            }
        }
        found.insert(found.end(), longer.begin(), longer.end());
        last = longer;
    }
    return found;
}

static std::string text_of(const Reports &reports)
{
    std::string text;
    for (const Report &report : reports)
        text += (report.start ? " start " : " stop ") + std::to_string(report.post);
    return text;
}

class Handshake : public testing::Test
{
  protected:
    Handshake()
    {
        interleaving::weaken = nullptr;
    }
    ~Handshake() override
    {
        interleaving::weaken = nullptr;
    }

    static Result take(const Reports &reports, int rounds)
    {
        return interleaving::explore([&] { handshake::send(reports); },
                                     [&] { return handshake::take_all(reports, rounds); });
    }

    static Result display(const Reports &reports, int rounds)
    {
        return interleaving::explore([&] { handshake::send(reports); },
                                     [&] { return handshake::display_all(reports, rounds); });
    }
};

TEST_F(Handshake, EveryReportIsTakenWithItsIdOrALaterOne)
{
    for (const Reports &reports : sequences(LENGTH, {{0, true, 0}, {0, false, 0}, {3, true, 0}})) {
        const Result result = take(reports, 2);
        ASSERT_EQ(result.violation, "") << text_of(reports);
    }
}

TEST_F(Handshake, APostThatStartedLastIsDrawnWithItsId)
{
    for (const Reports &reports : sequences(LENGTH, {{0, true, 0}, {0, false, 0}})) {
        const Result result = display(reports, 1);
        ASSERT_EQ(result.violation, "") << text_of(reports);
    }
}

// A stop report is one operation on one mask. A round looks at that mask twice: for post 0, then
// for post 3. The report is there before the first look: that takes it, and the second finds
// nothing (1); or it sees the old value, and the second the old or the new one (2). It is there
// before the second look: old or new (2). It is there later (1).
TEST_F(Handshake, TheNumberOfExecutionsIsThatCountedByHand)
{
    EXPECT_EQ(take({{0, false, 0}}, 1).executions, 1u + 2u + 2u + 1u);
}

TEST_F(Handshake, AnIdStoredAfterTheBitIsNoticed)
{
    const Reports reports = {{0, true, 1}};
    const Result result = interleaving::explore([&] { handshake::send_bit_first(reports); },
                                                [&] { return handshake::take_all(reports, 1); });
    EXPECT_EQ(result.violation.substr(0, 28), "an id older than its report\n");
}

TEST_F(Handshake, AWeakerReleaseIsNoticed)
{
    interleaving::weaken = [](Kind, Order order) {
        return order == Order::RELEASE ? Order::RELAXED : order;
    };
    EXPECT_EQ(take({{0, true, 1}}, 1).violation.substr(0, 28), "an id older than its report\n");
    EXPECT_EQ(display({{0, false, 0}, {0, true, 2}}, 2).violation.substr(0, 19),
              "dark after a start\n");
}

TEST_F(Handshake, AWeakerAcquireIsNoticed)
{
    interleaving::weaken = [](Kind, Order order) {
        return order == Order::ACQUIRE ? Order::RELAXED : order;
    };
    EXPECT_EQ(take({{0, true, 1}}, 1).violation.substr(0, 28), "an id older than its report\n");
}

// The test of a bit that acquires instead of its clearing misses a report that comes in between.
TEST_F(Handshake, AnAcquireBeforeTheClearIsNoticed)
{
    interleaving::weaken = [](Kind kind, Order order) {
        if (kind == Kind::LOAD)
            return Order::ACQUIRE;
        return order == Order::ACQUIRE ? Order::RELAXED : order;
    };
    EXPECT_EQ(take({{0, true, 1}}, 1).violation, "");
    EXPECT_EQ(take({{0, true, 1}, {0, true, 2}}, 1).violation.substr(0, 28),
              "an id older than its report\n");
}
