-- The reports of one call, both streams, latest first.
SELECT toUInt32(at) + ms / 1000 AS t, type, loss, jitter, rtt, lost, packets, name, far_end, port, ssrc
FROM fleet.reports
WHERE at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32})
    AND sn = {sn:String} AND gcid = {gcid:String} AND tid = {tid:String}
ORDER BY t DESC LIMIT 20000
