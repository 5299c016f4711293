// The overlay process: its output, its state, and the commands that start and stop it.
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
// Starts the command for a LinkAction; text is the command of ACTION_SHELL. Several run one after
// another. Their output goes to the terminal.
void overlay_action(uint32_t action, const std::string &text);
// Reaps commands that have ended, and reports them to the host.
void overlay_reap();
