-- The fleet over time, in steps of so many seconds; ms is the unit of jitter and round-trip time in
-- milliseconds. The 95 % are exact up to 30,000 of that unit. mos: E-model for G.711 with loss concealment, a
-- jitter buffer of twice the jitter.
WITH
    greatest(0, least(100, loss)) AS p,
    {ms:Float64} * (rtt / 2 + 2 * jitter) AS d,
    greatest(0, 93.2 - 0.024 * d - if(d > 177.3, 0.11 * (d - 177.3), 0) - 95 * p / (p + 25.1)) AS r
SELECT
    intDiv(toUInt32(at), {step:UInt32}) * {step:UInt32} AS t,
    count() AS reports,
    avg(p) AS loss_mean, quantileTiming(0.95)(p * 10) / 10 AS loss_p95,
    avg(jitter) AS jitter_mean, quantileTiming(0.95)(greatest(0, jitter)) AS jitter_p95,
    avg(rtt) AS rtt_mean, quantileTiming(0.95)(greatest(0, rtt)) AS rtt_p95,
    avg(greatest(1, 1 + 0.035 * r + 0.000007 * r * (r - 60) * (100 - r))) AS mos
FROM fleet.reports
WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32})
GROUP BY t ORDER BY t
