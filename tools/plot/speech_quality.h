// Estimates the speech quality with the E-model of ITU-T G.107, for G.711.
#pragma once

// The rating R of a connection without loss and delay.
constexpr double BEST_RATING = 93.2;

// The rating R of a connection. Concealment: the receiver conceals lost packets.
double rating(double loss_percent, double jitter_ms, double round_trip_ms, bool concealment);

// The mean opinion score for a rating, 1 (bad) to 4.5.
double opinion_score(double rating);
