# What the tests of the packages share.

fail() {
    echo "$(basename "$0"): $*" >&2
    exit 1
}

# Runs a command, and shows its output only where it fails.
quietly() {
    local output
    output=$("$@" 2>&1) || fail "failed: $*
$output"
}

# Waits until the command succeeds.
eventually() {
    local i
    for ((i = 0; i < 600; ++i)); do
        if "$@" >/dev/null 2>&1; then
            return
        fi
        sleep 0.1
    done
    fail "did not come true: $*"
}

# Succeeds where the command fails.
refused() {
    ! "$@" >/dev/null 2>&1
}
