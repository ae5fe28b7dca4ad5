-- The shard of a unit. The hash is that of fleet.lines, of five characters.
cityHash64(concat(substring(replaceAll('00000', '0', ' '), 1 + length(sn)), sn)) % @SHARDS@
