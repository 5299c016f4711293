// The product's process-wide state.
#pragma once

// Resets it to that of a new process: no reports of posts, the peak on hold, no font engine.
void reset_product_state();
