-- How many units were heard in the chosen time, how many are expected, and the number of calls.
SELECT
    uniqExact(sn) AS units, sum(calls) AS calls, sum(reports) AS reports,
    (SELECT count() FROM fleet.units WHERE @UNITS@) AS expected
FROM (
    SELECT sn, toUInt64(0) AS calls, toUInt64(0) AS reports FROM fleet.heartbeats
    WHERE received >= toDateTime({from:UInt32}) AND received < toDateTime({to:UInt32}) AND @UNITS@ GROUP BY sn
    UNION ALL
    SELECT sn, uniq(@CALL@) AS calls, count() AS reports FROM fleet.reports WHERE @CHOSEN@ GROUP BY sn
)
