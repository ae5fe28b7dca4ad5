// The running daemon on one screen: its receive queues and its files.
#pragma once

struct LiveState;

void print_text(const LiveState& state);
