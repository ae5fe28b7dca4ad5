-- What identifies a call, in voxstat-plot as well: the GCID and TID of a unit.
sn, gcid, tid
