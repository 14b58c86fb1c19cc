# Draws the samples of a soak: gnuplot -c picture.gnuplot SAMPLES.csv PICTURE.png
set terminal pngcairo size 1200,1250 font 'DejaVu Sans,11' background '#ffffff'
set output ARG2
set datafile separator ','
set datafile columnheaders
samples = ARG1

minutes(seconds) = seconds / 60.0
stats samples using (minutes(column('time'))) name 'T' nooutput
stats samples using (column('cycles')) name 'C' nooutput
stats samples using (column('files')) name 'F' nooutput
set xrange [0:T_max]
set grid ytics linecolor '#dddddd' linetype 1 linewidth 0.5
set border 3 linecolor '#888888'
set tics nomirror out
set key at graph 1, graph 1.16 right horizontal samplen 2
set style fill solid noborder
set yrange [0:*]

# Where files are produced, the ground is shaded.
shade = '#eeeeee'

set multiplot layout 5,1 margins 0.08,0.97,0.05,0.92 spacing 0.055 title sprintf( \
    "skarn at work and idle: %.0f cycles, %.0f files in %.1f minutes (shaded: files are produced)", \
    C_max, F_max, T_max) font ',13'

set label 1 'Memory of the daemon, kB' at graph 0, graph 1.12 left
stats samples using (column('resident')) name 'R' nooutput
set yrange [0:R_max * 1.15]
plot samples using (minutes(column('time'))):(column('full') * R_max * 1.15) with filledcurves y1=0 lc rgb shade notitle, \
    samples using (minutes(column('time'))):'resident' with lines lw 1.5 lc rgb '#d95f02' title 'resident', \
    samples using (minutes(column('time'))):'resident_apart' with lines lw 1.5 lc rgb '#1b6ca8' title 'without the waiting separators'

set label 1 'Separators of idle cycles, waiting in memory for the next line of the log' at graph 0, graph 1.12 left
stats samples using (column('separators')) name 'S' nooutput
top = S_max * 1.15 + 1
set yrange [0:top]
plot samples using (minutes(column('time'))):(column('full') * top) with filledcurves y1=0 lc rgb shade notitle, \
    samples using (minutes(column('time'))):'separators' with lines lw 1.5 lc rgb '#d95f02' notitle

set label 1 'Open descriptors, threads' at graph 0, graph 1.12 left
stats samples using (column('descriptors')) name 'D' nooutput
top = D_max * 1.15
set yrange [0:top]
plot samples using (minutes(column('time'))):(column('full') * top) with filledcurves y1=0 lc rgb shade notitle, \
    samples using (minutes(column('time'))):'descriptors' with lines lw 1 lc rgb '#1b6ca8' title 'descriptors', \
    samples using (minutes(column('time'))):'threads' with lines lw 1 lc rgb '#d95f02' title 'threads'

set label 1 'Zombies, files in /tmp and in the journal''s folder' at graph 0, graph 1.12 left
stats samples using (column('tmp_files')) name 'P' nooutput
stats samples using (column('journal_files')) name 'J' nooutput
top = (P_max > J_max ? P_max : J_max) * 1.15 + 1
set yrange [0:top]
plot samples using (minutes(column('time'))):(column('full') * top) with filledcurves y1=0 lc rgb shade notitle, \
    samples using (minutes(column('time'))):'tmp_files' with lines lw 1 lc rgb '#1b6ca8' title 'in /tmp', \
    samples using (minutes(column('time'))):'journal_files' with lines lw 1 lc rgb '#1b9e77' title 'in the journal', \
    samples using (minutes(column('time'))):'zombies' with lines lw 1 lc rgb '#d95f02' title 'zombies'

set label 1 'Cycles so far' at graph 0, graph 1.12 left
set xlabel 'minutes'
top = C_max * 1.15 + 1
set yrange [0:top]
plot samples using (minutes(column('time'))):(column('full') * top) with filledcurves y1=0 lc rgb shade notitle, \
    samples using (minutes(column('time'))):'cycles' with lines lw 1.5 lc rgb '#1b6ca8' notitle
unset multiplot
