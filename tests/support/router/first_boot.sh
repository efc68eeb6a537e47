# shellcheck shell=dash
#
# A router that boots for the first time with the package, or on which it is installed.

# The shipped settings, an empty base directory, and what else the command makes of them. Prints the
# lines that the script for this boot adds, and "again" with what it would do a second time.
first_boot() { # command
	cp "$SHIPPED/etc/config/vantrelle" /etc/config
	rm -rf /etc/vantrelle
	mkdir /etc/vantrelle
	eval "$1"
	set_defaults
	echo "again: $(set_defaults)"
}

# As the router runs it.
set_defaults() {
	cp /etc/config/vantrelle /tmp/before
	cp "$SHIPPED/etc/uci-defaults/90_vantrelle" /tmp
	# shellcheck disable=SC1091 # was copied just now
	(cd /tmp && (. ./90_vantrelle) && rm 90_vantrelle)
	[ ! -e /tmp/90_vantrelle ] || echo "it failed"
	if cmp -s /tmp/before /etc/config/vantrelle; then
		echo untouched
		return
	fi
	grep option /tmp/before >/tmp/options.before
	grep option /etc/config/vantrelle >/tmp/options
	grep -vxFf /tmp/options.before /tmp/options
	grep -vxFf /tmp/options /tmp/options.before | sed 's/^/lost: /'
}
