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
