-- How many units have sent anything in the chosen time, and how many calls they had.
SELECT uniq(unit) AS units, sum(calls) AS calls, sum(reports) AS reports
FROM (
    SELECT sn AS unit, toUInt64(0) AS calls, toUInt64(0) AS reports FROM fleet.heartbeats
    WHERE received >= toDateTime({from:UInt32}) AND received < toDateTime({to:UInt32}) GROUP BY unit
    UNION ALL
    SELECT sn AS unit, uniq(name, gcid) AS calls, count() AS reports FROM fleet.reports
    WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32}) GROUP BY unit
)
