-- Each shard: whether one of its nodes answers, and the expected units whose reports are missing while none does. The
-- hash is that of fleet.lines, of five characters.
WITH (SELECT groupArray(name) FROM fleet.shards) AS answering,
    arrayExists(node -> has(answering, node), @NODES@[shard + 1]) AS answers
SELECT
    shard, @SHARDS@ AS total, toUInt32(now()) AS now, @NODES@[shard + 1] AS nodes, any(answers) AS up,
    groupArrayIf(sn, sn != '' AND NOT answers) AS missing
FROM (
    SELECT number AS shard, '' AS sn FROM system.numbers LIMIT @SHARDS@
    UNION ALL
    SELECT cityHash64(concat(substring(replaceAll('00000', '0', ' '), 1 + length(sn)), sn)) % @SHARDS@ AS shard, sn
    FROM fleet.units
)
GROUP BY shard ORDER BY shard
