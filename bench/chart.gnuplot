# The picture of docs/performance.md, from ratios.tsv in the current folder.
set terminal svg size 900,620 font "sans-serif,13" background "white"
set output "performance.svg"
set datafile separator "\t"
set style fill solid 0.9 noborder
set boxwidth 0.6
unset key
set border 3
set tics nomirror
set rmargin 14
set multiplot layout 2,1

rows(filter) = sprintf("< grep -E '%s' ratios.tsv | sed -e 's/, without denoising, against plain//' -e 's/, against plain//' -e 's/resampler 44100 to 16000, 4800, //' -e 's/ against ours//' -e 's/, 4800//'", filter)

set title "How many times as fast as the plain loop (blocks of 100 ms or 4800 samples)"
set xtics rotate by -25 left font ",11"
set yrange [0:*]
set ylabel "times"
plot rows("^read .*against plain|^(levels|gain control|de-pop|to 16 bits|resampler [0-9a-z ]*), 4800, against plain") \
  using 0:2:xtic(1) with boxes linecolor rgb "#2a6f97", "" using 0:2:(sprintf("%.1f", $2)) with labels offset 0,0.7

set title "How many times our time others take: 44100 to 16000 Hz, 4800 samples"
set logscale y
set yrange [0.5:*]
plot rows("^resampler 44100 to 16000, 4800, .* against ours") \
  using 0:2:xtic(1) with boxes linecolor rgb "#bc6c25", "" using 0:2:(sprintf("%.1f", $2)) with labels offset 0,0.7
unset multiplot
