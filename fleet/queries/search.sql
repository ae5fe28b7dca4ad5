-- Calls whose GCID, RTCP name or unit contains the text, the latest first; id as in worst_calls.sql.
SELECT
    concat(hex(sn), '.', hex(gcid), '.', hex(tid)) AS id,
    sn AS unit, any(name) AS rtcp_name, gcid AS call, tid AS terminal,
    toUInt32(min(at)) AS since, toUInt32(max(at)) AS until, count() AS reports,
    max(loss) AS loss_max, max(jitter) AS jitter_max, max(rtt) AS rtt_max, min(@MOS@) AS mos_min
FROM fleet.reports
WHERE @CHOSEN@ AND (positionCaseInsensitive(gcid, {find:String}) > 0
    OR positionCaseInsensitive(name, {find:String}) > 0 OR positionCaseInsensitive(sn, {find:String}) > 0)
GROUP BY @CALL@ ORDER BY until DESC LIMIT 100
