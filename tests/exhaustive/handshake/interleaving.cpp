#include "interleaving.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace interleaving
{

Order (*weaken)(Kind kind, Order order);

namespace
{

constexpr size_t OBJECTS = 8; // atomic objects that the callback touches, at most
constexpr size_t VALUES = 16; // that one of them has in turn, at most

// By object: the number of the oldest value that a load may still return.
using View = std::array<uint8_t, OBJECTS>;

struct Value {
    uint32_t value;
    View released; // values made visible by acquiring it
};

struct Operation {
    Kind kind;
    size_t object;
    uint32_t value; // of a store; the bits that are set
    uint32_t mask;  // the bits that stay
    Order order;
    int report;
    uint32_t waits_for; // earlier operations that must take effect first, by bit
};

struct Choice {
    size_t taken;
    size_t count;
};

[[noreturn]] void stop(const char *why)
{
    fprintf(stderr, "interleaving: %s\n", why);
    abort();
}

// ---- the callback's side, once recorded
std::vector<Operation> operations;
std::vector<const void *> objects;
int current_report;

// ---- an execution
struct History {
    std::array<Value, VALUES> value; // oldest first
    size_t count;
};
std::array<History, OBJECTS> history;
std::array<uint8_t, 32> stamp; // by operation of the callback: the number of the value it made
uint32_t done;                 // operations of the callback that have taken effect, by bit
View display_view;
std::vector<Choice> choices; // a prefix of them is that of the execution before
size_t next_choice;
std::vector<std::string> *trace; // null: not written

enum class Mode { OUTSIDE, RECORDING, EXPLORING, SETTLED } mode = Mode::OUTSIDE;

size_t choose(size_t count)
{
    if (count == 1)
        return 0;
    if (next_choice == choices.size())
        choices.push_back({0, count});
    if (choices[next_choice].count != count)
        stop("the display side is not the same from run to run");
    return choices[next_choice++].taken;
}

// Moves on to the next execution; false after the last.
bool advance()
{
    while (!choices.empty() && choices.back().taken + 1 == choices.back().count)
        choices.pop_back();
    if (choices.empty())
        return false;
    choices.back().taken++;
    return true;
}

// The object's number; OBJECTS where the callback does not touch it.
size_t object_of(const void *place)
{
    const auto found = std::find(objects.begin(), objects.end(), place);
    return found == objects.end() ? OBJECTS : (size_t)(found - objects.begin());
}

size_t recorded_object_of(const void *place)
{
    if (object_of(place) == OBJECTS)
        objects.push_back(place);
    if (objects.size() > OBJECTS)
        stop("too many atomic objects");
    return object_of(place);
}

size_t latest(size_t object)
{
    return history[object].count - 1;
}

void append(size_t object, const Value &value)
{
    History &values = history[object];
    if (values.count == VALUES)
        stop("too many values");
    values.value[values.count++] = value;
}

void merge(View *view, const View &other)
{
    for (size_t i = 0; i < OBJECTS; i++)
        (*view)[i] = std::max((*view)[i], other[i]);
}

Order order_of(Kind kind, Order order)
{
    return weaken ? weaken(kind, order) : order;
}

void note(const char *side, Kind kind, size_t object, uint32_t value)
{
    static const char *const NAMES[] = {"loads", "stores", "makes"};
    if (!trace)
        return;
    char line[96];
    snprintf(line, sizeof line, "%s %s %x, object %zu", side, NAMES[kind], value, object);
    trace->push_back(line);
}

// A read-modify-write reads the latest value, and passes on what that one released.
void modify(View *view, const Operation &operation)
{
    const Value old = history[operation.object].value[latest(operation.object)];
    if (operation.order == ACQUIRE)
        merge(view, old.released);
    (*view)[operation.object] = (uint8_t)history[operation.object].count;
    Value next = {(old.value & operation.mask) | operation.value, old.released};
    if (operation.order == RELEASE)
        merge(&next.released, *view);
    append(operation.object, next);
}

// Lets an operation of the callback take effect.
void apply(size_t i)
{
    const Operation &operation = operations[i];
    View view = {}; // the callback's operations before it, except those reordered after it
    for (size_t k = 0; k < i; k++) {
        if ((done >> k & 1) != 0)
            view[operations[k].object] = stamp[k];
    }
    if (operation.kind == MODIFY) {
        modify(&view, operation);
    } else {
        view[operation.object] = (uint8_t)history[operation.object].count;
        append(operation.object, {operation.value, operation.order == RELEASE ? view : View()});
    }
    done |= 1u << i;
    stamp[i] = (uint8_t)latest(operation.object);
    note("callback", operation.kind, operation.object,
         history[operation.object].value[latest(operation.object)].value);
}

void let_callback_run()
{
    for (;;) {
        std::array<size_t, 32> ready;
        size_t count = 0;
        for (size_t i = 0; i < operations.size(); i++) {
            if ((done >> i & 1) == 0 && (operations[i].waits_for & ~done) == 0)
                ready[count++] = i;
        }
        const size_t choice = choose(count + 1);
        if (choice == 0)
            return;
        apply(ready[choice - 1]);
    }
}

// An operation of the callback may take effect before an earlier one on another object, unless it
// releases or the earlier one acquires.
void record(Operation operation)
{
    if (operations.size() == 32)
        stop("too many operations of the callback");
    operation.waits_for = 0;
    for (size_t i = 0; i < operations.size(); i++) {
        const Operation &earlier = operations[i];
        if (earlier.object == operation.object || operation.order == RELEASE ||
            earlier.order == ACQUIRE)
            operation.waits_for |= 1u << i;
    }
    operations.push_back(operation);
}

std::string run(const std::function<std::string()> &display)
{
    for (History &values : history) {
        values.value[0] = {};
        values.count = 1;
    }
    done = 0;
    display_view = {};
    next_choice = 0;
    mode = Mode::EXPLORING;
    std::string violation = display();
    mode = Mode::OUTSIDE;
    return violation;
}

} // namespace

uint32_t op_load(const void *place, uint32_t first, Order order)
{
    order = order_of(LOAD, order);
    if (mode == Mode::RECORDING)
        stop("the callback reads, so that it cannot be recorded");
    const size_t object = object_of(place);
    if (mode == Mode::OUTSIDE || object == OBJECTS)
        return first;
    if (mode == Mode::EXPLORING)
        let_callback_run();

    size_t at = latest(object);
    if (mode == Mode::EXPLORING) // 0: the latest
        at -= choose(latest(object) - display_view[object] + 1);
    display_view[object] = (uint8_t)at;
    const Value &value = history[object].value[at];
    if (order == ACQUIRE)
        merge(&display_view, value.released);
    note("display", LOAD, object, value.value);
    return value.value;
}

void op_store(const void *place, uint32_t value, Order order)
{
    if (mode != Mode::RECORDING)
        stop("the display side stores");
    record({STORE, recorded_object_of(place), value, 0, order_of(STORE, order), current_report, 0});
}

void op_modify(const void *place, uint32_t or_bits, uint32_t and_bits, Order order)
{
    Operation operation = {MODIFY,         0, or_bits, and_bits, order_of(MODIFY, order),
                           current_report, 0};
    if (mode == Mode::RECORDING) {
        operation.object = recorded_object_of(place);
        return record(operation);
    }
    operation.object = object_of(place);
    if (operation.object == OBJECTS)
        stop("the display side changes what the callback never does");
    if (mode == Mode::EXPLORING)
        let_callback_run();
    modify(&display_view, operation);
    note("display", MODIFY, operation.object,
         history[operation.object].value[latest(operation.object)].value);
}

void begin_report(int n)
{
    current_report = n;
}

bool report_is_out(int n)
{
    for (size_t i = 0; i < operations.size(); i++) {
        if (operations[i].report == n && operations[i].kind == MODIFY)
            return (done >> i & 1) != 0;
    }
    return false;
}

void settle()
{
    for (size_t i = 0; i < operations.size(); i++) {
        if ((done >> i & 1) == 0)
            apply(i);
    }
    mode = Mode::SETTLED;
}

Result explore(const std::function<void()> &callback, const std::function<std::string()> &display)
{
    operations.clear();
    objects.clear();
    mode = Mode::RECORDING;
    callback();

    Result result;
    choices.clear();
    do {
        result.violation = run(display);
        result.executions++;
    } while (result.violation.empty() && advance());

    if (!result.violation.empty()) { // once more, to write down its steps
        std::vector<std::string> steps;
        trace = &steps;
        (void)run(display);
        trace = nullptr;
        for (const std::string &step : steps)
            result.violation += "\n    " + step;
    }
    return result;
}

} // namespace interleaving
