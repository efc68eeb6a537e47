#!/bin/sh
# Run with the package's name and version where the package is installed, instead of the generic
# version test, which tries options that the daemon does not have. What this prints must contain the
# version.
[ "$1" = vantrelled ] || exit 0
/usr/sbin/vantrelled -n | grep -F "$2"
