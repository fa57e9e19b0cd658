# Shared by the benchmark scripts (sourced): timing a tool $runs times in
# $work and printing same-run ratios.

median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2fx", a / b}'; }
# How many times as fast the tool $2 is as the tool $1, by median wall time.
speedup() { awk -v a="${med[$1]}" -v b="${med[$2]}" 'BEGIN {printf "%.2fx", a / b}'; }

# time_tool NAME COMMAND...: runs the command (OUT stands for a fresh
# folder under $work) $runs times; sets med[NAME] (wall seconds, to the
# millisecond: runs of a fifth of a second make /usr/bin/time's hundredths
# 5% steps), cpu[NAME] (user + system: steadier than wall time when other
# work shares the machine) and mem[NAME] (peak KB). A non-zero status is
# the command's verdict, not a failure of the benchmark.
declare -A med cpu mem
time_tool() {
  local tool=$1 times=() cpus=() peak=0 secs kb user sys start end
  shift
  for ((r = 0; r < runs; r++)); do
    out=$work/out-$tool
    rm -rf "$out" && mkdir -p "$out"
    start=$EPOCHREALTIME
    /usr/bin/time -f "%e %M %U %S" -o "$work/time" "${@//OUT/$out}" >/dev/null || true
    end=$EPOCHREALTIME
    read -r secs kb user sys < <(tail -1 "$work/time")
    secs=$(awk -v a="$start" -v b="$end" 'BEGIN {printf "%.3f", b - a}')
    times+=("$secs")
    cpus+=("$(awk -v u="$user" -v s="$sys" 'BEGIN {print u + s}')")
    ((kb > peak)) && peak=$kb
  done
  med[$tool]=$(printf '%s\n' "${times[@]}" | median)
  cpu[$tool]=$(printf '%s\n' "${cpus[@]}" | median)
  mem[$tool]=$peak
}

# table BASE FLOOR TOOL...: a row per tool, with its times as ratios of
# the tool BASE's and (unless FLOOR is empty) of FLOOR's.
table() {
  local base=$1 floor=$2 tool
  shift 2
  printf '%-10s %9s %9s %9s %7s %9s %12s\n' tool "median s" "vs $base" \
    "${floor:+vs $floor}" "cpu s" "vs $base" "peak RSS MB"
  for tool in "$@"; do
    printf '%-10s %9s %9s %9s %7s %9s %12s\n' "$tool" "${med[$tool]}" \
      "$(ratio "${med[$tool]}" "${med[$base]}")" \
      "${floor:+$(ratio "${med[$tool]}" "${med[$floor]:-1}")}" "${cpu[$tool]}" \
      "$(ratio "${cpu[$tool]}" "${cpu[$base]}")" "$((mem[$tool] / 1024))"
  done
}

# bench_files FOLDER [SEED [ONLY]]: the install benchmarks' 2,000 files of
# 100 KB (one in seven incompressible, the rest words), the same bytes on
# every machine. A SEED other than 0 changes them, every file or file ONLY
# alone; the random draws stay the same, so the others keep their bytes.
bench_files() {
  python3 - "$@" <<'PY'
import os, random, sys
root, seed = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 0
only = int(sys.argv[3]) if len(sys.argv) > 3 else None
random.seed(7)
words = [("w%d" % i).encode() for i in range(5000)]
for i in range(2000):
    folder = os.path.join(root, "d%02d" % (i % 40))
    os.makedirs(folder, exist_ok=True)
    size = 100 * 1024
    if i % 7 == 0:
        data = random.randbytes(size)
    else:
        data = b" ".join(random.choice(words) for _ in range(size // 5))[:size]
    if seed and (only is None or i == only):
        data = bytes((b + seed) & 0xFF for b in data) if i % 7 == 0 else data.replace(b"w", b"v" * seed)[:size]
    if only is None or i == only:
        with open(os.path.join(folder, "f%04d.txt" % i), "wb") as f:
            f.write(data)
PY
}
