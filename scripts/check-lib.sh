# Sourced, not run, by scripts/check-package.sh and tests/consumers/run.sh.
# The caller sets check_log_dir to a folder for the logs.
#
#   check NAME COMMAND...  runs COMMAND with its output in a log; prints PASS
#                          with the log's last line, or FAIL with the log's end
#   check_summary LABEL    one closing line; fails when any check failed
passed=0
failed=0
failures=()

check() {
    local name="$1" log last
    shift
    log="$check_log_dir/$(printf '%s' "$name" | tr -c 'A-Za-z0-9_.-' '_').log"
    if "$@" >"$log" 2>&1; then
        last="$(tail -n 1 "$log")"
        echo "PASS  $name${last:+: $last}"
        passed=$((passed + 1))
    else
        echo "FAIL  $name (log follows)"
        sed 's/^/    | /' "$log" | tail -n 80
        failed=$((failed + 1))
        failures+=("$name")
    fi
}

check_summary() {
    if [ "$failed" -eq 0 ]; then
        echo "$1: all $passed checks passed"
    else
        echo "$1: $failed of $((passed + failed)) checks FAILED: $(printf '[%s] ' "${failures[@]}")"
    fi
    [ "$failed" -eq 0 ]
}
