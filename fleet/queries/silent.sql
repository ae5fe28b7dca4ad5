-- Units without a heartbeat for more than so many seconds at the end of the chosen time (two intervals
-- are 600): since their last one after since or, if there is none, since their first report.
SELECT
    unit, toUInt32(max(heartbeat)) AS last_heartbeat, toUInt32(max(report)) AS last_report
FROM (
    SELECT sn AS unit, max(received) AS heartbeat, toDateTime(0) AS first, toDateTime(0) AS report
    FROM fleet.heartbeats
    WHERE received >= toDateTime({since:UInt32}) AND received < toDateTime({to:UInt32}) GROUP BY unit
    UNION ALL
    SELECT sn AS unit, toDateTime(0) AS heartbeat, min(received) AS first, max(received) AS report
    FROM fleet.reports
    WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32}) GROUP BY unit
)
GROUP BY unit
HAVING {to:UInt32} - if(last_heartbeat > 0, last_heartbeat, toUInt32(max(first))) > {after:UInt32}
ORDER BY last_heartbeat LIMIT 500
