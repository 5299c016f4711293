// The last RECORDS_KEPT records of one kind, numbered from 1 without gaps.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "board/limits.h"

namespace simcam
{

template <typename Record> struct Records {
    std::deque<Record> kept; // oldest first
    uint64_t newest = 0;     // number of the record added last; 0: none yet
};

// Gives record the next number and keeps it; drops the oldest one if there are too many.
template <typename Record> void records_add(Records<Record> *records, Record record)
{
    record.number = ++records->newest;
    records->kept.push_back(std::move(record));
    if (records->kept.size() > RECORDS_KEPT)
        records->kept.pop_front();
}

// The records after number, oldest first, at most limit.
template <typename Record>
std::vector<Record> records_after(const Records<Record> &records, uint64_t number, size_t limit)
{
    std::vector<Record> found;
    if (number >= records.newest)
        return found;
    const uint64_t first = records.kept.front().number;
    for (size_t i = number < first ? 0 : static_cast<size_t>(number - first + 1);
         i < records.kept.size() && found.size() < limit; i++)
        found.push_back(records.kept[i]);
    return found;
}

} // namespace simcam
