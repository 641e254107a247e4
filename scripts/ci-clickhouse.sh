#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The ClickHouse stage: event documents delivered end to end into a real
# ClickHouse server (Debian's clickhouse-server 18.16), then a fleet load.
#
#   1. A private server: own configuration in a temporary directory, on
#      127.0.0.1 only, on free ports above 20000, run as the "clickhouse"
#      user when this script runs as root; no system service. It is stopped
#      when the script ends, whatever happens.
#   2. docs/clickhouse.sql creates zel.events; a mirror table (zel.e2e_order,
#      fed by a materialized view, never merged) keeps the order of arrival.
#   3. Intact: two clients send 3,000 device and error events each through
#      ZelClientTracker, batched and gzip-compressed; every document must be
#      stored exactly once, every member as sent, in posting order.
#   4. Outage: two clients send 6,000 events each while the server is killed
#      (SIGKILL) and started again; everything sent before, during and after
#      must arrive, in order per client, none twice except a batch whose
#      answer was lost (counted and reported).
#   5. Poison: 1,000 documents of which one has a member that is no column
#      (the table is strict: the server answers 500 to its whole batch);
#      999 rows must be stored and exactly one drop reported.
#   6. Spool: the server is down longer than the queue holds (100
#      documents) while a client sends 2,000 and ends; with a spool every
#      document is stored after the server and a second client start.
#   7. Fleet: CH_CLIENTS (default 50) client processes post CH_RATE (20)
#      events per second each for CH_SECONDS (15) seconds, batched, then
#      unbatched, then unbatched into the Buffer table zel.events_buffer;
#      reported: events/s stored, inserts made, parts made in zel.events,
#      parts left, p50/p99 time from postTrace() to visible in a query,
#      client memory. The batched run must report zero drops; in the
#      unbatched runs (whose inserts this machine cannot all take in time)
#      every document not stored must be reported dropped.
#
# Run time on a 2-core machine: about 2.5 minutes after the build. Prints its
# report (also in build/clickhouse/report.txt); fails on any violation.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$(pwd)"

bash scripts/need.sh clickhouse-server clickhouse-client

clients="${CH_CLIENTS:-50}"
rate="${CH_RATE:-20}"
seconds="${CH_SECONDS:-15}"

build=build/clickhouse
cmake -S . -B "$build" -DZEL_BUILD_BENCH=OFF -G Ninja -DCMAKE_BUILD_TYPE=Release -DZEL_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$build" -j2 --target zel_ch_client
client="$root/$build/tests/zel_ch_client"
report="$root/$build/report.txt"
: >"$report"

say() { echo "clickhouse: [${SECONDS}s] $*" | tee -a "$report"; }
fail() {
  echo "clickhouse: FAILED: $*" | tee -a "$report" >&2
  exit 1
}

work="$(mktemp -d /tmp/zel_ch.XXXXXX)"
chmod 755 "$work"
server_pid=""

stop_server() {
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill "$server_pid" 2>/dev/null || true
    for _ in $(seq 100); do kill -0 "$server_pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  server_pid=""
}
senders=()
cleanup() {
  for p in "${senders[@]}"; do kill "$p" 2>/dev/null || true; done
  stop_server
  rm -rf "$work"
}
trap cleanup EXIT

# A port in 20000-29999 that nothing on 127.0.0.1 listens on.
free_port() {
  local p
  for p in $(shuf -i 20000-29999 -n 100); do
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null; then
      echo "$p"
      return 0
    fi
  done
  return 1
}
http_port="$(free_port)"
tcp_port="$(free_port)"
while [ "$tcp_port" = "$http_port" ]; do tcp_port="$(free_port)"; done
url="http://127.0.0.1:$http_port/"

mkdir -p "$work/data" "$work/tmp" "$work/user_files" "$work/format_schemas" "$work/log"
cat >"$work/config.xml" <<XML
<?xml version="1.0"?>
<yandex>
  <logger>
    <level>warning</level>
    <log>$work/log/server.log</log>
    <errorlog>$work/log/error.log</errorlog>
    <size>10M</size>
    <count>1</count>
  </logger>
  <http_port>$http_port</http_port>
  <tcp_port>$tcp_port</tcp_port>
  <listen_host>127.0.0.1</listen_host>
  <path>$work/data/</path>
  <tmp_path>$work/tmp/</tmp_path>
  <user_files_path>$work/user_files/</user_files_path>
  <format_schema_path>$work/format_schemas/</format_schema_path>
  <users_config>$work/users.xml</users_config>
  <default_profile>default</default_profile>
  <default_database>default</default_database>
  <mark_cache_size>67108864</mark_cache_size>
  <uncompressed_cache_size>67108864</uncompressed_cache_size>
  <max_concurrent_queries>200</max_concurrent_queries>
  <max_connections>4096</max_connections>
  <keep_alive_timeout>30</keep_alive_timeout>
</yandex>
XML
cat >"$work/users.xml" <<XML
<?xml version="1.0"?>
<yandex>
  <profiles><default><max_memory_usage>2000000000</max_memory_usage></default></profiles>
  <users>
    <default>
      <password></password>
      <networks><ip>127.0.0.1</ip></networks>
      <profile>default</profile>
      <quota>default</quota>
    </default>
  </users>
  <quotas><default><interval><duration>3600</duration><queries>0</queries><errors>0</errors>
    <result_rows>0</result_rows><read_rows>0</read_rows><execution_time>0</execution_time>
  </interval></default></quotas>
</yandex>
XML
run_as=()
if [ "$(id -u)" -eq 0 ]; then
  # The server does not need root: it runs as its own Debian user.
  chown -R clickhouse:clickhouse "$work"
  run_as=(setpriv --reuid=clickhouse --regid=clickhouse --clear-groups)
fi

query() { curl -sS --fail-with-body "$url" --data-binary "$1"; }

start_server() {
  (cd "$work" && exec "${run_as[@]}" /usr/sbin/clickhouse-server --config-file="$work/config.xml" \
    >>"$work/log/stdout.log" 2>&1) &
  server_pid=$!
  for _ in $(seq 300); do
    if curl -sf "${url}?query=SELECT%201" >/dev/null 2>&1; then return 0; fi
    kill -0 "$server_pid" 2>/dev/null || break
    sleep 0.1
  done
  tail -n 20 "$work/log/error.log" "$work/log/stdout.log" >&2 || true
  fail "the server did not start"
}

start_server
say "server $(query 'SELECT version()' | tr -d '\n') on 127.0.0.1:$http_port (pid $server_pid)"
clickhouse-client --host 127.0.0.1 --port "$tcp_port" --multiquery <docs/clickhouse.sql
# The mirror keeps the order of arrival: one part per insert, never merged,
# rows in the order of the request's body.
query "CREATE MATERIALIZED VIEW zel.e2e_order ENGINE = MergeTree ORDER BY tuple()
  SETTINGS max_bytes_to_merge_at_max_space_in_pool = 1 AS SELECT * FROM zel.events"

export ZEL_TRACE_ENDPOINT="${url}?query=INSERT%20INTO%20zel.events%20FORMAT%20JSONEachRow"
columns="hex(zelVersion), hex(eventType), hex(event), hex(errorCode), hex(message),
  hex(productName), hex(vid), hex(pid), hex(vmid), hex(redirtype), hex(class), hex(status)"
rows() {
  curl -sS --fail-with-body "${url}?max_threads=1" --data-binary \
    "SELECT _part, $columns FROM zel.e2e_order WHERE zelVersion = '$1' FORMAT TabSeparated"
}
distinct() {
  query "SELECT uniqExact(message), count() FROM zel.events WHERE zelVersion = '$1'" | tr '\t' ' '
}

# --- 3. Intact -------------------------------------------------------------
export ZEL_TRACE_BATCH_DELAY_MS=200 ZEL_TRACE_GZIP=1 ZEL_TRACE_QUEUE_MAX=10000
senders=()
for c in 0 1; do
  "$client" send --client "$c" --count 3000 --rate 1000 --version intact >"$work/intact.$c" &
  senders+=($!)
done
for p in "${senders[@]}"; do wait "$p" || fail "a sender failed"; done
senders=()
rows intact >"$work/intact.tsv"
"$client" check --clients 2 --count 3000 --version intact <"$work/intact.tsv" | tee -a "$report" ||
  fail "intact delivery"
say "intact: zel.events holds $(distinct intact) (distinct documents, rows)"
[ "$(distinct intact)" = "6000 6000" ] || fail "zel.events does not hold each document once"

# --- 4. Outage -------------------------------------------------------------
export ZEL_TRACE_RETRY_MS=100 ZEL_TRACE_RETRY_MAX_MS=500 ZEL_TRACE_DEREGISTER_MS=60000
export ZEL_TRACE_CONNECT_TIMEOUT_MS=1000 ZEL_TRACE_TIMEOUT_MS=5000
senders=()
for c in 0 1; do
  "$client" send --client "$c" --count 6000 --rate 1000 --version outage >"$work/outage.$c" &
  senders+=($!)
done
sleep 2
old_pid="$server_pid"
kill -9 "$server_pid"
wait "$server_pid" 2>/dev/null || true
server_pid=""
say "outage: server (pid $old_pid) killed with SIGKILL while two clients post"
sleep 2
start_server
say "outage: server started again (pid $server_pid)"
for p in "${senders[@]}"; do wait "$p" || fail "a sender failed"; done
senders=()
rows outage >"$work/outage.tsv"
"$client" check --clients 2 --count 6000 --version outage --lost-answers-allowed \
  <"$work/outage.tsv" | tee -a "$report" || fail "delivery across the outage"
say "outage: zel.events holds $(distinct outage) (distinct documents, rows)"
[ "$(distinct outage | cut -d' ' -f1)" = "12000" ] || fail "documents missing from zel.events"
unset ZEL_TRACE_RETRY_MS ZEL_TRACE_RETRY_MAX_MS ZEL_TRACE_DEREGISTER_MS
unset ZEL_TRACE_CONNECT_TIMEOUT_MS ZEL_TRACE_TIMEOUT_MS

# --- 5. Poison ------------------------------------------------------------
dropped_of() { sed -n 's/.*dropped=\([0-9]*\).*/\1/p' "$@" | awk '{s += $1} END {print s + 0}'; }
"$client" send --client 0 --count 1000 --rate 0 --version poison --poison 500 >"$work/poison.0" ||
  fail "the poison sender failed"
poison_rows="$(query "SELECT count() FROM zel.events WHERE zelVersion = 'poison'" | tr -d '\n')"
poison_dropped="$(dropped_of "$work/poison.0")"
say "poison: 1000 sent, one of them with a member that is no column: $poison_rows stored," \
  "$poison_dropped reported dropped"
[ "$poison_rows" = 999 ] || fail "the poison document held back others"
[ "$poison_dropped" = 1 ] || fail "the poison document was not reported once"

# --- 6. Spool -------------------------------------------------------------
spool="$work/spool"
stop_server
say "spool: server stopped; a client sends 2000 documents with a queue of 100 and ends"
ZEL_TRACE_SPOOL_DIR="$spool" ZEL_TRACE_QUEUE_MAX=100 ZEL_TRACE_DEREGISTER_MS=1000 \
  ZEL_TRACE_CONNECT_TIMEOUT_MS=200 ZEL_TRACE_RETRY_MS=100 ZEL_TRACE_RETRY_MAX_MS=200 \
  "$client" send --client 0 --count 2000 --rate 0 --version spooled >"$work/spool.0" ||
  fail "the spooling sender failed"
spooled_files="$(find "$spool" -name 'spool-*' | wc -l)"
[ "$(dropped_of "$work/spool.0")" = 0 ] || fail "documents dropped although a spool was set"
start_server
say "spool: $spooled_files spool files; server started again (pid $server_pid), a second client starts"
ZEL_TRACE_SPOOL_DIR="$spool" "$client" send --client 1 --count 0 --version spooled \
  --wait-spool "$spool" >"$work/spool.1" || fail "the second client failed"
spooled_stored="$(query "SELECT uniqExact(message) FROM zel.events WHERE zelVersion = 'spooled'" |
  tr -d '\n')"
say "spool: $spooled_stored of 2000 documents stored after the restart," \
  "$(dropped_of "$work/spool.1") dropped, $(find "$spool" -name 'spool-*' | wc -l) spool files left"
[ "$spooled_stored" = 2000 ] || fail "documents of the spool missing"

# --- 7. Fleet --------------------------------------------------------------
# Without the mirror: zel.events alone, as a deployment has it.
query "DROP TABLE zel.e2e_order"
inserts() { query "SELECT value FROM system.events WHERE event = 'InsertQuery'" || echo 0; }
# The parts zel.events has made so far: active and inactive (merged parts
# stay listed for minutes), which counts those written by inserts or by the
# buffer plus those merges made.
all_parts() {
  query "SELECT count() FROM system.parts WHERE database = 'zel' AND table = 'events'" || echo 0
}
fleet() {
  local name="$1"
  local table="${2:-zel.events}"
  local before after stored parts_before parts_after
  parts_before="$(all_parts)"
  before="$(inserts)"
  rm -f "$work"/times.* "$work"/fleet.*
  "$client" poll --url "$url" --version "$name" --seconds "$((seconds + 20))" \
    --out "$work/polls" &
  local poller=$!
  senders=()
  for c in $(seq 0 $((clients - 1))); do
    nice -n 10 "$client" send --client "$c" --seconds "$seconds" --rate "$rate" --version "$name" \
      --times "$work/times.$c" >"$work/fleet.$c" &
    senders+=($!)
  done
  for p in "${senders[@]}"; do wait "$p" || fail "a fleet client failed"; done
  senders=()
  wait "$poller" || true
  after="$(inserts)"
  parts_after="$(all_parts)"
  read -r stored distinct_stored <<<"$(query "SELECT count(), uniqExact(message) FROM $table
    WHERE zelVersion = '$name'" | tr '\t' ' ')"
  local dropped
  dropped="$(dropped_of "$work"/fleet.*)"
  local posted rss latency parts
  posted="$(cat "$work"/fleet.* | sed -n 's/^posted=\([0-9]*\).*/\1/p' | awk '{s += $1} END {print s + 0}')"
  rss="$(cat "$work"/fleet.* | sed -n 's/.*maxrss_kb=\([0-9]*\).*/\1/p' | sort -n |
    awk '{a[NR]=$1} END {printf "median %d KiB, max %d KiB", a[int((NR+1)/2)], a[NR]}')"
  latency="$("$client" latency --polls "$work/polls" --times "$work"/times.*)"
  parts="$(query "SELECT count() FROM system.parts WHERE database = 'zel' AND table = 'events' AND active")"
  say "fleet $name: $clients clients x $rate/s for ${seconds}s: posted $posted, stored $stored" \
    "($((distinct_stored / seconds))/s, $((stored - distinct_stored)) twice)," \
    "inserts $((after - before)), parts made about $((parts_after - parts_before))," \
    "active parts now $parts, dropped $dropped, $latency, client max RSS $rss"
  # Nothing is lost without a count: what was not stored was reported
  # (a batch cut off at the deadline may be counted and stored too).
  [ "$((distinct_stored + dropped))" -ge "$posted" ] ||
    fail "fleet $name: $posted posted, $distinct_stored stored, only $dropped reported dropped"
  if [ "$name" = batched ] && [ "$dropped" != 0 ]; then
    fail "fleet $name: $dropped documents dropped"
  fi
  rm -f "$work/polls"
}
export ZEL_TRACE_DEREGISTER_MS=10000
unset ZEL_TRACE_BATCH_DELAY_MS ZEL_TRACE_QUEUE_MAX
fleet batched
export ZEL_TRACE_BATCH_MAX=1
fleet unbatched
endpoint_direct="$ZEL_TRACE_ENDPOINT"
export ZEL_TRACE_ENDPOINT="${url}?query=INSERT%20INTO%20zel.events_buffer%20FORMAT%20JSONEachRow"
fleet unbatched-buffer zel.events_buffer
export ZEL_TRACE_ENDPOINT="$endpoint_direct"
unset ZEL_TRACE_BATCH_MAX

if grep -q '<Error>' "$work/log/error.log" 2>/dev/null; then
  say "server errors logged: $(grep -c '<Error>' "$work/log/error.log")"
fi
say "report in $report"
