-- The expected units.
SELECT sn AS unit, name AS unit_name, site FROM fleet.units ORDER BY site, unit_name, unit
