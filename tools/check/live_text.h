// Prints the receive queues and the files of the running daemon on one screen.
#pragma once

struct LiveState;

void print_text(const LiveState& state);
