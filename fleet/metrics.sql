-- The metrics for Prometheus. A unit is heard if a heartbeat or a report arrived within ten minutes. Figures of reports
-- cover five minutes.
SELECT concat(
    '# HELP voxstat_fleet_', row.1 AS metric, ' ', any(row.2), '\n# TYPE voxstat_fleet_', metric, ' gauge\n',
    arrayStringConcat(groupArray(concat('voxstat_fleet_', metric, labels, ' ', toString(row.3))), '\n'))
FROM (
    SELECT arrayJoin([
        ('units_expected', 'Units listed in units.csv.', toFloat64(countIf(listed))),
        ('units_heard', 'Units heard in the last ten minutes.', toFloat64(countIf(heard))),
        ('units_silent', 'Expected units that were not heard although their shard answers.',
            toFloat64(countIf(listed AND answers AND NOT heard))),
        ('units_missing', 'Expected units whose shard does not answer.', toFloat64(countIf(listed AND NOT answers))),
        ('units_unexpected', 'Units heard that are not listed in units.csv.', toFloat64(countIf(heard AND NOT listed)))
    ]) AS row, '' AS labels
    FROM (
        SELECT sn, max(from_list) AS listed, max(from_store) AS heard, @SHARD@ AS shard, @ANSWERS@ AS answers
        FROM (
            SELECT sn, 1 AS from_list, 0 AS from_store FROM fleet.units
            UNION ALL
            SELECT sn, 0 AS from_list, 1 AS from_store FROM fleet.heartbeats WHERE received >= now() - 600 GROUP BY sn
            UNION ALL
            SELECT sn, 0 AS from_list, 1 AS from_store FROM fleet.reports
            WHERE received >= now() - 600 AND at >= now() - 7200 GROUP BY sn
        ) GROUP BY sn
    )
    UNION ALL
    SELECT ('foreign_batches', 'Batches with another unit''s serial number in the last ten minutes.',
        toFloat64(count())) AS row, '' AS labels
    FROM fleet.foreign WHERE received >= now() - 600
    UNION ALL
    SELECT arrayJoin([
        ('reports', 'Reports of the last five minutes.', toFloat64(sum(n))),
        ('calls', 'Calls with reports in the last five minutes.', toFloat64(count())),
        ('bad_calls', 'Calls with a bad figure in the last five minutes.', toFloat64(countIf(severity >= 1)))
    ]) AS row, '' AS labels
    FROM (
        SELECT cityHash64(@CALL@) AS hash, count() AS n, @SEVERITY@ AS severity
        FROM fleet.reports WHERE at >= now() - 300 GROUP BY hash
    )
    UNION ALL
    SELECT arrayJoin([
        ('site_loss_percent', 'Mean loss of the last five minutes.', sum(loss_sum) / sum(n)),
        ('site_mos', 'Mean estimate of speech quality of the last five minutes.', sum(mos_sum) / sum(n))
    ]) AS row, concat('{site="', replaceAll(replaceAll(replaceAll(
        site, '\\', '\\\\'), '"', '\\"'), '\n', '\\n'), '"}') AS labels
    FROM (
        SELECT sn, count() AS n, sum(toFloat64(loss)) AS loss_sum, sum(@MOS@) AS mos_sum
        FROM fleet.reports WHERE at >= now() - 300 GROUP BY sn
    ) AS sums
    ANY LEFT JOIN (SELECT sn, site FROM fleet.units) AS places USING sn
    GROUP BY site
    UNION ALL
    SELECT ('node_up', 'Whether the node answers.', toFloat64(up)) AS row, concat('{node="', node, '"}') AS labels
    FROM (SELECT arrayJoin(arrayJoin(@NODES@)) AS node)
    ANY LEFT JOIN (SELECT name AS node, 1 AS up FROM fleet.nodes) USING node
    UNION ALL
    SELECT arrayJoin([
        ('node_free_bytes', 'Free bytes on the disk of the store.', toFloat64(free_bytes)),
        ('node_size_bytes', 'Size of the disk of the store in bytes.', toFloat64(size_bytes)),
        ('node_spool_files', 'Files that the node has not delivered yet.', toFloat64(spool_files)),
        ('node_broken_files', 'Files that the node has marked as broken.', toFloat64(broken_files)),
        ('node_parts', 'Parts of the reports table.', toFloat64(parts))
    ]) AS row, concat('{node="', name, '"}') AS labels
    FROM fleet.nodes
)
GROUP BY metric ORDER BY metric
