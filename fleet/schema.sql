-- The tables of the fleet's store. Run it on every node; it changes nothing that is there already.
--
-- incoming --accept--> lines (all shards) --> lines_shard --cut--> reports_shard, heartbeats_shard
--
-- incoming and lines_shard hold nothing. What the engine has accepted lies in a file of the node that took
-- it until the shard of its unit has it. The lines are cut into columns behind that, many batches at
-- once, since setting this work up costs more than doing it for one batch. The cluster "fleet" (engine.xml) says
-- which shards there are; read from reports and heartbeats, which are all of them.
--
-- Retention: each month is a partition; on each node
--     ALTER TABLE fleet.reports_shard DROP PARTITION 202601
--     ALTER TABLE fleet.heartbeats_shard DROP PARTITION 202601

CREATE DATABASE IF NOT EXISTS fleet;

-- A line of a posted batch as it came: [ or {"message": "..."}, or ]
CREATE TABLE IF NOT EXISTS fleet.incoming (message String) ENGINE = Null;
CREATE TABLE IF NOT EXISTS fleet.lines_shard (received DateTime, message String) ENGINE = Null;

-- A node whose disk is nearly full refuses batches before it loses them, and the gateway gives them to another.
-- Sharded by the serial number, where it usually stands, so that a batch goes to one shard.
CREATE TABLE IF NOT EXISTS fleet.lines AS fleet.lines_shard
ENGINE = Distributed(fleet, fleet, lines_shard, cityHash64(substring(message, 141, 5)));
CREATE MATERIALIZED VIEW IF NOT EXISTS fleet.accept TO fleet.lines AS
SELECT now() AS received, message FROM fleet.incoming WHERE substring(message, 1, 1) = '{'
    AND throwIf(dictGetUInt64('node', 'free_bytes', toUInt64(0)) < 500000000) = 0;

-- received  when the batch came
-- at        the report's time, or when it came if the unit's clock is off by more than a day
-- time, ms  the report's time as it says; zone is the unit's distance from UTC in minutes
-- loss      percent; jitter and rtt are in the unit that the voice software uses. All three are cut to
--           what can be, 0 to 100 and 0 to 10 s in microseconds, so that no line can spoil a mean
-- sn, name  the unit: the first five characters of its serial number, and the RTCP name
CREATE TABLE IF NOT EXISTS fleet.reports_shard (
    received DateTime, at DateTime, time DateTime, ms UInt16, zone Int16,
    gcid String, tid String, type String, far_end String, port Int32,
    packets Int32, lost Int32, loss Float32, jitter Int32, rtt Int32,
    ssrc String, sn String, name String
) ENGINE = MergeTree PARTITION BY toYYYYMM(at) ORDER BY (toStartOfHour(at), sn, gcid, at);

CREATE TABLE IF NOT EXISTS fleet.heartbeats_shard (received DateTime, sn String)
ENGINE = MergeTree PARTITION BY toYYYYMM(received) ORDER BY (received, sn);

CREATE TABLE IF NOT EXISTS fleet.reports AS fleet.reports_shard
ENGINE = Distributed(fleet, fleet, reports_shard);
CREATE TABLE IF NOT EXISTS fleet.heartbeats AS fleet.heartbeats_shard
ENGINE = Distributed(fleet, fleet, heartbeats_shard);

-- The columns of a line stand at fixed places up to the far-end address. Six numbers follow, which may be
-- wider than their columns, then ten characters or more of SSRC, five of serial number, and the name,
-- which may hold anything. Lines of another form (brackets, a name that was cut) are left out.
CREATE MATERIALIZED VIEW IF NOT EXISTS fleet.cut_reports TO fleet.reports_shard AS
WITH
    substring(message, 14, length(message) - 13 - if(endsWith(message, ','), 3, 2)) AS line,
    extract(substring(line, 78), '^(?: +-?[0-9.]+){6} ') AS numbers,
    arrayFilter(x -> x != '', splitByChar(' ', numbers)) AS n,
    substring(line, 78 + length(numbers)) AS words,
    position(substring(words, 11), ' ') AS ssrc_end,
    parseDateTimeBestEffortOrZero(concat(substring(line, 10, 2), ' ', substring(line, 6, 3), ' ',
        substring(line, 1, 4), ' ', substring(line, 13, 8), ' ', substring(line, 26, 5))) AS stamp
SELECT
    received,
    if(abs(toInt64(stamp) - toInt64(received)) < 86400, stamp, received) AS at,
    stamp AS time,
    toUInt16OrZero(substring(line, 22, 3)) AS ms,
    toInt16(if(substring(line, 26, 1) = '-', -1, 1)
        * (toInt16OrZero(substring(line, 27, 2)) * 60 + toInt16OrZero(substring(line, 29, 2)))) AS zone,
    replaceRegexpOne(substring(line, 32, 9), '^ +', '') AS gcid,
    replaceRegexpOne(substring(line, 42, 11), '^ +', '') AS tid,
    replaceRegexpOne(substring(line, 54, 8), '^ +', '') AS type,
    replaceRegexpOne(substring(line, 63, 15), '^ +', '') AS far_end,
    toInt32OrZero(n[1]) AS port,
    toInt32OrZero(n[2]) AS packets,
    toInt32OrZero(n[3]) AS lost,
    toFloat32(greatest(0, least(100, toFloat64OrZero(n[4])))) AS loss,
    toInt32(greatest(0, least(10000000, toInt64OrZero(n[5])))) AS jitter,
    toInt32(greatest(0, least(10000000, toInt64OrZero(n[6])))) AS rtt,
    replaceRegexpOne(substring(words, 1, 9 + ssrc_end), '^ +', '') AS ssrc,
    replaceRegexpOne(substring(words, 11 + ssrc_end, 5), '^ +', '') AS sn,
    substring(words, 17 + ssrc_end) AS name
FROM fleet.lines_shard
WHERE message LIKE '{"message": "%' AND (endsWith(message, '"}') OR endsWith(message, '"},'))
    AND numbers != '' AND ssrc_end > 0 AND substring(words, 16 + ssrc_end) != ' Service_Packet';

-- A service report is the same in every line but for time and serial number. They come in pairs; the
-- second one, with total loss, is left out.
CREATE MATERIALIZED VIEW IF NOT EXISTS fleet.cut_heartbeats TO fleet.heartbeats_shard AS
SELECT received, replaceRegexpOne(substring(message, 141, 5), '^ +', '') AS sn
FROM fleet.lines_shard
WHERE substring(message, 91, 50) = '     0       0    0   0.0      0     0      00000 '
    AND substring(message, 146) IN (' Service_Packet"}', ' Service_Packet"},');

-- The units that should report, as units.csv has them; sn is what a line has of the serial number.
CREATE TABLE IF NOT EXISTS fleet.units (sn String, name String, site String) ENGINE = MergeTree ORDER BY sn;

-- What a node tells of itself (node_dictionary.xml): of each node, and of the one that answers for each shard.
CREATE TABLE IF NOT EXISTS fleet.node (
    id UInt64, name String, free_bytes UInt64, size_bytes UInt64, spool_files UInt64, broken_files UInt64, parts UInt64
) ENGINE = Dictionary(node);
CREATE TABLE IF NOT EXISTS fleet.nodes AS fleet.node ENGINE = Distributed(fleet_nodes, fleet, node);
CREATE TABLE IF NOT EXISTS fleet.shards AS fleet.node ENGINE = Distributed(fleet, fleet, node);

-- The first delivery to a shard makes a folder on this node; of two at once, one batch would be refused.
-- These lines go to every shard, which leaves them out.
INSERT INTO fleet.lines SELECT now(), concat(toFixedString('', 140), toString(number))
FROM system.numbers LIMIT 1000;
