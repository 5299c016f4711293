// Runs two threads of atomic operations through every execution that the language allows.
//
// The callback's side is recorded first: it takes no decision on what it reads. The display
// thread's side is then run again and again. Before each of its operations the explorer lets any
// number of the callback's take effect; a load may also return an older value than the latest,
// unless the thread has seen a later one or acquired something that came after it; an operation of
// the callback may take effect before an earlier one, unless its order forbids that. All choices
// are tried, depth first.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace interleaving
{

enum Order { RELAXED, ACQUIRE, RELEASE };

// The operations of <atomic>, each on the object at place, which begins with first.
uint32_t op_load(const void *place, uint32_t first, Order order);
void op_store(const void *place, uint32_t value, Order order);
void op_modify(const void *place, uint32_t or_bits, uint32_t and_bits, Order order);

// Changes the order of an operation, to see whether that is noticed. Null: none.
enum Kind { LOAD, STORE, MODIFY };
extern Order (*weaken)(Kind kind, Order order);

// Tells the explorer that the operations recorded from now on are those of report number n.
void begin_report(int n);

// How many reports, counted from the first, have set their bit by now: their last operation has
// taken effect.
bool report_is_out(int n);

// From here on the rest of the callback's operations have taken effect and every load returns the
// latest value: what has been stored is seen in the end.
void settle();

struct Result {
    uint64_t executions = 0;
    std::string violation; // the first one, with the execution that led to it; empty: none
};

// Records callback, then runs display through every execution, each from the first values. display
// returns what went wrong, or nothing. Ends with the first violation.
Result explore(const std::function<void()> &callback, const std::function<std::string()> &display);

} // namespace interleaving
