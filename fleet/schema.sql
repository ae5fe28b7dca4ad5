-- The tables of the fleet's store. Run this on every node. It does not change existing tables.
--
-- incoming --accept--> lines (all shards) --> lines_shard --cut--> reports_shard, heartbeats_shard, foreign_shard
--
-- incoming and lines_shard store nothing. The node that accepts a batch keeps it in a spool file until it has
-- delivered it to the unit's shard. The shard cuts the lines of many batches into columns at once, because the setup
-- of this work costs more than the work for one batch. The cluster "fleet" (engine.xml) defines the shards. Read from
-- reports, heartbeats and foreign, which cover all shards.
--
-- Retention: each month is a partition; on each node
--     ALTER TABLE fleet.reports_shard DROP PARTITION 202601
--     ALTER TABLE fleet.heartbeats_shard DROP PARTITION 202601    -- likewise foreign_shard

CREATE DATABASE IF NOT EXISTS fleet;

-- A line of a posted batch, unchanged: [ or {"message": "..."}, or ]. In front of a batch with another unit's serial
-- number, the gateway inserts a line: |USER ADDRESS SERIAL
CREATE TABLE IF NOT EXISTS fleet.incoming (message String) ENGINE = Null;
CREATE TABLE IF NOT EXISTS fleet.lines_shard (received DateTime, message String) ENGINE = Null;

-- A node with a nearly full disk refuses batches before it loses any, and the gateway gives them to another node.
-- Sharded by the serial number at its usual position, so that a batch goes to one shard.
CREATE TABLE IF NOT EXISTS fleet.lines AS fleet.lines_shard
ENGINE = Distributed(fleet, fleet, lines_shard, cityHash64(substring(message, 141, 5)));
CREATE MATERIALIZED VIEW IF NOT EXISTS fleet.accept TO fleet.lines AS
SELECT now() AS received, message FROM fleet.incoming WHERE message >= '{'    -- also |
    AND throwIf(dictGetUInt64('node', 'free_bytes', toUInt64(0)) < 500000000) = 0;

-- received  when the batch arrived
-- at        the report's time, or received if the unit's clock is wrong by more than a day
-- time, ms  the report's time by the unit's clock; zone is its offset from UTC in minutes
-- loss      percent; jitter and rtt are in the unit that the voice software uses. All three are limited to
--           possible values, 0 to 100 and 0 to 10 s in microseconds, so that no line can distort a mean
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

-- The columns of a line are at fixed positions up to the far-end address. Six numbers follow, which may be
-- wider than their columns, then ten or more characters of SSRC, five of serial number, and the name,
-- which may contain anything. Malformed lines (brackets, a truncated name) are skipped.
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

-- Service reports differ only in time and serial number. They arrive in pairs; the second of each pair, with
-- total loss, is skipped.
CREATE MATERIALIZED VIEW IF NOT EXISTS fleet.cut_heartbeats TO fleet.heartbeats_shard AS
SELECT received, replaceRegexpOne(substring(message, 141, 5), '^ +', '') AS sn
FROM fleet.lines_shard
WHERE substring(message, 91, 50) = '     0       0    0   0.0      0     0      00000 '
    AND substring(message, 146) IN (' Service_Packet"}', ' Service_Packet"},');

-- Batches with lines that do not have the serial number of the user who posted them; sn is the first other number.
CREATE TABLE IF NOT EXISTS fleet.foreign_shard (received DateTime, user String, address String, sn String)
ENGINE = MergeTree PARTITION BY toYYYYMM(received) ORDER BY received;
CREATE TABLE IF NOT EXISTS fleet.foreign AS fleet.foreign_shard ENGINE = Distributed(fleet, fleet, foreign_shard);
CREATE MATERIALIZED VIEW IF NOT EXISTS fleet.cut_foreign TO fleet.foreign_shard AS
WITH splitByChar(' ', substring(message, 2)) AS words
SELECT received, words[1] AS user, words[2] AS address, words[3] AS sn FROM fleet.lines_shard WHERE message LIKE '|%';

-- The expected units, from units.csv; sn is the part of the serial number that a line contains.
CREATE TABLE IF NOT EXISTS fleet.units (sn String, name String, site String) ENGINE = MergeTree ORDER BY sn;

-- What a node reports about itself (node_dictionary.xml). nodes: every node; shards: the node that answers for each.
CREATE TABLE IF NOT EXISTS fleet.node (
    id UInt64, name String, free_bytes UInt64, size_bytes UInt64, spool_files UInt64, broken_files UInt64, parts UInt64
) ENGINE = Dictionary(node);
CREATE TABLE IF NOT EXISTS fleet.nodes AS fleet.node ENGINE = Distributed(fleet_nodes, fleet, node);
CREATE TABLE IF NOT EXISTS fleet.shards AS fleet.node ENGINE = Distributed(fleet, fleet, node);

-- The first delivery to a shard creates a folder on this node. Two at once would fail for one batch, so create all
-- folders now. The shards skip these lines.
INSERT INTO fleet.lines SELECT now(), concat(toFixedString('', 140), toString(number))
FROM system.numbers LIMIT 1000;
