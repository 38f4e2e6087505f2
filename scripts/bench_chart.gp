# The chart of docs/performance.md: one bar per (benchmark, ours, peer) pair
# that has a target, its ratio ours / peer on a logarithmic axis, green when
# the target is met and red when not, with the target's limit as a mark.
# Variables: data (the file scripts/bench_report.py writes), output (PNG).
set terminal pngcairo size 1600,900 font "sans,9"
set output output
set title "KYRT against its peers: ratio ours / peer of time per operation (below 1: ours is faster)"
set logscale y 2
set yrange [0.004:32]
set ylabel "ours / peer"
set grid ytics
set style fill solid 0.8 border -1
set boxwidth 0.7
set xtics rotate by 60 right noenhanced
set key top left
set arrow from graph 0, first 1 to graph 1, first 1 nohead dashtype 2 linecolor rgb "#555555"
plot data using 1:($4 == 1 ? $3 : 1/0):xtic(2) with boxes linecolor rgb "#2e8b57" title "target met", \
     data using 1:($4 == 0 ? $3 : 1/0) with boxes linecolor rgb "#c0392b" title "target not met", \
     data using 1:5 with points pointtype 9 pointsize 1.2 linecolor rgb "#1f3a93" title "target limit"
