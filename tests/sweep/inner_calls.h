#pragma once

// Blocks of memory that FreeType has allocated and not freed.
long inner_blocks();
