-- Users that posted batches with another unit's serial number in the chosen time, the latest first.
SELECT
    user, address, sn AS unit, count() AS batches, toUInt32(min(received)) AS since, toUInt32(max(received)) AS until
FROM fleet.foreign
WHERE received >= toDateTime({from:UInt32}) AND received < toDateTime({to:UInt32}) AND @UNITS@
GROUP BY user, address, unit ORDER BY until DESC, user, unit LIMIT 1000
