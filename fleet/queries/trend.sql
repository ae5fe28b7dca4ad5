-- Means over time, in steps of {step} seconds. ms converts jitter and round-trip time to milliseconds. The 95th
-- percentiles are exact up to 30,000 of the reported unit.
SELECT
    intDiv(toUInt32(at), {step:UInt32}) * {step:UInt32} AS t,
    count() AS reports,
    avg(loss) AS loss_mean, quantileTiming(0.95)(greatest(0, loss) * 10) / 10 AS loss_p95,
    avg(jitter) AS jitter_mean, quantileTiming(0.95)(greatest(0, jitter)) AS jitter_p95,
    avg(rtt) AS rtt_mean, quantileTiming(0.95)(greatest(0, rtt)) AS rtt_p95,
    avg(@MOS@) AS mos_mean
FROM fleet.reports
WHERE @CHOSEN@
GROUP BY t ORDER BY t
