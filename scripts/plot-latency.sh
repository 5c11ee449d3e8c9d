#!/bin/sh
# Plots latency histograms in cyclictest's -h format (from cyclictest -h N, or kelvo-latency
# -h N) as one curve per run: counts on a log scale against latency in microseconds.
#
#   scripts/plot-latency.sh [-t title] [-x max_us] -o plot.svg|plot.png [label=]histogram...
#
# Each histogram is a file (or label=file; the label defaults to the file's name without its
# directory and extension). Of a file with several threads, the first thread's column is
# plotted. The x axis ends at max_us, or else a little after the largest bucket with a count in
# any file (counts beyond it are left out of the picture, not of the files). Needs
# gnuplot (apt-get install gnuplot-nox).
set -eu

usage() {
  echo "usage: $0 [-t title] [-x max_us] -o plot.svg|plot.png [label=]histogram..." >&2
  exit 2
}

title="Wake-up latency"
output=""
xlimit=""
while getopts "t:x:o:" option; do
  case "$option" in
    t) title=$OPTARG ;;
    x)
      case "$OPTARG" in
        '' | *[!0-9]* | 0) echo "$0: bad -x '$OPTARG': a whole number of microseconds above 0" >&2; exit 2 ;;
      esac
      xlimit=$OPTARG ;;
    o) output=$OPTARG ;;
    *) usage ;;
  esac
done
shift $((OPTIND - 1))
[ -n "$output" ] || { echo "$0: missing -o plot.svg|plot.png" >&2; usage; }
[ "$#" -gt 0 ] || { echo "$0: no histogram given" >&2; usage; }
case "$output" in
  *.svg) terminal="svg size 900,520 dynamic background rgb 'white'" ;;
  *.png) terminal="pngcairo size 900,520" ;;
  *) echo "$0: bad output '$output': the name must end in .svg or .png" >&2; exit 2 ;;
esac
command -v gnuplot >/dev/null || { echo "$0: gnuplot missing: apt-get install gnuplot-nox" >&2; exit 1; }

# Check every input and find the largest bucket with a count.
top=0
for argument in "$@"; do
  file=${argument#*=}
  [ -f "$file" ] || { echo "$0: no such histogram '$file'" >&2; exit 2; }
  last=$(awk '/^[0-9]+[ \t]+[0-9]+/ { n++; if ($2 + 0 > 0) last = $1 + 0 } END { if (n == 0) print "none"; else print last + 0 }' "$file")
  [ "$last" != none ] || { echo "$0: '$file' holds no histogram lines" >&2; exit 2; }
  [ "$last" -gt "$top" ] && top=$last
done
xmax=${xlimit:-$((top + top / 10 + 2))}

# gnuplot quoting: a label or file name may not contain a double quote.
curves=""
for argument in "$@"; do
  case "$argument" in
    *=*) label=${argument%%=*}; file=${argument#*=} ;;
    *) file=$argument; label=$(basename "$file"); label=${label%.*} ;;
  esac
  case "$label$file" in *'"'*) echo "$0: bad histogram '$argument': no double quotes, please" >&2; exit 2 ;; esac
  [ -n "$curves" ] && curves="$curves, "
  curves="$curves\"$file\" using 1:(\$2 > 0 ? \$2 : 1/0) with steps linewidth 2 title \"$label\""
done

gnuplot <<GNUPLOT
set terminal $terminal
set termoption noenhanced
set output "$output"
set title "$title"
set xlabel "latency (us)"
set ylabel "samples"
set logscale y
set xrange [0:$xmax]
set yrange [0.8:*]
set grid
set key top right
set datafile commentschars "#"
plot $curves
GNUPLOT
echo "wrote $output"
