#!/usr/bin/env bash
# The tour that scripts/run gives: every step is a function that tells what it does, does it with
# the real programs, and checks what came of it. A step that does not show what it should ends the
# tour with status 1.
set -euo pipefail
cd "$(dirname "$0")/.."

readonly LOG=/run/sandbox/log FRAMES=/tmp/frames ROUTER=192.168.8.1 CLIENT=192.168.8.20
export PATH=$PWD/build/run/bin:$PATH:/usr/sbin:/sbin
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
indent() { sed -u 's/^/    /'; }
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

# Sends a query like a device of the network, most of which do without EDNS, and shows it, the status
# and the answers; what dig said stays in $answer.
ask() { # name, type, the device's address
	printf '%s    $ dig @%s -b %s +noedns %s %s%s\n' \
		"$dim" "$ROUTER" "${3:-$CLIENT}" "$1" "${2:-A}" "$plain"
	answer=$(dig "@$ROUTER" -b "${3:-$CLIENT}" +tries=1 +time=3 +noedns "$1" "${2:-A}") || true
	grep -E '^[^;]|status:|timed out' <<<"$answer" |
		sed 's/^;; ->>HEADER<<- opcode: QUERY, \(status: [A-Z]*\).*/\1/' | indent
}
# Does it over the system bus, and shows it; the reply stays in $answer.
call() { # method, arguments
	printf "%s    \$ ubus call vantrelle %s %s%s\n" "$dim" "$1" "${2:+"'$2'"}" "$plain"
	answer=$(ubus -S call vantrelle "$@") || true
	indent <<<"$answer"
}
# Does what an owner types, and shows it; what it said stays in $answer.
own_command() { # arguments
	printf '%s    $ vantrelle %s%s\n' "$dim" "$*" "$plain"
	answer=$(files/usr/sbin/vantrelle "$@") || fail "it ended with status $?"
	indent <<<"$answer"
}
# Shows rows of the database, which stay in $answer.
query_database() { # statement
	answer=$(sqlite3 -header -column "file:/etc/vantrelle/vantrelle.db?mode=ro" "$1") || true
	indent <<<"$answer"
}
expect_answer() { # text, what it shows
	grep -qF -- "$1" <<<"$answer" || fail "$2"
	good "$2"
}
expect_blocked() { # what it shows
	grep -qF "status: NXDOMAIN" <<<"$answer" || fail "$1"
	expect_answer 255.255.255.255 "$1"
}

# Asks for sixty names at once, as a web page does, without a program for each, and waits for all the
# answers; $took is the time that passed, in milliseconds.
ask_for_a_page() {
	local name socket sockets=() start=${EPOCHREALTIME/./} id
	for ((name = 10; name < 70; name++)); do
		exec {socket}<>"/dev/udp/$ROUTER/53"
		sockets+=("$socket")
		# The id, a header that asks one question, and the question: the address of nNN.page.example.
		printf '\001\001\001\000\000\001\000\000\000\000\000\000\003n%d\004page\007example\000\000\001\000\001' \
			"$name" >&"$socket"
	done
	for socket in "${sockets[@]}"; do
		read -r -t 10 -N 1 -u "$socket" id || fail "a name stayed without an answer"
		[[ $id == $'\001' ]] || fail "an answer does not belong to its query"
		exec {socket}>&-
	done
	took=$(((${EPOCHREALTIME/./} - start) / 1000))
}

start_upstream() { # address
	dnsmasq --no-daemon --conf-file=/dev/null --no-hosts --no-resolv --bind-interfaces \
		--listen-address="$1" --log-facility=/dev/null --local-ttl=300 \
		--host-record=printer.home.example,192.168.8.60 \
		--host-record=nas.home.example,192.168.8.61 \
		--host-record=news.example,203.0.113.10 \
		--host-record=ads.example,203.0.113.66 \
		--host-record=www.games.example,203.0.113.67 \
		--host-record=shop.ads.example,203.0.113.68 \
		--txt-record=served-by.example,"the server at $1" >/dev/null 2>&1 &
	upstreams+=($!)
	eventually dig "@$1" +tries=1 +time=1 news.example >/dev/null || fail "dnsmasq does not answer"
}

write_lists() {
	mkdir -m 700 /etc/vantrelle
	printf '%s\n' '# names that end with these' 'ads.example,1' 'tracker.example,1' \
		>/etc/vantrelle/black.lst
	printf '%s\n' 'shop.ads.example,4' >/etc/vantrelle/white.lst
	printf '%s\n' '192.168.8.21,4' >/etc/vantrelle/blocked_device.lst
	printf '%s\n' '192.168.8.22,4' >/etc/vantrelle/local_device.lst
}

configure() {
	printf '%s\n' 'config system' "    option log_remote '0'" >/etc/config/system
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

start_daemon() {
	vantrelled > >(indent) &
	daemon=$!
	expect_log "vantrelled[$daemon]: Startup Complete."
	eventually ubus list vantrelle >/dev/null || fail "the daemon is not on the bus"
	# The very first datagram after a start is taken without its sender and never answered.
	dig "@$ROUTER" -b 192.168.8.29 +tries=1 +time=1 news.example >/dev/null || true
}

# Keeps the frames: the next start writes its own from the beginning of the file on.
stop_daemon() {
	kill "$daemon"
	expect_log "vantrelled[$daemon]: Processing signal SIGTERM"
	say "It stops with the next query that arrives:"
	dig "@$ROUTER" -b "$CLIENT" +tries=1 +time=1 news.example >/dev/null || true
	expect_log "vantrelled[$daemon]: Shutdown Complete"
	wait "$daemon" || fail "the daemon ended with status $?"
	cat /dev/ledchain0 >>"$FRAMES"
	: >/dev/ledchain0
}

# The steps

step_start() {
	title "A router of your own, for a few minutes"
	say "This happens in a sandbox: its files, devices and network are not those of your machine." \
		"The router is $ROUTER; two DNS servers of the outside world (dnsmasq) are 10.53.0.1 and .2."
	start_upstream 10.53.0.1
	start_upstream 10.53.0.2
	configure
	write_lists
	mkdir /var/run/ubus
	ubusd &
	eventually test -S /var/run/ubus/ubus.sock || fail "the bus did not come up"
	say "" "The settings come from /etc/config/vantrelle; vantrelled starts (saying MIPS everywhere):"
	start_daemon
	grep -qx "nameserver 127.0.0.1" /etc/resolv.conf || fail "/etc/resolv.conf was not rewritten"
	good "it listens on $ROUTER, and has written the router's own /etc/resolv.conf"
}

step_forward() {
	title "A name that nobody minds"
	say "A device on the network ($CLIENT) asks the router, which forwards the query:"
	ask news.example
	expect_answer 203.0.113.10 "the answer came through"
	ask printer.home.example
	expect_answer 192.168.8.60 "and so did this one"
}

step_block() {
	title "Names on the lists, and devices on the lists"
	say "The list files in /etc/vantrelle name ads.example and all below it:"
	ask ads.example
	expect_blocked "ads.example does not exist, says the router, and its address is nowhere"
	say "Devices may remember such an answer for 1345 seconds."
	ask www.tracker.example
	expect_blocked "so it is with whatever lies below tracker.example"
	ask shop.ads.example
	expect_answer 203.0.113.68 "but the white list lets this one through"
	say "They block the device 192.168.8.21, and never filter 192.168.8.22:"
	ask news.example A 192.168.8.21
	expect_blocked "the blocked device is told so about every name"
	ask ads.example A 192.168.8.22
	expect_answer 203.0.113.66 "the excluded device gets every name"
}

step_live_edit() {
	title "Changing a list while it runs"
	say "What a web front end does, on the command line:"
	call add '{"list":"bl","pattern":"games.example","option":"1"}'
	expect_answer "Successfully added" "added"
	call list '{"list":"bl","start":"1","count":"10"}'
	expect_answer "games.example" "the page of the local black list shows it"
	ask www.games.example
	expect_blocked "and it holds from the next query on"
	call remove '{"list":"bl","pattern":"games.example"}'
	ask www.games.example
	expect_answer 203.0.113.67 "removed again, the name resolves"
}

step_statistics() {
	title "What it remembers"
	call stats
	expect_answer '"blocked":4' "four of ten queries were blocked so far (nothing counts block_rate: it is always 0)"
	say "The database has each of the four:"
	local list query=""
	for list in black local_black blocked_device; do
		query+="${query:+ union all }select s.timestamp, '$list' as list, l.frag, f.fqdn, s.ip
			from ${list}_hit h join ${list}_fqdn f on f.id = h.fqdn_id
			join ${list}_stats s on s.id = h.stats_id join $list l on l.id = s.frag_id"
	done
	query_database "select list, frag as pattern, fqdn, ip from ($query) order by timestamp"
	(($(grep -c 192.168.8.2 <<<"$answer") == 4)) || fail "it does not have four"
	expect_answer games.example "which list, which pattern, which name, which device"
	query_database "select fqdn, ip from dns_traffic where ip <> '0.0.0.0' order by id"
	expect_answer 192.168.8.22 "and what was forwarded, for whom"
	call clients
	expect_answer '"clients"' "the neighbours that the router knows (none here, where all are one machine)"
}

step_own_command() {
	title "What an owner types"
	own_command status
	expect_answer "filtering       on" "what it does, and how much is on the lists"
	own_command top blocked
	expect_answer "ads.example" "the patterns that blocked most"
	own_command why shop.ads.example
	expect_answer 'is forwarded: white has "shop.ads.example"' "what decides about a name"
	own_command why www.tracker.example
	expect_answer 'is blocked: black has "tracker.example" (at the end)' "or about another"
}

step_failover() {
	title "The first DNS server goes down"
	kill "${upstreams[0]}"
	say "Five queries in a row stay without an answer (0.3 seconds each), ..."
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

step_settings() {
	title "Settings that stay"
	say "The second server shall be the first from now on:"
	call set_config '{"dns1":"10.53.0.2","dns2":"10.53.0.1","dns3":"10.53.0.3","dns4":"10.53.0.4"}'
	expect_answer "Successfully updated" "taken, and written to /etc/config/vantrelle"
	grep "upstream_dns " /etc/config/vantrelle | indent
	say "After a restart it still is:"
	stop_daemon
	start_daemon
	call get_config
	expect_answer '"dns1":"10.53.0.2"' "the setting was kept"
	ask served-by.example TXT
	expect_answer "the server at 10.53.0.2" "and is in use"
}

step_page() {
	title "A page with sixty names"
	say "A server that is further off, 10.53.0.3, answers after 50 ms. All servers shall be that one:"
	slow_upstream 10.53.0.3 50 &
	eventually dig @10.53.0.3 +tries=1 +time=1 page.example >/dev/null || fail "it does not answer"
	call set_config '{"dns1":"10.53.0.3","dns2":"10.53.0.3","dns3":"10.53.0.3","dns4":"10.53.0.3"}'
	expect_answer "Successfully updated" "taken"
	say "A page opens, and sixty names are asked for. The router forwards one after the other:"
	local one_by_one
	ask_for_a_page
	one_by_one=$took
	good "answered after $one_by_one ms"
	say "The option concurrent_queries lets it forward many at once:"
	stop_daemon
	sed -i "/^config main/a \    option concurrent_queries '300'" /etc/config/vantrelle
	grep concurrent_queries /etc/config/vantrelle | indent
	start_daemon
	ask_for_a_page
	((took * 5 < one_by_one)) || fail "that took $took ms"
	good "answered after $took ms"
}

step_tcp() {
	title "An answer that is too long for a datagram"
	say "The server 10.53.0.4 says of each of its answers over UDP that it is cut. With tcp_connections the" \
		"router listens for TCP, too:"
	slow_upstream 10.53.0.4 5 truncate &
	eventually dig @10.53.0.4 +tries=1 +time=1 +tcp long.example >/dev/null || fail "it does not answer"
	call set_config '{"dns1":"10.53.0.4","dns2":"10.53.0.4","dns3":"10.53.0.4","dns4":"10.53.0.4"}'
	stop_daemon
	sed -i "/^config main/a \    option tcp_connections '20'" /etc/config/vantrelle
	grep tcp_connections /etc/config/vantrelle | indent
	start_daemon
	say "A device gets a cut answer, and asks again over TCP by itself:"
	ask long.example
	grep Truncated <<<"$answer" | indent
	expect_answer "retrying in TCP" "it was told to"
	expect_answer 192.0.2.1 "and the answer came whole"
	say "A blocked name is blocked that way, too:"
	answer=$(dig "@$ROUTER" -b "$CLIENT" +tries=1 +time=3 +noedns +tcp ads.example) || true
	expect_blocked "ads.example does not exist over TCP either"
}

step_stay() {
	[[ -t 0 ]] || return 0
	title "Your turn"
	say "The router stays up until you press Ctrl-C. From a second terminal:" "" \
		"    scripts/sandbox --join dig @$ROUTER +noedns ads.example" \
		"    scripts/sandbox --join ubus call vantrelle stats" \
		"    scripts/sandbox --join tail -f $LOG" \
		"    scripts/sandbox --join                 (a shell inside)"
	trap 'echo' INT
	sleep infinity || true
	trap - INT
}

step_stop() {
	title "Stopping"
	stop_daemon
	good "stopped in order"
}

# The frames since the start, the colours of each run as blocks. A run is one colour, or blue taking
# turns with one other.
step_leds() {
	title "What the board's LEDs showed"
	od -An -v -tu1 -w12 "$FRAMES" | awk -v blocks="${bold:+1}" '
		BEGIN {
			meaning["0 255 0"] = "green: starting"
			meaning["255 240 0"] = "yellow: loading the lists"
			meaning["255 0 0"] = "red: lists loaded, or a query blocked"
			meaning[blue = "0 0 255"] = "blue: ready, or a query forwarded"
			meaning["204 102 0"] = "orange: no answer from a DNS server"
			meaning["0 0 0"] = "off"
		}
		function shown(colour) { # how often, too
			return meaning[colour] (times[colour] > 1 ? " (" times[colour] " times)" : "")
		}
		function block(colour) {
			gsub(" ", ";", colour)
			return blocks ? "\033[48;2;" colour "m    \033[0m " : ""
		}
		function end_run() {
			if (first)
				print "    " block(first) (second ? block(second) : "") shown(first) \
					(second ? ", by turns with " shown(second) : "")
			split("", times)
		}
		function may_join(colour) { # a run of one
			return first == blue ? colour ~ /^(255 0|204 102) 0$/ : first ~ /^204/ && colour == blue
		}
		{
			colour = $1 " " $2 " " $3
			if (!second && may_join(colour))
				second = colour
			if (colour != first && colour != second) {
				end_run()
				first = colour
				second = ""
			}
			times[colour]++
		}
		END { end_run(); exit !(first == "0 0 0") }' || fail "the LEDs are not off at the end"
	good "off at the end"
}

for step in start forward block live_edit statistics own_command failover settings page tcp stay stop leds; do
	"step_$step"
done
title "That was the tour."
