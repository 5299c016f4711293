// The OSD color table: the palette file is copied into it byte for byte, then some bytes are
// forced. Display thread only.
#pragma once

#include <stdint.h>

#include "osd/qm7_codec.h"

#define OSD_PALETTE_PATH "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt"

// One entry of the table. The meaning of the bytes is the codec library's.
struct PaletteEntry {
    uint8_t byte[4];
};
static_assert(sizeof(PaletteEntry) == 4, "library record");

// Opens path for reading and, where size_out is not null, stores the file's size in bytes there.
//
// Returns the descriptor, the caller's to close, or STATUS_FILE with the reason on standard error.
int32_t osd_open_file(const char *path, uint32_t *size_out);

// Reads the whole file into buffer, of buffer_len bytes, in one read.
//
// Returns 0 or STATUS_FILE: not to be opened, larger than buffer_len (nothing is read then) or not
// read whole (what came stays in buffer). The reason is printed.
int32_t osd_load_file(const char *path, void *buffer, uint32_t buffer_len);

// Fills the color memory: zeros, the palette file, the forced bytes, as far as they lie within
// mem->size. A file that cannot be loaded changes nothing of that.
void osd_fill_color_mem(const OsdMem *mem);
