#!/usr/bin/env bash
# Replays 1,000 events, 1,000 tracking-plan messages and 100 promoted URLs while the
# development gateway is down for the first DOWN seconds (default 41), then prints the
# replay's summary and what the gateway received. Usage: scripts/outage-run.sh BUILD [DOWN]
set -euo pipefail
build=${1:?usage: outage-run.sh BUILD [DOWN_SECONDS]}
down=${2:-41}
tool="$(cd "$build" && pwd)/Tools/ktanalytics/ktanalytics"
work=$(mktemp -d)
trap 'rm -rf "$work"; [ -n "${gateway:-}" ] && kill "$gateway" 2>/dev/null || true' EXIT
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')
python3 - "$work/lines.jsonl" "$port" <<'PY'
import json, sys
with open(sys.argv[1], "w") as f:
    for i in range(1000):
        f.write(json.dumps({"name": "pageview", "attributes": {"page_name": "p%d" % i, "run_id": i}}) + "\n")
        f.write(json.dumps({"track": "App Cache Cleared", "version": 1, "properties": {}}) + "\n")
        if i % 10 == 0:
            url = "http://127.0.0.1:%s/track/impression/%d" % (sys.argv[2], i)
            f.write(json.dumps({"name": "promoted_event", "attributes": {"url": url}}) + "\n")
PY
( sleep "$down"; exec "$tool" gateway --port "$port" --db "$work/gateway.sqlite3" > "$work/gateway.log" 2>&1 ) &
gateway=$!
echo "outage-run: the gateway comes up on port $port after $down s" >&2
status=0
KTANALYTICS_LOG_LEVEL=3 "$tool" replay "$work/lines.jsonl" --gateway "http://127.0.0.1:$port" \
    --state-dir "$work/state" --timeout 300 || status=$?
echo "replay exit code: $status"
echo "gateway received: $(curl -s "http://127.0.0.1:$port/stats")"
