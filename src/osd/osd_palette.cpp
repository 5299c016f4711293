// The palette file and the forced entries of the color table. No state.

#include "osd/osd_palette.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "palette_index.h"
#include "status.h"

// A forced byte of the color table.
struct ForcedByte {
    uint32_t entry;
    uint32_t byte;
    uint8_t value;
};

// In the order in which they are written.
static const ForcedByte FORCED_BYTES[] = {
    {PALETTE_TEXT, 3, 0x08},   {PALETTE_BOX, 1, 0x28},    {PALETTE_BOX, 2, 0x6D},
    {PALETTE_BOX, 0, 0xEF},    {PALETTE_FILL, 1, 0x54},   {PALETTE_FILL, 2, 0xFF},
    {PALETTE_FILL, 0, 0x4C},   {PALETTE_MARKER, 1, 0xAA}, {PALETTE_MARKER, 2, 0x00},
    {PALETTE_MARKER, 0, 0xB2},
};

int32_t osd_open_file(const char *path, uint32_t *size_out)
{
    const int file = open(path, O_RDONLY);
    if (file < 0) {
        perror(path);
        return STATUS_FILE;
    }

    struct stat status;
    if (fstat(file, &status) != 0) {
        perror("fstat");
        (void)close(file); // read-only: nothing can be lost
        return STATUS_FILE;
    }

    if (size_out)
        *size_out = (uint32_t)status.st_size;
    return file;
}

int32_t osd_load_file(const char *path, void *buffer, uint32_t buffer_len)
{
    uint32_t size = 0;
    const int32_t file = osd_open_file(path, &size);
    if (file < 0)
        return STATUS_FILE;

    if (size > buffer_len) {
        printf("size=%d\n", (int)size);
        printf("buffer_len=%d\n", (int)buffer_len);
        printf("file too large\n");
        (void)close(file); // read-only
        return STATUS_FILE;
    }

    const ssize_t bytes = read(file, buffer, size);
    if (bytes < 0 || (size_t)bytes != size) {
        perror(path);
        (void)close(file); // read-only
        return STATUS_FILE;
    }

    (void)close(file); // read-only
    return STATUS_OK;
}

void osd_fill_color_mem(const OsdMem *mem)
{
    uint8_t *table = (uint8_t *)mem->addr;
    if (table)
        memset(table, 0, mem->size);

    // A failure is ignored: the session continues with the memory as it is then.
    (void)osd_load_file(OSD_PALETTE_PATH, table, mem->size);

    for (const ForcedByte &forced : FORCED_BYTES) {
        const size_t offset = sizeof(PaletteEntry) * forced.entry + forced.byte;
        if (table && offset < mem->size)
            table[offset] = forced.value;
    }
}
