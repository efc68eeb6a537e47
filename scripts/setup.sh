# Sourced by the other scripts: installs what is missing and builds. Leaves the shell in the
# project's directory.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Runs a command and shows what it printed only if it fails.
quietly() {
	local output
	if ! output=$("$@" 2>&1); then
		printf '%s\nFailed: %s\n' "$output" "$*" >&2
		return 1
	fi
}

# Installs those packages of scripts/packages that serve the purpose and are missing.
install_packages() { # run | test | check | bench
	local package purpose missing=() as_root=()
	while read -r package purpose; do
		[[ $purpose == "$1" ]] || continue
		dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
			missing+=("$package")
	done < <(grep -v '^#' scripts/packages)
	((${#missing[@]})) || return 0
	((EUID == 0)) || as_root=(sudo)
	if ! command -v apt-get "${as_root[@]}" >/dev/null; then
		echo "Please install these Debian packages first, as root: ${missing[*]}" >&2
		return 1
	fi
	echo "Installing from Debian: ${missing[*]}"
	quietly "${as_root[@]}" apt-get update -q
	quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
		apt-get install -q -y --no-install-recommends "${missing[@]}"
}

# Builds targets (all of them when none is named) with a preset.
build() { # preset, targets
	local preset=$1 targets=("${@:2}")
	echo "Building (build/$preset)"
	quietly cmake --preset "$preset"
	quietly cmake --build --preset "$preset" -j "$(nproc)" ${targets[0]+--target "${targets[@]}"}
}
