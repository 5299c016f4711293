// The product's process-wide state, for tests to begin from.
#pragma once

// Puts back what a new process has: no reports of posts, the peak on hold, no font engine.
void reset_product_state();
