#!/usr/bin/env bash
# Installs the build into a temporary prefix and checks the layout: every
# expected file is there, programs and scripts are executable, and the
# installed agent and module find the installed libraries (RUNPATH, no
# ldconfig).
# Usage: check-install-layout.sh BUILD_DIR EXPECTED_PATH...
set -euo pipefail
build=$1
shift
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null

failed=0
fail() {
    echo "install layout: $*" >&2
    failed=1
}

for path in "$@"; do
    [ -e "$prefix/$path" ] || fail "missing $path"
done
for path in bin/brackmoor-agent sudobin/sshrestart.sh; do
    if [ -e "$prefix/$path" ] && [ ! -x "$prefix/$path" ]; then
        fail "$path is not executable"
    fi
done

# Libraries resolve inside the prefix, not in the build tree.
resolves_in_prefix() {
    # $1 binary, $2 library name
    ldd "$1" | grep -F "$2" | grep -qF "$prefix/" || fail "$1 does not find $2 under the prefix"
}
resolves_in_prefix "$prefix/bin/brackmoor-agent" libsdk.so
module="$prefix/lib/modules/libtwo_factor_authentication_module.so"
if [ -e "$module" ]; then
    resolves_in_prefix "$module" libframework.so
    resolves_in_prefix "$module" libsdk.so
    # The agent finds the plug-in's factory by name; nothing else is meant to be reachable.
    exported=$(nm -D --defined-only "$module" | awk '{print $NF}' | tr '\n' ' ')
    [ "$exported" = "CreateModule " ] || fail "$module exports more than CreateModule: $exported"
fi
version=$("$prefix/bin/brackmoor-agent" --version) || fail "installed agent does not run"
case "$version" in
    "brackmoor-agent "*) ;;
    *) fail "unexpected --version output: $version" ;;
esac

# The unit shows the prefix it was configured for.
grep -q '^ExecStart=.*/bin/brackmoor-agent --config /etc/brackmoor/agent.conf$' \
    "$prefix/lib/systemd/system/brackmoor-agent.service" || fail "unit has no ExecStart of the agent"

[ "$failed" -eq 0 ] && echo "install layout: $# files in place"
exit "$failed"
