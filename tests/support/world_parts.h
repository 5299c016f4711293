// Shared by the parts of the world: world.cpp, world_codec.cpp, world_files.cpp,
// world_freetype.cpp. A test program links the parts that it needs.
#pragma once

#include <initializer_list>
#include <map>

#include "world.h"

namespace world
{

struct Object {
    int64_t number;
    Fn maker;
};
extern std::map<const void *, Object> objects; // those that exist

// Records that fn made object, in place of any older one at that address. Returns its number.
int64_t born(const void *object, Fn maker);

// Records that object is released; false if it does not exist.
bool die(const void *object);

// Records a call. The reference is valid until the next one.
Event &begin(Fn fn, std::initializer_list<int64_t> in = {});

} // namespace world
