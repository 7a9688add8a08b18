#!/usr/bin/env bash
# Builds the benchmark programs (Release, in build-bench), runs them, and prints each row's
# figures: the library ("ksmem...") beside every reference measured in the same program and
# run, as CPU time per iteration (the median of the repetitions) and their ratio, with the
# target where there is one. Rows without a reference follow with their times as measured.
# Repetitions of all rows run interleaved in random order, so that a spell of load on a shared
# machine falls on subject and reference alike. The service rows of ksmem_bench run against a
# loopback redis-server and two Redis Clusters, with a replica per primary and without, that
# tests/service/servers.py starts around the program and stops after it.
#
# usage: bench/run.sh [REPETITIONS [BENCHMARK_FILTER]]   (default: 5, every row)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

repetitions=${1:-5}
filter=${2:-.}
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build build-bench -j2 --target ksmem_bench ksmem_transport_bench

results=$(mktemp)
log=$(mktemp)
trap 'rm -f "$results" "$log"' EXIT
for program in ksmem_transport_bench ksmem_bench; do
  # Rows are printed in the order in which the programs list them.
  "build-bench/bench/$program" --benchmark_list_tests --benchmark_filter="$filter" |
    sed 's/^/listed /' >>"$results"
  servers=()
  if [ "$program" = ksmem_bench ]; then
    servers=(/usr/bin/python3 tests/service/servers.py redis cluster cluster-without-replicas --)
  fi
  if ! "${servers[@]}" "build-bench/bench/$program" --benchmark_repetitions="$repetitions" \
      --benchmark_enable_random_interleaving=true \
      --benchmark_report_aggregates_only=true --benchmark_format=json \
      --benchmark_filter="$filter" >>"$results" 2>"$log"; then
    cat "$log" >&2
    exit 1
  fi
done

# The JSON reporter writes one field per line; each run is an object that starts with "name".
awk '
  function ns(value, unit) {
    return value * (unit == "s" ? 1e9 : unit == "ms" ? 1e6 : unit == "us" ? 1e3 : 1)
  }
  function show(t) {
    if (t < 1e3) return sprintf("%.0f ns", t)
    if (t < 1e6) return sprintf("%.1f us", t / 1e3)
    if (t < 1e9) return sprintf("%.2f ms", t / 1e6)
    return sprintf("%.2f s", t / 1e9)
  }
  function target(row, reference) {
    if (row ~ /^gather_/ && reference == "memcpy") return 3
    if (row ~ /^send_/ && reference == "memcpy") return 2
    if (row ~ /^parse_/ && reference == "xerces_sax2_empty") return 2
    if (row == "escape_1MiB_5pct" && reference == "copy") return 10
    if (row == "round_trip_redis" && reference == "raw_commands") return 3
    if (row == "idle_fetch_redis" && reference == "2_clients") return 1.5
    if (row ~ /^round_trip_cluster/ && reference == "single_redis") return 1.3
    return 0
  }
  function split_name(name) {
    sub(/\/(manual_time|real_time|iterations:[0-9]+)$/, "", name)
    row = name; who = ""
    if (match(name, /\/[^\/]*$/)) { row = substr(name, 1, RSTART - 1); who = substr(name, RSTART + 1) }
    if (!(row in seen)) { seen[row] = 1; rows[++rowCount] = row }
    if (!((row, who) in member)) { member[row, who] = 1; members[row] = members[row] " " who }
  }
  function finish(   key) {
    if (name == "" || name ~ /_(mean|stddev|cv)$/) { name = ""; return }
    sub(/_median$/, "", name)
    clocked = name ~ /\/(manual_time|real_time)$/
    split_name(name)
    key = row SUBSEP who
    cpu[key] = ns(field["cpu_time"], field["time_unit"])
    real[key] = ns(field["real_time"], field["time_unit"])
    byClock[key] = clocked
    faults[key] = ("page_faults" in field) ? field["page_faults"] : ""
    memory[key] = ("memory_over_event_size" in field) ? field["memory_over_event_size"] : ""
    failed[key] = field["error_occurred"] == "true" ? field["error_message"] : ""
    name = ""
  }
  /^listed / { split_name($2); next }
  /^ *"[a-z_]+": / {
    key = $0
    sub(/^ *"/, "", key); sub(/".*/, "", key)
    value = $0
    sub(/^ *"[a-z_]+": /, "", value); sub(/,$/, "", value); gsub(/"/, "", value)
    if (key == "name") { delete field; name = value }
    field[key] = value
    next
  }
  /^ *}/ { finish() }
  END {
    printf "%-30s %-17s %10s  %-18s %10s %8s  %-7s %s\n", "row", "library", "time", "reference",
           "time", "ratio", "target", "page faults/iteration"
    for (r = 1; r <= rowCount; ++r) {
      row = rows[r]
      n = split(members[row], names, " ")
      paired = 0
      for (s = 1; s <= n; ++s) {
        if (names[s] !~ /^ksmem/) continue
        subject = row SUBSEP names[s]
        for (t = 1; t <= n; ++t) {
          if (names[t] ~ /^ksmem/) continue
          reference = row SUBSEP names[t]
          paired = 1
          if (failed[subject] != "" || failed[reference] != "") {
            printf "%-30s %-17s failed: %s%s\n", row, names[s], failed[subject], failed[reference]
            continue
          }
          # Rows timed by the clock (work done in a child process or in Redis) compare by it.
          clock = byClock[subject]
          a = clock ? real[subject] : cpu[subject]
          b = clock ? real[reference] : cpu[reference]
          ratio = a / b
          goal = target(row, names[t])
          verdict = goal ? sprintf("<=%gx %s", goal, ratio <= goal ? "met" : "MISSED") : ""
          pf = faults[subject] != "" ? sprintf("%.0f vs %.0f", faults[subject], faults[reference]) : ""
          printf "%-30s %-17s %10s  %-18s %10s %7.2fx  %-12s %s\n", row, names[s],
                 show(a) (clock ? " real" : ""), names[t], show(b), ratio, verdict, pf
        }
      }
      if (!paired) {
        for (s = 1; s <= n; ++s) {
          key = row SUBSEP names[s]
          label = names[s] == "" ? row : row "/" names[s]
          if (failed[key] != "") printf "%-48s failed: %s\n", label, failed[key]
          else if (memory[key] != "")
            printf "%-48s %6.2fx the event size in Redis memory  <=3x %s\n", label, memory[key],
                   memory[key] <= 3 ? "met" : "MISSED"
          else printf "%-48s %10s CPU, %s real\n", label, show(cpu[key]), show(real[key])
        }
      }
    }
  }' "$results"
