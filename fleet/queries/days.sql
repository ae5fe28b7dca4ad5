-- Reports, calls and units of each day.
SELECT toDate(at) AS day, count() AS reports, uniq(sn, name, gcid) AS calls, uniq(sn) AS units
FROM fleet.reports
WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32})
GROUP BY day ORDER BY day
