// Counts allocations of the whole process, FreeType's too.
#pragma once

// Calls of malloc, calloc and realloc so far.
long allocations_made();
