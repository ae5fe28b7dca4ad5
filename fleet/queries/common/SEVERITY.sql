-- How bad a call is, in voxstat-plot as well: its worst figure divided by the threshold of that figure. A call is bad
-- from 1 on.
greatest(max(loss), if({ms:Float64} > 0, {ms:Float64}, 1) * greatest(max(jitter) / 30, max(rtt) / 300))
