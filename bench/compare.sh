#!/usr/bin/env bash
# The measurements of bench/run, inside the sandbox: the daemon and dnsmasq side by side, with the
# same names, the same upstream server and the same load, in turn.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH=$PWD/build/release/bin:$PATH:/usr/sbin:/sbin

readonly ROUNDS=${ROUNDS:-3} SECONDS_EACH=${SECONDS_EACH:-5}
# How far off the upstream server is, in milliseconds.
readonly DELAYS=${DELAYS:-0 5 20 50 100}
readonly WORK=$PWD/build/bench OURS=192.168.8.1 THEIRS=10.53.0.4 UPSTREAM=10.53.0.1 DEAD=10.53.0.2
# What a busy home network asks in a second, for the latency; and a quiet one.
readonly CALM=1000 QUIET=20
# Recorded queries a second of a home, and for how long they come.
readonly HOME_RATE=5 HOME_SECONDS=${HOME_SECONDS:-60}
# Of each server, and of the upstream. The daemon is "vantrelled" when it forwards one query at a
# time, "concurrent" when it forwards many at once, "late" when rows of the database wait; dnsmasq is
# "logging" when it logs each query into a file.
declare -A process
# Half of the kernel's default, which dnsmasq gets: the kernel doubles what it is asked for.
readonly BUFFER=$(($(</proc/sys/net/core/rmem_default) / 2))

record() { printf '%s\n' "$*" >>"$WORK/figures"; } # what, who, figure
now() { printf '%s' "${EPOCHREALTIME/./}"; }       # microseconds

start_upstream() { # milliseconds of delay, -1 for a silent one
	if [[ ${process[upstream]-} ]]; then
		kill "${process[upstream]}"
		wait "${process[upstream]}" || true # by the signal
	fi
	slow_upstream "$UPSTREAM" "$1" &
	process[upstream]=$!
}

# queries at once, primary server, record_traffic, TCP connections, stats_write_delay, stats_db_path
configure() {
	cat >/etc/config/vantrelle <<-END
		config main
		    option upstream_dns '${2:-$UPSTREAM}'
		    option upstream_dns2 '$UPSTREAM'
		    option upstream_dns3 '$UPSTREAM'
		    option upstream_dns4 '$UPSTREAM'
		    option path '/etc/vantrelle'
		    option stats_db_path '${6:-$WORK}'
		    option concurrent_queries '$1'
		    option tcp_connections '${4:-0}'
		    option socket_buffer_size '$BUFFER'
		    option record_traffic '${3:-0}'
		    option stats_write_delay '${5:-0}'
	END
}

# Starts a server and waits for its first answer.
start() { # who, address, command
	local who=$1 address=$2 started
	started=$(now)
	"${@:3}" >"$WORK/$who.log" 2>&1 &
	process[$who]=$!
	bench_tool wait "$address"
	took=$(($(now) - started))
}
start_ours() { start "${1:-vantrelled}" "$OURS" vantrelled; }
start_theirs() { # how it runs
	start dnsmasq "$THEIRS" dnsmasq "${1:---no-daemon}" --conf-file="$WORK/dnsmasq.conf"
}
# The daemon stops with the next query.
stop_ours() {
	local who=${1:-vantrelled}
	kill "${process[$who]}"
	dnsperf -s "$OURS" -d "$WORK/blocked" -q 1 -Q 20 -l 1 -t 1 >/dev/null 2>&1 || true
	wait "${process[$who]}"
}
stop_theirs() {
	kill "${process[dnsmasq]}"
	wait "${process[dnsmasq]}" || true
}

# Ticks of processor time that a process has used.
ticks() { awk '{ print $14 + $15 }' "/proc/${process[$1]}/stat"; }
# Bytes that a process has written to the disk.
written() { awk '/^write_bytes/ { print $2 }' "/proc/${process[$1]}/io"; }
# Has the daemon write the rows that wait.
write_rows() {
	[[ $1 != logging ]] || return 0
	kill -USR2 "${process[$1]}"
	sleep 1
}
resident() { awk '/VmRSS/ { print $2 }' "/proc/${process[$1]}/status"; }

# As many queries a second as the server takes, and what they cost. All must be answered rightly;
# but a thousand queries in one moment overflow the buffers of sockets, and how many are lost so is
# a figure, too.
load() { # what, who, address, queries, expected response code, queries outstanding, patience
	local before bytes output
	before=$(ticks "$2") bytes=$(written "$2")
	output=$(dnsperf -m "${transport:-udp}" -s "$3" -d "$WORK/$4" -c 4 -q "${6:-100}" -t "${7:-20}" -l "$SECONDS_EACH" 2>/dev/null)
	[[ $1 != *_recorded ]] || write_rows "$2"
	awk -v what="$1" -v who="$2" -v ticks=$(($(ticks "$2") - before)) \
		-v bytes=$(($(written "$2") - bytes)) -v hz="$(getconf CLK_TCK)" \
		-v code="$5" -v tolerated="${tolerated:-$((${6:-0} < 1000 ? 1 : 300))}" '
		/Queries completed:/ { completed = $3 }
		/Queries lost:/ { lost = $3 }
		/Response codes:/ { right = $3 == code && NF == 5 }
		/Queries per second:/ { rate = $4 }
		END {
			if (!right || lost > completed * tolerated / 1000) {
				print what, who ": wrong answers, or of", completed, "queries", lost, "lost" >"/dev/stderr"
				exit 1
			}
			print what, who, rate
			print what "_lost", who, lost / completed * 100
			print what "_cpu", who, ticks / hz / completed * 1e6
			print what "_written", who, bytes / completed * 1000 / 1024
		}' <<<"$output" >>"$WORK/figures"
}

# Latency of a calm stream of queries, in microseconds, and how many of a hundred were lost.
latency() { # what, who, address, queries
	dnsperf -s "$3" -d "$WORK/$4" -Q "$CALM" -l "$SECONDS_EACH" -v >"$WORK/answers" 2>/dev/null
	awk '/^>/ && $2 != "T" { print $NF * 1e6 }' "$WORK/answers" | sort -n |
		awk -v what="$1" -v who="$2" '
			{ value[NR] = $1 }
			END {
				print what "_median", who, value[int((NR + 1) / 2)]
				print what "_p99", who, value[int(NR * 0.99) + 1]
			}' >>"$WORK/figures"
	record "$1_p99_lost" "$2" "$(awk '/Queries lost:/ { print $4 }' "$WORK/answers" | tr -d '(%)')"
}

prepare() {
	# dnsmasq shows nothing on LEDs, and the sandbox's device is a file that only grows.
	rm /dev/ledchain0
	rm -rf "$WORK"
	mkdir -p "$WORK" /etc/vantrelle
	bench_tool names "$WORK"
	paste -d '\n' "$WORK/blocked" "$WORK/clean" | sed -n 1,2000p |
		shuf --random-source="$WORK/clean" >"$WORK/names"
	{
		printf '%s\n' no-resolv no-hosts cache-size=0 bind-interfaces \
			"listen-address=$THEIRS" "server=$UPSTREAM" dns-forward-max=2000 "pid-file=" "user=root"
		sed 's|.*|address=/&/255.255.255.255|' "$WORK/black.lst"
	} >"$WORK/dnsmasq.conf"
	start_upstream 0
	echo "Importing the list"
	cp "$WORK/black.lst" /etc/vantrelle/
	configure 0
	start_ours
	record import vantrelled "$took"
	stop_ours
}

measure() {
	local who address code
	for who in vantrelled dnsmasq; do
		[[ $who == vantrelled ]] && address=$OURS code=NXDOMAIN || address=$THEIRS code=NOERROR
		"$1" "$who" "$address" "$code"
	done
}
at_full_speed() {
	load blocked "$1" "$2" blocked "$3"
	load forwarded "$1" "$2" clean NOERROR
	record memory "$1" "$(resident "$1")"
}
calmly() {
	latency blocked "$1" "$2" blocked
	latency forwarded "$1" "$2" clean
}

side_by_side() {
	start_upstream 0
	configure 0
	start_ours
	record start vantrelled "$took"
	start_theirs
	record start dnsmasq "$took"
	measure at_full_speed
	measure calmly
	stop_theirs
	stop_ours
}

recorded() { # who, address, response code of blocked queries
	load blocked_recorded "$1" "$2" blocked "$3"
	load forwarded_recorded "$1" "$2" clean NOERROR
}
# Rows at once, rows that wait, and dnsmasq with each query in a file.
side_by_side_recorded() {
	configure 0 "$UPSTREAM" 1
	start_ours
	recorded vantrelled "$OURS" NXDOMAIN
	stop_ours
	configure 0 "$UPSTREAM" 1 0 10
	start_ours late
	recorded late "$OURS" NXDOMAIN
	stop_ours late
	start logging "$THEIRS" dnsmasq --no-daemon --conf-file="$WORK/dnsmasq.conf" \
		--log-queries --log-facility="$WORK/dnsmasq.queries"
	recorded logging "$THEIRS" NOERROR
	kill "${process[logging]}"
	wait "${process[logging]}" || true
	rm "$WORK/dnsmasq.queries"
}

# What a home's queries make the daemon write: 2,000 names, half of them blocked, all of which were
# asked for before.
at_home() { # who, stats_write_delay
	local bytes
	rm -rf "${WORK:?}/home"
	mkdir "$WORK/home"
	cp "$WORK/black.lst" /etc/vantrelle/
	configure 0 "$UPSTREAM" 1 0 "$2" "$WORK/home"
	start_ours "$1"
	dnsperf -s "$OURS" -d "$WORK/names" -n 1 >/dev/null 2>&1
	write_rows "$1"
	bytes=$(written "$1")
	dnsperf -s "$OURS" -d "$WORK/names" -Q "$HOME_RATE" -l "$HOME_SECONDS" >/dev/null 2>&1
	write_rows "$1"
	bytes=$(($(written "$1") - bytes))
	record home_written "$1" $((bytes * 1000 / 1024 / (HOME_RATE * HOME_SECONDS)))
	stop_ours "$1"
}

# Queries a second over the distance of the upstream server. How many are outstanding makes no
# difference to the daemon when it forwards one at a time.
over_delays() {
	local delay outstanding
	configure 0
	start_ours
	for delay in $DELAYS; do
		start_upstream "$delay"
		load "delay_${delay}_50" vantrelled "$OURS" clean NOERROR 50
	done
	stop_ours
	configure 1000
	start_ours concurrent
	start_theirs
	for delay in $DELAYS; do
		start_upstream "$delay"
		for outstanding in 50 1000; do
			load "delay_${delay}_$outstanding" concurrent "$OURS" clean NOERROR "$outstanding" 1
			load "delay_${delay}_$outstanding" dnsmasq "$THEIRS" clean NOERROR "$outstanding" 1
		done
	done
	stop_theirs
	stop_ours concurrent
}

# Over TCP: four connections, with fifty queries outstanding. dnsmasq, which has a process for each
# connection unless it is debugged, closes it after a hundred queries, and some are lost then.
over_tcp() {
	local -r transport=tcp tolerated=50
	start_upstream 0
	configure 1000 "$UPSTREAM" 0 20
	start_ours concurrent
	start_theirs --keep-in-foreground
	load tcp_blocked concurrent "$OURS" blocked NXDOMAIN 50
	load tcp_blocked dnsmasq "$THEIRS" blocked NOERROR 50
	load tcp_forwarded concurrent "$OURS" clean NOERROR 50
	load tcp_forwarded dnsmasq "$THEIRS" clean NOERROR 50
	stop_theirs
	stop_ours concurrent
}

# Blocked queries while the upstream server is silent and more are to be forwarded than can wait.
while_silent() { # who, address
	local flood
	start_upstream -1
	dnsperf -s "$2" -d "$WORK/clean" -q 10000 -t 1 -Q 2000 -l $((SECONDS_EACH + 3)) >/dev/null 2>&1 &
	flood=$!
	sleep 2
	latency silent "$1" "$2" blocked
	wait "$flood"
}

# A stream of queries to a daemon whose primary server is silent: when the first answer comes, in
# milliseconds after the first query, and how many clients get none in five seconds. Queries leave in
# the order of their file, one every 1 / QUIET s.
failover() { # who
	start_ours "$1"
	dnsperf -s "$OURS" -d "$WORK/clean" -Q "$QUIET" -l 15 -t 5 -v 2>/dev/null |
		awk -v who="$1" -v quiet="$QUIET" '
			NR == FNR { sent[$1] = (NR - 1) / quiet; next }
			/^>/ && $2 != "T" {
				time = sent[$3] + $NF
				if (first == "" || time < first)
					first = time
			}
			/Queries lost:/ { lost = $3 }
			END {
				print "failover", who, first * 1000
				print "unanswered", who, lost
			}' "$WORK/clean" - >>"$WORK/figures"
	stop_ours "$1"
}

# Resident memory after many queries had to wait.
memory_at_300() { # who
	start_ours "$1"
	load filled "$1" "$OURS" clean NOERROR 250
	record memory_300 "$1" "$(resident "$1")"
	stop_ours "$1"
}

round() {
	local who
	side_by_side
	side_by_side_recorded
	over_delays
	over_tcp
	configure 1000
	start_ours concurrent
	while_silent concurrent "$OURS"
	stop_ours concurrent
	start_theirs
	while_silent dnsmasq "$THEIRS"
	stop_theirs
	start_upstream 20
	for who in vantrelled concurrent; do
		configure "$([[ $who == concurrent ]] && echo 300 || echo 0)"
		memory_at_300 "$who"
	done
	start_upstream 0
	slow_upstream "$DEAD" -1 &
	process[dead]=$!
	for who in vantrelled concurrent; do
		configure "$([[ $who == concurrent ]] && echo 300 || echo 0)" "$DEAD"
		failover "$who"
	done
	kill "${process[dead]}"
	wait "${process[dead]}" || true
}

# Figures in the order in which MEDIAN, with which awk programs begin, takes medians over the rounds.
sorted() { sort -k1,2 -k3,3g "$WORK/figures"; }
# shellcheck disable=SC2016 # awk expands it
readonly MEDIAN='
	{ count[$1, $2]++; value[$1, $2, count[$1, $2]] = $3 }
	function median(what, who) { return value[what, who, int((count[what, who] + 1) / 2)] }
	function shown(format, figure) { return figure == "" ? "" : sprintf(format, figure) }
	function ratio(ours, theirs) { return theirs > 0 ? sprintf("%.2f", ours / theirs) : "" }'

# One query at a time beside dnsmasq.
table() {
	sorted | awk "$MEDIAN"'
		function line(what, text, scale, format,    a, b, right) {
			a = median(what, "vantrelled") * scale
			b = median(what, "dnsmasq") * scale
			right = b ? sprintf(format " | %.2f", b, a / b) : " | "
			printf "| %s | " format " | %s |\n", text, a, right
		}
		END {
			print "| | vantrelled | dnsmasq | ratio |"
			print "|---|---:|---:|---:|"
			line("blocked", "blocked queries a second", 1, "%.0f")
			line("forwarded", "forwarded queries a second", 1, "%.0f")
			line("blocked_median", "latency blocked, median, µs", 1, "%.0f")
			line("blocked_p99", "latency blocked, 99 %, µs", 1, "%.0f")
			line("forwarded_median", "latency forwarded, median, µs", 1, "%.0f")
			line("forwarded_p99", "latency forwarded, 99 %, µs", 1, "%.0f")
			line("start", "start to first answer, ms", 0.001, "%.0f")
			line("memory", "resident memory, MiB", 1 / 1024, "%.1f")
			line("blocked_cpu", "processor seconds, a million blocked", 1, "%.1f")
			line("forwarded_cpu", "processor seconds, a million forwarded", 1, "%.1f")
		}'
}

# With each query recorded.
table_of_records() {
	sorted | awk -v rate="$HOME_RATE" "$MEDIAN"'
		function line(what, text, format) {
			printf "| %s | %s | %s | %s | %s |\n", text, shown(format, median(what, "vantrelled")),
				shown(format, median(what, "late")), shown(format, median(what, "logging")),
				ratio(median(what, "late"), median(what, "logging"))
		}
		END {
			print "| with `record_traffic` 1 | at once | `stats_write_delay` 10 | dnsmasq, `log-queries` | delay : dnsmasq |"
			print "|---|---:|---:|---:|---:|"
			line("blocked_recorded", "blocked queries a second", "%.0f")
			line("forwarded_recorded", "forwarded queries a second", "%.0f")
			line("blocked_recorded_cpu", "processor seconds, a million blocked", "%.1f")
			line("forwarded_recorded_cpu", "processor seconds, a million forwarded", "%.1f")
			line("blocked_recorded_written", "KiB written, a thousand blocked", "%.0f")
			line("forwarded_recorded_written", "KiB written, a thousand forwarded", "%.0f")
			line("home_written", "KiB written, a thousand at " rate " a second (delay 60)", "%.0f")
		}'
}

# Both ways of forwarding, and dnsmasq.
table_of_ways() {
	sorted | awk -v delays="$DELAYS" "$MEDIAN"'
		function cell(what, who, format,    lost) {
			lost = median(what "_lost", who)
			return shown(format, median(what, who)) (lost < 0.1 ? "" : shown(" (%.1f %% lost)", lost))
		}
		function line(what, text, format) {
			printf "| %s | %s | %s | %s | %s |\n", text, cell(what, "vantrelled", format),
				cell(what, "concurrent", format), cell(what, "dnsmasq", format),
				ratio(median(what, "concurrent"), median(what, "dnsmasq"))
		}
		END {
			print "| | one at a time | many at once | dnsmasq | many at once : dnsmasq |"
			print "|---|---:|---:|---:|---:|"
			split("50 1000", outstanding)
			for (i = 1; i <= 2; i++)
				for (d = 1; d <= split(delays, delay); d++)
					line("delay_" delay[d] "_" outstanding[i], "upstream " delay[d] " ms away, " \
						outstanding[i] " outstanding, forwarded a second", "%.0f")
			line("tcp_blocked", "over TCP, 50 outstanding, blocked a second", "%.0f")
			line("tcp_forwarded", "over TCP, 50 outstanding, forwarded a second", "%.0f")
			line("silent_p99", "silent upstream, latency blocked, 99 %, µs", "%.0f")
			line("failover", "dead primary: first answer after, ms", "%.0f")
			line("unanswered", "dead primary: clients without an answer", "%d")
			line("memory_300", "resident memory with 300 at once, KiB", "%.0f")
		}'
}

# What the plot shows: delay; one at a time; many at once and dnsmasq, 50 and 1,000 outstanding.
delays() {
	sorted | awk -v delays="$DELAYS" "$MEDIAN"'
		END {
			for (d = 1; d <= split(delays, delay); d++) {
				row = "delay_" delay[d] "_"
				print delay[d], median(row 50, "vantrelled"), median(row 50, "concurrent"),
					median(row 50, "dnsmasq"), median(row 1000, "concurrent"),
					median(row 1000, "dnsmasq")
			}
		}'
}

prepare
for ((n = 1; n <= ROUNDS; n++)); do
	echo "Round $n of $ROUNDS"
	round
done
start_upstream 0
at_home vantrelled 0
at_home late 60
table | tee "$WORK/table.md"
echo
table_of_records | tee "$WORK/records.md"
echo
table_of_ways | tee "$WORK/ways.md"
delays >"$WORK/delays"
# For the first panel of the plot: what, ours, theirs.
for what in blocked forwarded; do
	awk -F' *[|] *' -v what="$what" '$2 == what " queries a second" { print what, $3, $4 }' "$WORK/table.md"
done >"$WORK/rates"
