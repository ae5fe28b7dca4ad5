-- Each shard: whether one of its nodes answers, and the expected units whose reports are missing while none does.
SELECT
    shard, @SHARDS@ AS total, toUInt32(now()) AS now, @NODES@[shard + 1] AS nodes, any(@ANSWERS@ AS answers) AS up,
    groupArrayIf(sn, sn != '' AND NOT answers) AS missing
FROM (
    SELECT number AS shard, '' AS sn FROM system.numbers LIMIT @SHARDS@
    UNION ALL
    SELECT @SHARD@ AS shard, sn FROM fleet.units
)
GROUP BY shard ORDER BY shard
