#!/usr/bin/env bash
# Builds the Debian package with CPack into a temporary directory and checks
# it: the files (dpkg-deb -c), the dependencies, and the maintainer scripts
# that stop the agent before removal.
# Usage: check-package.sh BUILD_DIR PREFIX EXPECTED_PATH...
set -euo pipefail
build=$1
prefix=$2
shift 2
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

(cd "$out" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$out" >"$out/cpack.log" 2>&1) || {
    cat "$out/cpack.log" >&2
    exit 1
}
deb=$(ls "$out"/*.deb)

failed=0
fail() {
    echo "package: $*" >&2
    failed=1
}

listing=$(dpkg-deb -c "$deb" | awk '{ print $6 }')
has() {
    printf '%s\n' "$listing" | grep -qxF "$1"
}
for path in "$@"; do
    has ".$prefix/$path" || fail "does not contain $prefix/$path"
done
has "./lib/systemd/system/brackmoor-agent.service" || fail "no unit in /lib/systemd/system"
has ".$prefix/lib/systemd/system/brackmoor-agent.service" && fail "unit shipped twice"

depends=$(dpkg-deb -f "$deb" Depends)
for library in libpocofoundation libjsoncpp; do
    case "$depends" in
        *"$library"*) ;;
        *) fail "Depends lacks $library: $depends" ;;
    esac
done

dpkg-deb -e "$deb" "$out/control"
for script in postinst prerm postrm; do
    [ -x "$out/control/$script" ] || fail "no executable $script"
    sh -n "$out/control/$script" || fail "$script does not parse"
done
grep -q 'systemctl stop "$UNIT"' "$out/control/prerm" || fail "prerm does not stop the agent"
grep -q 'daemon-reload' "$out/control/postinst" || fail "postinst does not reload systemd"

[ "$failed" -eq 0 ] && echo "package: $(basename "$deb") holds $# files and the unit"
exit "$failed"
