-- The hundred worst calls. id identifies a call for call.sql, whatever bytes its names contain. Calls are found by
-- their hash first, because storing the names of all calls costs more than reading those of a hundred.
SELECT
    concat(hex(any(sn)), '.', hex(any(gcid)), '.', hex(any(tid))) AS id,
    any(sn) AS unit, any(name) AS rtcp_name, any(gcid) AS call, any(tid) AS terminal,
    toUInt32(min(at)) AS since, toUInt32(max(at)) AS until, count() AS reports,
    avg(loss) AS loss_mean, max(loss) AS loss_max, max(jitter) AS jitter_max, max(rtt) AS rtt_max,
    min(@MOS@) AS mos_min, @SEVERITY@ AS severity
FROM fleet.reports
WHERE @CHOSEN@ AND cityHash64(@CALL@) GLOBAL IN (
    SELECT cityHash64(@CALL@) AS hash FROM fleet.reports WHERE @CHOSEN@
    GROUP BY hash ORDER BY @SEVERITY@ DESC, hash LIMIT 100)
GROUP BY cityHash64(@CALL@) ORDER BY severity DESC, call, terminal, unit LIMIT 100
