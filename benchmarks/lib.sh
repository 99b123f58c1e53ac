# Sourced by the comparison scripts.
# Debian's python3, which sees Debian's numpy and scipy (a python3 earlier on PATH may not).
python="${python:-/usr/bin/python3}"

# Prints the best of three wall-clock times, in seconds, of the command.
best() {
    local best="" start end
    for _ in 1 2 3; do
        start=$(date +%s.%N)
        "$@" >/dev/null 2>&1
        end=$(date +%s.%N)
        best=$("$python" -c "t=$end-$start; b='$best'; print(t if not b or t<float(b) else b)")
    done
    echo "$best"
}
