# shellcheck shell=dash
#
# What the transcripts of the daemon as a process have at hand: its settings, its start, its log.
LOG=/run/sandbox/log

# Only these in the section main, each an option and its value, the sandbox's upstream server, and
# all changes of state logged.
settings() { # setting ...
	{
		echo "config main"
		printf '\toption %s\n' "log_level 6" "upstream_dns 10.53.0.1" "$@"
	} >/etc/config/vantrelle
}

# The daemon, once it is up; its process is $! then. What a sanitizer has to say of it is seen, what
# it prints is not. Nothing that was said before is shown by said().
# shellcheck disable=SC2120 # only transcripts pass some
start() { # its options
	said >/dev/null
	vantrelled "$@" >/dev/null &
	wait_for_start
}

wait_for_start() {
	eventually "grep -q 'vantrelled.$!.: Startup Complete' $LOG"
}

# The same, when it has passed the first datagram, which nobody is answered.
serve() {
	start "$@"
	pass_datagram
}

pass_datagram() {
	dig @192.168.8.1 +tries=1 +time=1 passed.example >/dev/null
}

# The exit status of the daemon that such a signal ends.
end_by() { # signal
	kill "-$1" $!
	wait $! 2>/dev/null
	echo $?
}

stop() {
	end_by KILL >/dev/null
}

# What a daemon makes of the numbers in its settings.
settings_in_use() {
	start "$@"
	stop
	said 'warning|Timeout|Concurrent|TCP|Upstream port|Blocked|Statistics' | grep -vE 'Failed to|gpiomux'
}

# What daemons logged since this was asked last: the priority and the text. A line behind all those
# that are on their way tells when they are there.
said() { # [only lines that match this]
	local mark
	mark="said until $(date +%s%N)"
	logger -u /dev/log "$mark"
	eventually "grep -q '$mark' $LOG"
	tail -n "+$(cat /tmp/said 2>/dev/null || echo 1)" $LOG |
		sed -n 's/^<1\(..\)>.\{16\}vantrelled\[[0-9]*\]: /\1 /p' |
		sed 's/^30/critical:/; s/^31/error:/; s/^32/warning:/; s/^34/info:/; s/^35/debug:/' |
		grep -E -- "${1-}"
	echo $(($(wc -l <$LOG) + 1)) >/tmp/said
}

# Waits until one of these lines has the text.
wait_for() { # text
	eventually "tail -n '+$(cat /tmp/said)' $LOG | grep -q '$1'"
}

# Waits until a command succeeds, half a minute at most.
eventually() { # command
	local tries=0
	until eval "$1"; do
		[ $tries -lt 600 ] || return
		sleep 0.05
		tries=$((tries + 1))
	done
}

# What dig sees of a blocked name, for types and kinds of EDNS: how often it sees each line.
dig_blocked() {
	local type edns
	for type in A AAAA HTTPS TXT; do
		for edns in +noedns "+edns +nocookie" +cookie; do
			# shellcheck disable=SC2086 # two words
			dig @192.168.8.1 +tries=1 ads.example $type $edns
		done
	done | tr -s '\t' ' ' |
		grep -oiE '^ads.*|status: [a-z]*|EDE: .*|malformed|warning|extra bytes|bad |mismatch' |
		LC_ALL=C sort | uniq -c | sed 's/^ *//'
}
