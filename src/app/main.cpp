// The process: starts the display thread, then runs the measurement loop.
//
// State: focus_state, shared by both threads; main clears it before it starts the second.

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "app/display_loop.h"
#include "app/focus_measure.h"
#include "app/focus_state.h"

#define PID_FILE_PATH "/var/run/focus_assist.pid"

// Of the camera's CGI support library: writes the process id to the file path.
extern "C" int32_t cgi_set_pid(const char *path);

static FocusState focus_state;

static void init_focus_state(FocusState *state, int argc, char **argv)
{
    (void)argc; // the program takes no options
    (void)argv;
    memset((void *)state, 0, sizeof *state);
    state->current.store(0, std::memory_order_relaxed);
    state->peak.store(0, std::memory_order_relaxed);
}

static void *display_thread_entry(void *argument)
{
    osd_Focus_Assist_run((const FocusState *)argument);
    return nullptr; // never reached: the loop has no end
}

int main(int argc, char **argv)
{
    // FreeType reads it, and its settings would change the shapes of glyphs.
    (void)unsetenv("FREETYPE_PROPERTIES");

    init_focus_state(&focus_state, argc, argv);

    (void)cgi_set_pid(PID_FILE_PATH); // without a pid file the readout still works

    const int error =
        pthread_create(&focus_state.display_thread, nullptr, display_thread_entry, &focus_state);
    if (error == 0) {
        focus_measure_run(&focus_state);
        return 0;
    }

    fprintf(stderr, "OSD Process Thread returns: %d\n", error);
    return -1;
}
