-- The hundred calls with the lowest mean estimate of speech quality. sn_hex and the like name a call to
-- call.sql, whatever bytes they have; key tells one from another. The calls are found by their hash
-- first, since keeping the names of all calls costs more than reading those of a hundred.
WITH
    cityHash64(sn, name, gcid) AS hash,
    greatest(0, least(100, loss)) AS p,
    {ms:Float64} * (rtt / 2 + 2 * jitter) AS d,
    greatest(0, 93.2 - 0.024 * d - if(d > 177.3, 0.11 * (d - 177.3), 0) - 95 * p / (p + 25.1)) AS r,
    avg(greatest(1, 1 + 0.035 * r + 0.000007 * r * (r - 60) * (100 - r))) AS mos
SELECT
    toString(hash) AS key, any(sn) AS unit, any(name) AS rtcp_name, any(gcid) AS call,
    hex(unit) AS sn_hex, hex(rtcp_name) AS name_hex, hex(call) AS gcid_hex,
    toUInt32(min(at)) AS since, toUInt32(max(at)) AS until, count() AS reports,
    avg(p) AS loss_mean, max(p) AS loss_max, max(jitter) AS jitter_max, max(rtt) AS rtt_max, mos
FROM fleet.reports
WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32}) AND hash GLOBAL IN (
    WITH
        greatest(0, least(100, loss)) AS p,
        {ms:Float64} * (rtt / 2 + 2 * jitter) AS d,
        greatest(0, 93.2 - 0.024 * d - if(d > 177.3, 0.11 * (d - 177.3), 0) - 95 * p / (p + 25.1)) AS r
    SELECT cityHash64(sn, name, gcid) FROM fleet.reports
    WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32})
    GROUP BY cityHash64(sn, name, gcid)
    ORDER BY avg(greatest(1, 1 + 0.035 * r + 0.000007 * r * (r - 60) * (100 - r))) LIMIT 100)
GROUP BY hash ORDER BY mos, rtcp_name LIMIT 100
