#pragma once

// Blocks that the whole process has allocated and not freed.
long heap_blocks();
