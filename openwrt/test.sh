#!/bin/sh
# Run with the package's name and version in an environment where the package is installed. The
# daemon prints its version with -n; the generic test tries --version, which it does not have.
[ "$1" = vantrelled ] || exit 0
[ "$(/usr/sbin/vantrelled -n)" = "$2" ]
