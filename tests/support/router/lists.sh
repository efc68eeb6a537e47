# shellcheck shell=dash
#
# What the transcripts of vantrelle-lists have at hand. They show the patterns of a list as the
# daemon would have them, who is not there.

# A web server's directory, a daemon's service script that only counts, and less patience.
prepare() {
	mkdir -p /tmp/www/cgi-bin /etc/vantrelle
	rm -f /tmp/restarts /tmp/*.patterns
	touch /tmp/black.patterns /tmp/white.patterns
	sed -i 's/^TIME_LIMIT=300/TIME_LIMIT=3/' /usr/sbin/vantrelle-lists
	# shellcheck disable=SC2016 # for the script
	printf '#!/bin/sh\necho "$1" >>/tmp/restarts\n' >/etc/init.d/vantrelle
}

add_source() { # name, url, list
	printf "config source\n\toption name '%s'\n\toption url '%s'\n\toption list '%s'\n" "$1" "$2" \
		"${3:-black}" >>/etc/config/vantrelle
	printf "\toption enabled '1'\n" >>/etc/config/vantrelle
}

names() { # first number, behind the last one
	local number=$1
	while [ "$number" -lt "$2" ]; do
		echo "n$number.example"
		number=$((number + 1))
	done
}

# The two patterns of each name.
pairs() {
	sed 'p; s/^/./' | sort
}

# What the daemon does with a list file.
take_in() { # list
	[ -e "/etc/vantrelle/$1.lst" ] || return 0
	awk '/^~/ { delete has[substr($0, 2)]; next }
		{ sub(/,.*/, ""); has[$0] }
		END { for (pattern in has) print pattern }' "/tmp/$1.patterns" "/etc/vantrelle/$1.lst" |
		sort >/tmp/patterns
	mv /tmp/patterns "/tmp/$1.patterns"
	rm "/etc/vantrelle/$1.lst"
}

# The patterns of a list with what has come for it.
list() { # list
	take_in "$1"
	# shellcheck disable=SC2046 # in one line
	echo "$1:" $(cat "/tmp/$1.patterns")
}

# Without what it says.
update() {
	vantrelle-lists update >/dev/null 2>&1
}
