# shellcheck shell=dash
#
# What the transcripts of vantrelle have at hand.

look_up() { # name
	if nslookup -type=a "$1" 192.168.8.1 2>&1 | grep -q NXDOMAIN; then
		echo blocked
	else
		echo forwarded
	fi
}

# Waits until a command succeeds, half a minute at most.
eventually() { # command
	local seconds=0
	until eval "$1"; do
		[ $seconds -lt 30 ] || return
		sleep 1
		seconds=$((seconds + 1))
	done
}

service() { # action
	/etc/init.d/vantrelle "$1" >/dev/null 2>&1
	ubus -t 20 wait_for vantrelle && eventually 'nslookup -type=a vantrelle 192.168.8.1 >/dev/null 2>&1'
}

stored() {
	uci get vantrelle.@main[0].disabled
}
