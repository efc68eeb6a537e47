#!/usr/bin/env bash
# The tour that scripts/run gives: every step is a function that tells what it does, does it with
# the real programs, and checks what came of it. A step that does not show what it should ends the
# tour with status 1.
set -euo pipefail
cd "$(dirname "$0")/.."

readonly LOG=/run/sandbox/log ROUTER=192.168.8.1 CLIENT=192.168.8.20
export PATH=$PWD/build/release/bin:$PATH:/usr/sbin:/sbin
daemon="" upstreams=()

if [[ ! -e $LOG ]]; then
	echo "The tour rewrites files under /etc: start it with scripts/run." >&2
	exit 1
fi
if [[ -t 1 ]]; then
	bold=$'\e[1m' green=$'\e[32m' red=$'\e[31m' dim=$'\e[2m' plain=$'\e[0m'
else
	bold="" green="" red="" dim="" plain=""
fi

# How the tour speaks

title() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }
say() { printf '%s\n' "$@"; }
indent() { sed 's/^/    /'; }
good() { printf '  %sok%s  %s\n' "$green" "$plain" "$*"; }
fail() {
	printf '  %sFAILED%s  %s\n' "$red" "$plain" "$*"
	printf '\nThe last lines of the log:\n'
	tail -n 20 "$LOG" | indent
	exit 1
}

# What the tour does and looks at

# Waits up to ten seconds until a command succeeds.
eventually() {
	local try
	for ((try = 0; try < 200; try++)); do
		! "$@" || return 0
		sleep 0.05
	done
	return 1
}
logged() { grep -qF -- "$1" "$LOG"; }
expect_log() { # text, which is then shown as the log has it
	eventually logged "$1" || fail "the log does not say: $1"
	grep -F -- "$1" "$LOG" | tail -n 1 | sed 's/^<[0-9]*>//' | indent
}

# Asks like a client of the network and shows the question, the status and the answers; what dig
# said stays in $answer.
ask() { # name, type, further options of dig
	printf '%s    $ dig @%s %s %s%s\n' "$dim" "$ROUTER" "$1" "${2:-A}" "$plain"
	answer=$(dig "@$ROUTER" -b "$CLIENT" +tries=1 +time=3 +nocookie "$1" "${2:-A}" "${@:3}") || true
	grep -E '^[^;]|status:|timed out' <<<"$answer" | sed 's/^;; ->>HEADER<<- //' | indent
}
expect_answer() { # text, what it shows
	grep -qF -- "$1" <<<"$answer" || fail "$2"
	good "$2"
}

start_upstream() { # address
	dnsmasq --no-daemon --conf-file=/dev/null --no-hosts --no-resolv --bind-interfaces \
		--listen-address="$1" --log-facility=/dev/null --local-ttl=300 \
		--host-record=printer.home.example,192.168.8.60 \
		--host-record=nas.home.example,192.168.8.61 \
		--host-record=news.example,203.0.113.10 \
		--host-record=ads.example,203.0.113.66 \
		--txt-record=served-by.example,"the server at $1" >/dev/null 2>&1 &
	upstreams+=($!)
	eventually dig "@$1" +tries=1 +time=1 news.example >/dev/null || fail "dnsmasq does not answer"
}

configure() {
	cat >/etc/config/vantrelle <<-END
		config main
		    option interface 'apcli0'
		    option upstream_dns '10.53.0.1'
		    option upstream_dns2 '10.53.0.2'
		    option upstream_dns3 '10.53.0.3'
		    option upstream_dns4 '10.53.0.4'
		    option dns_timeout '300'
		    option log_level '6'
		    option stats_db_path '/etc/vantrelle'
	END
}

# The steps

step_start() {
	title "A router of your own, for a few minutes"
	say "This happens in a sandbox: its files, devices and network are not those of your machine." \
		"The router is $ROUTER; two DNS servers of the outside world (dnsmasq) are 10.53.0.1 and .2."
	start_upstream 10.53.0.1
	start_upstream 10.53.0.2
	configure
	vantrelled > >(indent) &
	daemon=$!
	say "" "The settings come from /etc/config/vantrelle; vantrelled starts:"
	expect_log "Startup Complete."
	grep -qx "nameserver 127.0.0.1" /etc/resolv.conf || fail "/etc/resolv.conf was not rewritten"
	good "it listens on $ROUTER, and the router itself now asks it, too (/etc/resolv.conf)"
	# The very first datagram after a start is taken without its sender and never answered.
	dig "@$ROUTER" -b 192.168.8.29 +tries=1 +time=1 news.example >/dev/null || true
}

step_forward() {
	title "A name that nobody minds"
	say "A device on the network ($CLIENT) asks the router; the router asks the outside world:"
	ask news.example
	expect_answer 203.0.113.10 "the answer came through"
	ask printer.home.example
	expect_answer 192.168.8.60 "and so did this one"
}

step_failover() {
	title "The first DNS server goes down"
	kill "${upstreams[0]}"
	say "Five questions in a row stay without an answer (0.3 seconds each), ..."
	local try
	for try in 1 2 3 4 5; do
		dig "@$ROUTER" -b "$CLIENT" +tries=1 +time=1 news.example >/dev/null || true
		expect_log "timed out, Resetting connection ($try)"
	done
	say "... and the sixth goes to the second server:"
	ask served-by.example TXT
	expect_answer "the server at 10.53.0.2" "the second server answered"
	expect_log "Switching to Secondary Upstream DNS"
}

step_stay() {
	[[ -t 0 ]] || return 0
	title "Your turn"
	say "The router stays up until you press Ctrl-C. From a second terminal:" "" \
		"    scripts/sandbox --join dig @$ROUTER news.example" \
		"    scripts/sandbox --join tail -f $LOG" \
		"    scripts/sandbox --join                 (a shell inside)"
	trap 'echo' INT
	sleep infinity || true
	trap - INT
}

step_stop() {
	title "Stopping"
	kill "$daemon"
	expect_log "Processing signal SIGTERM"
	say "It stops with the next question that arrives:"
	dig "@$ROUTER" -b "$CLIENT" +tries=1 +time=1 news.example >/dev/null || true
	expect_log "Shutdown Complete"
	wait "$daemon" || fail "the daemon ended with status $?"
	good "stopped in order"
}

for step in start forward failover stay stop; do
	"step_$step"
done
title "That was the tour."
