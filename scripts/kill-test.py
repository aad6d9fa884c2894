#!/usr/bin/env python3
"""What a SIGKILL costs on every road: replays bursts of gateway events, product-analytics
messages and promoted URLs against the development gateway, kills the replay at a random
moment each round, and counts what the gateway received.

    scripts/kill-test.py BUILD_DIR [--rounds 40] [--events 1000] [--messages 200] [--urls 50]
                         [--seed 1] [--longest-ms 400] [--check]

Each round replays its items (each with an id "round-index" of its own) into one shared state
folder and is killed with SIGKILL after a random 20 to `--longest-ms` ms; one round in four runs
with the gateway away, so that uploads fail and wait. Right after each kill it lists what each
road left on disk (`ktanalytics queue --road ...`) and which of those the gateway already has:
they will be sent again. A last run, with the gateway back, delivers what waited. Each road
stores what it is handed in order, so an item of a round is known to have been stored when a
later one of the same round was left on disk or arrived. Printed per road:

  lost              tagged, never received: handed over and not yet stored when the kill came
  stored, lost      known stored and never received, beyond the drops the state folder counts
                    (the promise: none)
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
import subprocess
import sys
import tempfile
import threading
import time

from gateway_runs import ROADS, free_port, message_id, received, url_id, write_replay

# What `queue` prints of each road's drops recorded in the state folder.
DROP_LINES = {"events": "dropped by earlier runs: ", "messages": "product-analytics messages dropped by earlier runs: ",
              "urls": "promoted URLs dropped by earlier runs: "}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build_dir")
    parser.add_argument("--rounds", type=int, default=40)
    parser.add_argument("--events", type=int, default=1000)
    parser.add_argument("--messages", type=int, default=200)
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
    port = free_port()
    url = f"http://127.0.0.1:{port}"
    gateway = None

    def gateway_up(up):
        nonlocal gateway
        if up and not gateway:
            gateway = subprocess.Popen([tool, "gateway", "--port", str(port), "--db", db],
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            gateway.stdout.readline()  # listening
            # The gateway prints a line per request; nobody reads them, so let them go nowhere.
            threading.Thread(target=gateway.stdout.read, daemon=True).start()
        elif not up and gateway:
            gateway.terminate()
            gateway.wait()
            gateway = None

    def received_so_far():
        return received(db) if os.path.exists(db) else {road: [] for road in ROADS}

    def queue(road):
        run = subprocess.run([tool, "queue", "--state-dir", state, "--road", road],
                             capture_output=True, text=True, check=True)
        return [json.loads(line) for line in run.stdout.splitlines() if line], run.stderr

    def on_disk():
        """What each road keeps in the state folder, as ids comparable with `received`."""
        return {"events": [e.get("attributes", {}).get("id") for e in queue("events")[0]],
                "messages": [message_id(m) for m in queue("messages")[0]],
                "urls": [url_id(u["url"]) for u in queue("urls")[0]]}

    killed = 0
    left_behind = {road: set() for road in ROADS}       # on disk after a kill
    left_delivered = {road: set() for road in ROADS}    # ... while the gateway already had it
    try:
        for round_number in range(args.rounds):
            path = os.path.join(work, "round.jsonl")
            write_replay(path, url, f"{round_number}-", args.events, args.messages, args.urls)
            gateway_up(round_number % 4 != 3)
            replay = subprocess.Popen([tool, "replay", path, "--gateway", url, "--state-dir", state,
                                       "--min-batch", "20", "--timeout", "30"],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0.02, args.longest_ms / 1000.0))
            replay.send_signal(signal.SIGKILL)
            replay.wait()
            killed += 1
            # Uploads the gateway had taken in full before the kill are stored by now.
            time.sleep(0.2)
            left, have = on_disk(), received_so_far()
            parts = []
            for road in ROADS:
                got = set(have[road])
                left_behind[road].update(left[road])
                left_delivered[road].update(i for i in left[road] if i in got)
                parts.append(f"{road} {len(left[road])} left, {sum(1 for i in left[road] if i in got)} delivered")
            print(f"round {round_number + 1}: " + "; ".join(parts), file=sys.stderr)
        gateway_up(True)
        empty = os.path.join(work, "empty.jsonl")
        open(empty, "w").close()
        subprocess.run([tool, "replay", empty, "--gateway", url, "--state-dir", state, "--timeout", "120"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        have = received_so_far()
        drop_report = queue("events")[1]
    finally:
        gateway_up(False)

    sent = {"events": args.events, "messages": args.messages, "urls": args.urls}
    broken = []
    for road in ROADS:
        counts = collections.Counter(have[road])
        # The highest index of each round seen anywhere: all before it were stored.
        highest = {}
        for item in set(have[road]) | left_behind[road]:
            r, i = map(int, item.split("-"))
            highest[r] = max(highest.get(r, -1), i)
        stored = {f"{r}-{i}" for r, h in highest.items() for i in range(h + 1)}
        stored_lost = stored - counts.keys()
        dropped = next((int(line[len(DROP_LINES[road]):].split()[0]) for line in drop_report.splitlines()
                        if line.startswith(DROP_LINES[road])), 0)
        duplicates = {i for i, n in counts.items() if n > 1}
        unexplained = duplicates - left_delivered[road]
        print(f"{road}: rounds {killed}, tagged {sent[road] * killed}, received {len(have[road])} "
              f"({len(counts)} distinct), lost {sent[road] * killed - len(counts)} (in memory at the kill), "
              f"known stored {len(stored)}, of them lost {len(stored_lost)} (dropped and counted {dropped}), "
              f"left on disk by the kills {len(left_behind[road])} of which {len(left_delivered[road])} already delivered, "
              f"duplicates {len(have[road]) - len(counts)} (unexplained {len(unexplained)})")
        if len(stored_lost) > dropped:
            broken.append(f"{road}: {len(stored_lost)} stored items never arrived and {dropped} were counted dropped, "
                          f"e.g. {sorted(stored_lost)[:3]}")
        if unexplained:
            broken.append(f"{road}: {len(unexplained)} items arrived twice without a kill in flight, "
                          f"e.g. {sorted(unexplained)[:3]}")
    for line in drop_report.splitlines():
        print("kill-test: " + line)
    for line in broken:
        print("kill-test: " + line, file=sys.stderr)
    if not broken:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if broken and args.check else 0


if __name__ == "__main__":
    sys.exit(main())
