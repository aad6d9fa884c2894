#!/usr/bin/env python3
"""What a SIGKILL costs on every road: replays bursts of gateway events, product-analytics
messages and promoted URLs against the development gateway, kills the replay at a random
moment each round, and counts what the gateway received.

    scripts/kill-test.py BUILD_DIR [--rounds 40] [--events 1000] [--messages 500] [--urls 50]
                         [--seed 1] [--longest-ms 400] [--check]

Each round replays its items (each with an id of its own) into one shared state folder and
is killed with SIGKILL after a random 20 to `--longest-ms` ms. Right after each kill it lists
what each road left on disk (`ktanalytics queue --road ...`) and which of those the gateway
already has: they will be sent again. A last run without a kill delivers what waited.
Printed per road:

  lost              tagged, never received: handed over and not yet stored when the kill came
  stored, lost      left on disk by a kill and never received (the promise: none)
  duplicates        received more than once (the promise: only items a kill left on disk
                    after the gateway had them, the requests in flight at the kill)

With --check the exit status is 1 when a promise is broken.
"""
import argparse
import collections
import json
import os
import random
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import urllib.parse

ROADS = ("events", "messages", "urls")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build_dir")
    parser.add_argument("--rounds", type=int, default=40)
    parser.add_argument("--events", type=int, default=1000)
    parser.add_argument("--messages", type=int, default=500)
    parser.add_argument("--urls", type=int, default=50)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--longest-ms", type=int, default=400, help="latest moment of the kill")
    parser.add_argument("--check", action="store_true", help="exit 1 when a stored item is lost or a duplicate is unexplained")
    args = parser.parse_args()
    tool = os.path.join(args.build_dir, "Tools", "ktanalytics", "ktanalytics")
    rng = random.Random(args.seed)
    work = tempfile.mkdtemp(prefix="kt-kill-", dir=args.build_dir)
    db = os.path.join(work, "gateway.sqlite3")
    state = os.path.join(work, "state")

    gateway = subprocess.Popen([tool, "gateway", "--port", "0", "--db", db], stdout=subprocess.PIPE,
                               stderr=subprocess.DEVNULL, text=True)
    url = gateway.stdout.readline().strip().split()[-1]
    # The gateway prints a line per request; nobody reads them, so let them go nowhere.
    drain = subprocess.Popen(["cat"], stdin=gateway.stdout, stdout=subprocess.DEVNULL)

    def received():
        """Every item the gateway stored, per road, as a list of ids (repeats kept)."""
        with sqlite3.connect(db, timeout=30) as connection:
            events = [json.loads(p).get("id") for (p,) in connection.execute("SELECT payload FROM events")]
            messages = [m for (m,) in connection.execute("SELECT message_id FROM messages")]
            urls = [t for (t,) in connection.execute("SELECT target FROM tracking_requests")]
        return {"events": events, "messages": messages, "urls": urls}

    def on_disk():
        """What each road keeps in the state folder, as ids comparable with `received`."""
        def listing(road):
            out = subprocess.run([tool, "queue", "--state-dir", state, "--road", road],
                                 capture_output=True, text=True, check=True).stdout
            return [json.loads(line) for line in out.splitlines() if line]
        return {"events": [e.get("attributes", {}).get("id") for e in listing("events")],
                "messages": [m.get("messageId") for m in listing("messages")],
                "urls": [urllib.parse.urlsplit(u["url"]).path for u in listing("urls")]}

    killed = 0
    stored = {road: set() for road in ROADS}            # ever seen on disk after a kill
    stored_delivered = {road: set() for road in ROADS}  # ... while the gateway already had it
    names = ["pageview", "audio", "like", "impression", "click", "search", "share", "repost"]
    try:
        for round_number in range(args.rounds):
            path = os.path.join(work, "round.jsonl")
            with open(path, "w") as out:
                for i in range(max(args.events, args.messages, args.urls)):
                    if i < args.events:
                        out.write(json.dumps({"name": names[i % len(names)],
                                              "attributes": {"id": f"{round_number}-{i}", "position": i,
                                                             "page_name": "stream:main", "source": "stream"}}) + "\n")
                    if i < args.messages:
                        out.write(json.dumps({"track": "App Cache Cleared", "version": 1, "properties": {}}) + "\n")
                    if i < args.urls:
                        out.write(json.dumps({"name": "promoted_event",
                                              "attributes": {"url": f"{url}/track/kill/{round_number}-{i}"}}) + "\n")
            replay = subprocess.Popen([tool, "replay", path, "--gateway", url, "--state-dir", state,
                                       "--min-batch", "20", "--timeout", "30"],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0.02, args.longest_ms / 1000.0))
            replay.send_signal(signal.SIGKILL)
            replay.wait()
            killed += 1
            # Uploads the gateway had taken in full before the kill are stored by now.
            time.sleep(0.2)
            left, have = on_disk(), received()
            parts = []
            for road in ROADS:
                got = set(have[road])
                stored[road].update(left[road])
                stored_delivered[road].update(i for i in left[road] if i in got)
                parts.append(f"{road} {len(left[road])} left, {sum(1 for i in left[road] if i in got)} delivered")
            print(f"round {round_number + 1}: " + "; ".join(parts), file=sys.stderr)
        empty = os.path.join(work, "empty.jsonl")
        open(empty, "w").close()
        subprocess.run([tool, "replay", empty, "--gateway", url, "--state-dir", state, "--timeout", "120"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        have = received()
    finally:
        gateway.terminate()
        gateway.wait()
        drain.wait()

    sent = {"events": args.events, "messages": args.messages, "urls": args.urls}
    broken = []
    for road in ROADS:
        counts = collections.Counter(have[road])
        duplicates = {i for i, n in counts.items() if n > 1}
        stored_lost = stored[road] - counts.keys()
        unexplained = duplicates - stored_delivered[road]
        print(f"{road}: rounds {args.rounds}, tagged {sent[road] * killed}, received {len(have[road])} "
              f"({len(counts)} distinct), lost {sent[road] * killed - len(counts)} (in memory at the kill), "
              f"left on disk by the kills {len(stored[road])} of which {len(stored_delivered[road])} already delivered, "
              f"stored, lost {len(stored_lost)}, duplicates {len(have[road]) - len(counts)} "
              f"(unexplained {len(unexplained)})")
        if stored_lost:
            broken.append(f"{road}: {len(stored_lost)} stored items never arrived, e.g. {sorted(stored_lost)[:3]}")
        if unexplained:
            broken.append(f"{road}: {len(unexplained)} items arrived twice without a kill in flight, "
                          f"e.g. {sorted(unexplained)[:3]}")
    for line in broken:
        print("kill-test: " + line, file=sys.stderr)
    if not broken:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if broken and args.check else 0


if __name__ == "__main__":
    sys.exit(main())
