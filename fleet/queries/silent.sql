-- Units that were silent for more than {after} seconds at the end of the chosen time, and units that are not expected
-- but were heard within a day. If no unit is expected, none is marked as not expected. last_heartbeat is 0 if there was
-- none since {since}, and last_report is 0 if there was none since {from}.
SELECT
    sn AS unit, max(label) AS unit_name, max(place) AS site,
    toUInt32(max(heartbeat)) AS last_heartbeat, toUInt32(max(report)) AS last_report,
    greatest(last_heartbeat, last_report) AS last_heard, {to:UInt32} - last_heard > {after:UInt32} AS silent,
    max(listed) OR (SELECT count() FROM fleet.units) = 0 AS expected
FROM (
    SELECT sn, name AS label, site AS place, toDateTime(0) AS heartbeat, toDateTime(0) AS report, 1 AS listed
    FROM fleet.units
    UNION ALL
    SELECT sn, '' AS label, '' AS place, max(received) AS heartbeat, toDateTime(0) AS report, 0 AS listed
    FROM fleet.heartbeats
    WHERE received >= toDateTime({since:UInt32}) AND received < toDateTime({to:UInt32}) GROUP BY sn
    UNION ALL
    SELECT sn, '' AS label, '' AS place, toDateTime(0) AS heartbeat, max(received) AS report, 0 AS listed
    FROM fleet.reports
    WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32}) GROUP BY sn
)
WHERE @UNITS@
GROUP BY sn
HAVING (silent OR NOT expected) AND (max(listed) OR last_heard > {to:UInt32} - 86400)
ORDER BY silent DESC, last_heard DESC LIMIT 5000
