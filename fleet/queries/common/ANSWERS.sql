-- Whether a node of the shard answers.
arrayExists(node -> has((SELECT groupArray(name) FROM fleet.shards), node), @NODES@[shard + 1])
