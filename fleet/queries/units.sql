-- The hundred units with the lowest mean estimate of speech quality.
SELECT
    sn AS unit, uniq(gcid, tid) AS calls, count() AS reports, avg(loss) AS loss_mean,
    max(loss) AS loss_max, avg(jitter) AS jitter_mean, avg(rtt) AS rtt_mean, avg(@MOS@) AS mos_mean,
    toUInt32(max(at)) AS until
FROM fleet.reports
WHERE @CHOSEN@
GROUP BY unit ORDER BY mos_mean LIMIT 100
