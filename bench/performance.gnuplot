# How the processor time per report grows. For scripts/bench --plot, which sets scratch: a folder with
# the files rates, fields and levels; columns: x, bare drain, daemon, in nanoseconds.
us = 1000.0

set terminal svg size 960,340 font 'sans-serif,11' background rgb 'white'
do for [file in 'rates fields levels'] {
    stats scratch.'/'.file using ($3/us) name file nooutput
}
highest = rates_max > fields_max ? rates_max : fields_max
highest = levels_max > highest ? levels_max : highest
set yrange [0:1.05 * highest]
set grid ytics lc rgb '#dddddd'
set key top right opaque
set border 3
set tics nomirror
set multiplot layout 1,3
bare = '#888888'
own = '#1f6fb4'

set xlabel 'reports a second, in bursts of 20'
set ylabel 'processor time per report, µs'
set logscale x
set xtics (500, 1000, 2000, 5000)
set xrange [400:8000]
plot scratch.'/rates' using 1:($3/us) with linespoints pt 7 lc rgb own title 'daemon', \
     scratch.'/rates' using 1:($2/us) with linespoints pt 6 lc rgb bare title 'bare drain'

unset logscale x
unset ylabel
set xlabel 'fields in a report'
set xtics 5
set xrange [4:27]
plot scratch.'/fields' using 1:($3/us) with linespoints pt 7 lc rgb own title 'daemon', \
     scratch.'/fields' using 1:($2/us) with linespoints pt 6 lc rgb bare title 'bare drain'

unset key
set xlabel 'level of all log groups'
set xtics ('error' 0, 'warn' 1, 'info' 2, 'trace' 3, 'debug' 4)
set xrange [-0.5:4.5]
set style fill solid
set boxwidth 0.6
plot scratch.'/levels' using 1:($3/us) with boxes lc rgb own title 'daemon', \
     scratch.'/levels' using 1:($2/us) with lines lc rgb bare title 'bare drain'
