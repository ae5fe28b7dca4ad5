-- All sites with reports, the lowest mean estimate of speech quality first. Units that are not expected have no site.
SELECT
    site, count() AS units, sum(calls) AS calls, sum(n) AS reports, sum(loss_sum) / reports AS loss_mean,
    sum(jitter_sum) / reports AS jitter_mean, sum(rtt_sum) / reports AS rtt_mean, sum(mos_sum) / reports AS mos_mean
FROM (
    SELECT
        sn, uniq(gcid, tid) AS calls, count() AS n, sum(loss) AS loss_sum, sum(jitter) AS jitter_sum,
        sum(rtt) AS rtt_sum, sum(@MOS@) AS mos_sum
    FROM fleet.reports WHERE @CHOSEN@
    GROUP BY sn
) AS sums
ANY LEFT JOIN (SELECT sn, site FROM fleet.units) AS places USING sn
GROUP BY site ORDER BY mos_mean
