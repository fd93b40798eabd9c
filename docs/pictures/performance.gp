# The plots of docs/performance.md, from ../performance.tsv: time against the number of objects, and the smallest jobs.
# Which one stands in `plot`.
set terminal svg size 860,440 font "Helvetica,Arial,sans-serif,13" noenhanced background "#ffffff"
set border 3 linecolor rgb "#5f6f80"
set tics nomirror textcolor rgb "#24303c"
set title textcolor rgb "#24303c"
set xlabel textcolor rgb "#24303c"
set ylabel textcolor rgb "#24303c"
set key top left reverse Left samplen 2 textcolor rgb "#24303c"
set grid y linecolor rgb "#c9d5e0" linetype 1
set style line 1 linecolor rgb "#1a6fb5" linewidth 3 pointtype 7 pointsize 0.7
set style line 2 linecolor rgb "#b7891b" linewidth 2 pointtype 5 pointsize 0.7
set style line 3 linecolor rgb "#3d8b54" linewidth 2 pointtype 9 pointsize 0.9

# Number, time and its quartiles in microseconds, of the jobs whose names begin so, by one way: multiples of the floor
# that was measured with the library, whose line is the first.
times(job, way) = sprintf("< awk -F'\\t' -v OFS='\\t' '$2 == \"library\" { floor = $3 } " \
    . "$1 ~ \"^%s\" && $2 == \"%s\" " \
    . "{ n = $1; gsub(/[^0-9]/, \"\", n); print n, floor * $4, floor * $5, floor * $6 }' ../performance.tsv", job, way)

if (plot ne "smallest") {
    set logscale xy
    set format y "%g us"
    set xtics (10, 30, 100, 300, 1000, 3000, 10000)
    set xrange [8:plot eq "SAs" ? 1300 : 13000]
    job = plot eq "rules" ? "rule among" : plot eq "labels" ? "label over" : "pair of SAs among"
    set title plot eq "rules" ? "The mark of a device's rule, among so many rules" : plot eq "labels" ? \
        "A label that is free, over so many labels" : "A pair of SAs added and removed, among so many (User-Mode Linux)"
    plot for [i = 1:3] times(job, word("library libmnl libnl", i)) using 1:2:3:4 with yerrorlines linestyle i \
        title word("libvesk_netlink libmnl libnl", i)
    exit
}

# A cluster of bars for each of the smallest jobs: their names, then ratio and quartiles of each way.
set xtics scale 0
set yrange [0:*]
set title "The smallest jobs, in multiples of the floor: the same system calls and nothing else"
set key outside bottom center horizontal
set style data histograms
set style histogram errorbars gap 2 linewidth 1
set style fill solid 0.9 border rgb "#5f6f80"
smallest = "< awk -F'\\t' '/^(policy|label,|gateway|rule among 16|label over 10\\t|pair of SAs among 10,)/ " \
    . "&& $2 != \"ip\" { if (!($1 in row)) name[++n] = $1; row[$1] = row[$1] \"\\t\" $4 \"\\t\" $5 \"\\t\" $6 } " \
    . "END { for (i = 1; i <= n; ++i) { short = name[i]; sub(/ of a route| among 10,.*|,.*/, \"\", short); " \
    . "print short row[name[i]] } }' ../performance.tsv"
set datafile separator "\t"
array colour[5] = ["#1a6fb5", "#b7891b", "#fdf1d3", "#3d8b54", "#dff3e4"]
array name[5] = ["libvesk_netlink", "libmnl", "libmnl, socket kept", "libnl", "libnl, socket kept"]
plot for [i = 1:5] smallest using 3*i-1:3*i:3*i+1:xtic(1) linecolor rgb colour[i] title name[i]
