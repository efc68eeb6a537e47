#!/usr/bin/env bash
# The measurements of bench/run, inside the sandbox: the daemon and dnsmasq side by side, with the
# same names, the same upstream server and the same load, in turn.
set -euo pipefail
cd "$(dirname "$0")/.."
export PATH=$PWD/build/release/bin:$PATH:/usr/sbin:/sbin

readonly ROUNDS=${ROUNDS:-3} SECONDS_EACH=${SECONDS_EACH:-5}
readonly WORK=$PWD/build/bench OURS=192.168.8.1 THEIRS=10.53.0.4 UPSTREAM=10.53.0.1
# What a busy home network asks in a second, for the latency.
readonly CALM=1000
declare -A process # of each server, and of the upstream

record() { printf '%s\n' "$*" >>"$WORK/figures"; } # what, who, figure
now() { printf '%s' "${EPOCHREALTIME/./}"; }       # microseconds

start_upstream() { # milliseconds of delay
	if [[ ${process[upstream]-} ]]; then
		kill "${process[upstream]}"
		wait "${process[upstream]}" || true # by the signal
	fi
	slow_upstream "$UPSTREAM" "$1" &
	process[upstream]=$!
}

configure() { # record_traffic
	cat >/etc/config/vantrelle <<-END
		config main
		    option upstream_dns '$UPSTREAM'
		    option upstream_dns2 '$UPSTREAM'
		    option upstream_dns3 '$UPSTREAM'
		    option upstream_dns4 '$UPSTREAM'
		    option path '/etc/vantrelle'
		    option stats_db_path '$WORK'
		    option record_traffic '$1'
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
start_ours() { start vantrelled "$OURS" vantrelled; }
start_theirs() {
	start dnsmasq "$THEIRS" dnsmasq --no-daemon --conf-file="$WORK/dnsmasq.conf"
}
# The daemon stops with the next query.
stop_ours() {
	kill "${process[vantrelled]}"
	dnsperf -s "$OURS" -d "$WORK/clean" -q 1 -Q 20 -l 1 -t 1 >/dev/null 2>&1 || true
	wait "${process[vantrelled]}"
}
stop_theirs() {
	kill "${process[dnsmasq]}"
	wait "${process[dnsmasq]}" || true
}

# Ticks of processor time that a process has used.
ticks() { awk '{ print $14 + $15 }' "/proc/${process[$1]}/stat"; }
resident() { awk '/VmRSS/ { print $2 }' "/proc/${process[$1]}/status"; }

# As many queries a second as the server takes, and what they cost. All must be answered rightly.
load() { # what, who, address, queries, expected response code
	local before output
	before=$(ticks "$2")
	output=$(dnsperf -s "$3" -d "$WORK/$4" -c 4 -q 100 -t 20 -l "$SECONDS_EACH" 2>/dev/null)
	awk -v what="$1" -v who="$2" -v ticks=$(($(ticks "$2") - before)) -v hz="$(getconf CLK_TCK)" \
		-v code="$5" '
		/Queries completed:/ { completed = $3 }
		/Queries lost:/ { lost = $3 }
		/Response codes:/ { right = $3 == code && NF == 5 }
		/Queries per second:/ { rate = $4 }
		END {
			if (!right || lost > completed / 1000) {
				print what, who ": wrong or lost answers" >"/dev/stderr"
				exit 1
			}
			print what, who, rate
			print what "_cpu", who, ticks / hz / completed * 1e6
		}' <<<"$output" >>"$WORK/figures"
}

# Latency of a calm stream of queries, in microseconds.
latency() { # what, who, address, queries
	dnsperf -s "$3" -d "$WORK/$4" -Q "$CALM" -l "$SECONDS_EACH" -v 2>/dev/null |
		awk '/^>/ { print $NF * 1e6 }' | sort -n |
		awk -v what="$1" -v who="$2" '
			{ value[NR] = $1 }
			END {
				print what "_median", who, value[int((NR + 1) / 2)]
				print what "_p99", who, value[int(NR * 0.99) + 1]
			}' >>"$WORK/figures"
}

prepare() {
	# dnsmasq shows nothing on LEDs, and the sandbox's device is a file that only grows.
	rm /dev/ledchain0
	rm -rf "$WORK"
	mkdir -p "$WORK" /etc/vantrelle
	bench_tool names "$WORK"
	{
		printf '%s\n' no-resolv no-hosts cache-size=0 bind-interfaces \
			"listen-address=$THEIRS" "server=$UPSTREAM" "pid-file=" "user=root"
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

round() {
	local delay
	start_upstream 0
	configure 0
	start_ours
	record start vantrelled "$took"
	start_theirs
	record start dnsmasq "$took"
	measure at_full_speed
	measure calmly
	for delay in 20 50; do
		start_upstream "$delay"
		load "forwarded_${delay}ms" vantrelled "$OURS" clean NOERROR
		load "forwarded_${delay}ms" dnsmasq "$THEIRS" clean NOERROR
	done
	stop_theirs
	stop_ours
	start_upstream 0
	configure 1
	start_ours
	load blocked_recorded vantrelled "$OURS" blocked NXDOMAIN
	load forwarded_recorded vantrelled "$OURS" clean NOERROR
	stop_ours
}

# Medians over the rounds, and ours in relation to theirs.
table() {
	sort -k1,2 -k3,3g "$WORK/figures" | awk '
		{ count[$1, $2]++; value[$1, $2, count[$1, $2]] = $3 }
		function median(what, who) { return value[what, who, int((count[what, who] + 1) / 2)] }
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
			line("blocked_recorded", "blocked, with `record_traffic` 1", 1, "%.0f")
			line("forwarded_recorded", "forwarded, with `record_traffic` 1", 1, "%.0f")
			line("forwarded_20ms", "forwarded, upstream answers after 20 ms", 1, "%.0f")
			line("forwarded_50ms", "forwarded, upstream answers after 50 ms", 1, "%.0f")
			line("blocked_median", "latency blocked, median, µs", 1, "%.0f")
			line("blocked_p99", "latency blocked, 99 %, µs", 1, "%.0f")
			line("forwarded_median", "latency forwarded, median, µs", 1, "%.0f")
			line("forwarded_p99", "latency forwarded, 99 %, µs", 1, "%.0f")
			line("start", "start to first answer, ms", 0.001, "%.0f")
			line("memory", "resident memory, MiB", 1 / 1024, "%.1f")
			line("blocked_cpu", "processor seconds, a million blocked", 1, "%.1f")
			line("forwarded_cpu", "processor seconds, a million forwarded", 1, "%.1f")
			line("blocked_recorded_cpu", "the same, recorded, blocked", 1, "%.1f")
			line("forwarded_recorded_cpu", "the same, recorded, forwarded", 1, "%.1f")
		}'
}

prepare
for ((n = 1; n <= ROUNDS; n++)); do
	echo "Round $n of $ROUNDS"
	round
done
table | tee "$WORK/table.md"
# For the plot: what, ours, theirs.
for what in blocked forwarded; do
	awk -F' *[|] *' -v what="$what" '$2 == what " queries a second" { print what, $3, $4 }' "$WORK/table.md"
done >"$WORK/rates"
