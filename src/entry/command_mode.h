#pragma once

// The command-line face of the program: usage and version texts.

// Writes the version line to standard output.
void print_version();
// Writes the version line, an empty line and the usage text to standard output.
void print_usage();
// Answers a run with at least one argument; returns the exit value.
int run_command_mode(int argc, const char* const* argv);
