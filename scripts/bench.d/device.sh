# Device measures of scripts/bench (sourced by it): tessard on generated devices of 10,000 and
# 100,000 parameters over 100 and 1,000 backing files (gendevice.py) against floor programs doing
# the same job: a durable replace of a file of the same size on the same file system (replace.c),
# a minimal one-shot C client (oneshot.c) and a plain loader of the same files (loader.c).
# Uses scripts/bench's $top, $build, $bench, $rounds, $quick, $gets, $daemon_socket, $floor_socket,
# wait_for_socket and report; the GET measure uses its bench-client and bench-floor.

device_data=$build/bench-data
first_param=root.Bench.F0000.S0_K0

device_build() {
  for program in driver oneshot replace loader; do
    cc -O2 -Wall -Werror -o "$build/bench-$program" "$top/scripts/bench.d/$program.c"
  done
  for size in "10000 100" "100000 1000"; do
    read -r params files <<<"$size"
    local dir=$device_data/d$((params / 1000))k
    [ -s "$dir/tessard.conf" ] ||
      python3 "$top/scripts/bench.d/gendevice.py" "$dir" "$params" "$files"
  done
}

driver() { "$bench/bin/bench-driver" "$@"; }

# device_start DIR [CPU]: starts tessard on the device in DIR (bound to CPU when given); sets
# device_us (start-up to the first answer), device_rss (peak resident bytes then) and device_pid.
device_start() {
  local pin=()
  [ -z "${2:-}" ] || pin=("$(command -v taskset)" -c "$2")
  read -r device_us device_rss device_pid < <(driver "$daemon_socket" launch "$first_param" \
    "${pin[@]}" "$bench/bin/tessard" "$1/tessard.conf" 0)
}

device_stop() {
  kill "$device_pid"
  while kill -0 "$device_pid" 2>/dev/null; do sleep 0.01; done
}

# loader_run DIR: the plain loader on the device in DIR; sets loader_us and loader_rss.
loader_run() {
  local start end
  start=$(date +%s%N)
  read -r _ loader_rss < <("$bench/bin/bench-loader" "$1/tessard.conf")
  end=$(date +%s%N)
  loader_us=$(((end - start) / 1000))
}

# Start-up to the first answer at 100k parameters, its growth from 10k, and the peak resident
# memory per parameter.
measure_startup() {
  local rows=$bench/startup.rows params=100200
  : >"$rows"
  for i in $(seq "$rounds"); do
    for size in 100 10; do
      if ((i % 2)); then
        device_start "$device_data/d${size}k"
        device_stop
        loader_run "$device_data/d${size}k"
      else
        loader_run "$device_data/d${size}k"
        device_start "$device_data/d${size}k"
        device_stop
      fi
      eval "t$size=$device_us f$size=$loader_us tm$size=$device_rss fm$size=$loader_rss"
    done
    echo "$t100 $f100 $t10 $f10 $tm100 $fm100" >>"$rows"
  done
  awk '{ print $1 / 1000, $2 / 1000 }' "$rows" |
    report "start-up to first answer, 100k parameters in 1,000 files, ms (goal: < 300, ratio <= 3)" \
      tessard floor ratio
  awk '{ print $1 / $3, $2 / $4 }' "$rows" |
    report "start-up growth t(100k)/t(10k) (goal: tessard <= 11)" tessard floor ratio
  awk -v n=$params '{ print $5 / n, $6 / n }' "$rows" |
    report "peak resident bytes per parameter at 100k (goal: tessard <= 400)" \
      tessard floor ratio
}

# SETs written to their file at once (1 KB and 100 KB files; many a round, as disk times vary)
# and one-shot `tessctl get`, on the 100k device.
measure_writes() {
  local sets=400 spawns=300 data=$device_data/d100k
  if [ -n "$quick" ]; then
    sets=20
    spawns=50
  fi
  device_start "$data"
  for file in small:Small:8:"1 KB (goal: ratio <= 1.25)" large:Large:1000:"100 KB (goal: ratio <= 1.5)"; do
    IFS=: read -r name group bytes label <<<"$file"
    for i in $(seq "$rounds"); do
      ((i % 2)) || f=$("$bench/bin/bench-replace" "$data/data/$name.conf" "$sets")
      t=$(driver "$daemon_socket" set "root.Write.$group.S0_K0" "$sets" "$bytes")
      ((i % 2)) && f=$("$bench/bin/bench-replace" "$data/data/$name.conf" "$sets")
      echo "$t $f"
    done | report "SET with immediate durable write, $label, us" tessard floor ratio
  done
  local oneshot=("$bench/bin/bench-oneshot" "$daemon_socket" "$first_param")
  for i in $(seq "$rounds"); do
    ((i % 2)) || f=$(driver - spawn "$spawns" "${oneshot[@]}")
    t=$(driver - spawn "$spawns" "$bench/bin/tessctl" --socket "$daemon_socket" get "$first_param")
    ((i % 2)) && f=$(driver - spawn "$spawns" "${oneshot[@]}")
    echo "$t $f"
  done | report "one-shot \`tessctl get\` process, us (goal: ratio <= 1.3)" tessard floor ratio
  device_stop
}

# GET on one connection with the daemon, its client and the floor on one CPU: on the 100k device
# against the floor answering the same bytes, and at 100k against 10k parameters.
measure_get() {
  local value rows=$bench/get.rows
  value=$(awk '$1 == "k0" { print $2; exit }' "$device_data/d100k/data/f0000.conf")
  taskset -c 0 "$bench/bin/bench-floor" "$floor_socket" "$value" &
  local floor_pid=$!
  wait_for_socket "$floor_socket"
  local get=(taskset -c 0 "$bench/bin/bench-client" get)
  : >"$rows"
  for size in 10 100; do
    device_start "$device_data/d${size}k" 0
    for i in $(seq "$rounds"); do
      ((i % 2)) || f=$("${get[@]}" "$floor_socket" "$first_param" 0 "$gets")
      t=$("${get[@]}" "$daemon_socket" "$first_param" 0 "$gets")
      ((i % 2)) && f=$("${get[@]}" "$floor_socket" "$first_param" 0 "$gets")
      echo "$size $t $f" >>"$rows"
    done
    device_stop
  done
  kill "$floor_pid"
  wait "$floor_pid" 2>/dev/null || true
  awk '$1 == 100 { print $2, $3 }' "$rows" |
    report "GET, one client, same CPU, 100k parameters, us (goal: ratio <= 1.10)" tessard floor ratio
  paste <(awk '$1 == 100 { print $2 }' "$rows") <(awk '$1 == 10 { print $2 }' "$rows") |
    report "tessard GET at 100k against 10k parameters, us (goal: flat)" 100k 10k ratio
}
