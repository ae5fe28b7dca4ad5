-- Estimate of speech quality for one report. E-model for G.711 with loss concealment and a jitter buffer of twice the
-- jitter.
greatest(1, 1 + 0.035 * (greatest(0, 93.2 - 0.024 * ({ms:Float64} * (rtt / 2 + 2 * jitter) AS delay)
    - if(delay > 177.3, 0.11 * (delay - 177.3), 0) - 95 * loss / (loss + 25.1)) AS rating)
    + 0.000007 * rating * (rating - 60) * (100 - rating))
