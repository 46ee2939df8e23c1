# The cost of one durable change against the size of the tree: the library (solid), the
# floor of the same statements (dashed), and one fsync (grey). Called by scripts/bench.sh:
#   gnuplot -e "datafile='change_cost.dat'; outfile='change_cost.png'" bench/change_cost.gp
set terminal pngcairo size 960,600 font ",11"
set output outfile
set title "One durable change against tree size (medians; WAL, synchronous=FULL)"
set xlabel "nodes in the tree (rows of the table)"
set ylabel "milliseconds per change"
set logscale xy
set grid xtics ytics mytics
set key top left box opaque
set xtics ("1k" 1111, "10k" 10111, "100k" 100111, "1M" 1000111)
set xrange [800:1400000]
plot datafile using 1:3 with linespoints lw 2 lc rgb "#1f77b4" pt 7 title "SetValue", \
     ''       using 1:4 with linespoints lw 2 dt 2 lc rgb "#1f77b4" pt 6 title "SetValue floor", \
     ''       using 1:9 with linespoints lw 2 lc rgb "#2ca02c" pt 5 title "SetAttribute", \
     ''       using 1:10 with linespoints lw 2 dt 2 lc rgb "#2ca02c" pt 4 title "SetAttribute floor", \
     ''       using 1:12 with linespoints lw 2 lc rgb "#d62728" pt 9 title "CreateSetting", \
     ''       using 1:13 with linespoints lw 2 dt 2 lc rgb "#d62728" pt 8 title "CreateSetting floor", \
     ''       using 1:15 with linespoints lw 2 lc rgb "#9467bd" pt 11 title "DeleteSetting", \
     ''       using 1:16 with linespoints lw 2 dt 2 lc rgb "#9467bd" pt 10 title "DeleteSetting floor", \
     ''       using 1:2 with lines lw 2 lc rgb "#7f7f7f" title "one fsync"
