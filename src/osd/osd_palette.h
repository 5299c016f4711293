// The OSD color table: the palette file is copied into it byte for byte, then some bytes are
// overwritten. Display thread only.
#pragma once

#include <stdint.h>

#include "osd/qm7_codec.h"

#define OSD_PALETTE_PATH "/usr/local/morvel/app/conf/data/osd/osd_def_color.plt"

// One entry of the table. The codec library defines the meaning of the bytes.
struct PaletteEntry {
    uint8_t byte[4];
};
static_assert(sizeof(PaletteEntry) == 4, "library record");

// Opens path for reading and stores the file's size in bytes in *size_out unless size_out is null.
//
// Returns a descriptor that the caller closes, or STATUS_FILE after printing the reason on stderr.
int32_t osd_open_file(const char *path, uint32_t *size_out);

// Reads the whole file into buffer, of buffer_len bytes, in one read.
//
// Returns 0, or STATUS_FILE if the file cannot be opened, is larger than buffer_len (nothing is
// read then) or cannot be read completely (buffer keeps the part that was read). Prints the reason.
int32_t osd_load_file(const char *path, void *buffer, uint32_t buffer_len);

// Fills the color memory: zeros, then the palette file, then the fixed bytes as far as mem->size
// allows. A file that cannot be loaded is not a failure.
void osd_fill_color_mem(const OsdMem *mem);
