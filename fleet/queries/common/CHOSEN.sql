-- The reports of the chosen time and units.
at >= toDateTime({from:UInt32}) AND at < toDateTime({to:UInt32}) AND @UNITS@
