// The overlay process: what it writes, how it is doing, and the commands that start and stop it.
#pragma once

#include <stdint.h>
#include <string>

// Makes the terminal /run/overlay-terminal that the overlay writes to. Returns its other end, or
// -1.
int overlay_terminal();
// Sends what the overlay wrote to the host.
void overlay_output(int terminal);
// Sends the state of the process to the host.
void overlay_report();
// Starts the command for a LinkAction, of ACTION_SHELL with its text; several run one after
// another. What it prints goes to the terminal.
void overlay_action(uint32_t action, const std::string &text);
// Reaps commands that have ended, and says so to the host.
void overlay_reap();
