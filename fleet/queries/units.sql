-- The hundred units with the highest mean loss.
SELECT
    sn AS unit, name AS rtcp_name, uniq(gcid) AS calls, count() AS reports,
    avg(greatest(0, least(100, loss))) AS loss_mean, max(loss) AS loss_max,
    avg(jitter) AS jitter_mean, avg(rtt) AS rtt_mean, toUInt32(max(at)) AS until
FROM fleet.reports
WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32})
GROUP BY unit, rtcp_name ORDER BY loss_mean DESC LIMIT 100
