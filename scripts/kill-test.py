#!/usr/bin/env python3
"""What a SIGKILL costs: replays bursts of events against the development gateway, kills the
replay at a random moment each round, and counts what the gateway received.

    scripts/kill-test.py BUILD_DIR [--rounds 40] [--events 1000] [--seed 1] [--longest-ms 400]

Each round tags `--events` events with unique ids into one shared state folder and is killed
with SIGKILL after a random 20 to `--longest-ms` ms (400 by default: most of a burst's life). Right after each kill it lists the files left on
disk (`ktanalytics queue`) and counts those whose event the gateway already has: they will be
sent again (duplicates). A last run without a kill delivers what waited. At the end:

  lost        ids tagged that never reached the gateway (handed over, not yet stored)
  duplicates  ids the gateway received more than once
  on disk, already delivered   the share of files left by a kill that the gateway had
"""
import argparse
import json
import os
import random
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build_dir")
    parser.add_argument("--rounds", type=int, default=40)
    parser.add_argument("--events", type=int, default=1000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--longest-ms", type=int, default=400, help="latest moment of the kill")
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

    def received_ids():
        with sqlite3.connect(db, timeout=30) as connection:
            rows = connection.execute("SELECT payload FROM events").fetchall()
        return [json.loads(payload).get("id") for (payload,) in rows]

    tagged = 0
    left_on_disk = 0
    left_delivered = 0
    names = ["pageview", "audio", "like", "impression", "click", "search", "share", "repost"]
    try:
        for round_number in range(args.rounds):
            path = os.path.join(work, "round.jsonl")
            with open(path, "w") as out:
                for i in range(args.events):
                    out.write(json.dumps({"name": names[i % len(names)],
                                          "attributes": {"id": f"{round_number}-{i}", "position": i,
                                                         "page_name": "stream:main", "source": "stream"}}) + "\n")
            replay = subprocess.Popen([tool, "replay", path, "--gateway", url, "--state-dir", state,
                                       "--min-batch", "20", "--timeout", "30"],
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            time.sleep(rng.uniform(0.02, args.longest_ms / 1000.0))
            replay.send_signal(signal.SIGKILL)
            replay.wait()
            tagged += args.events
            listing = subprocess.run([tool, "queue", "--state-dir", state], capture_output=True, text=True).stdout
            on_disk = [json.loads(line).get("attributes", {}).get("id") for line in listing.splitlines() if line]
            have = set(received_ids())
            left_on_disk += len(on_disk)
            left_delivered += sum(1 for i in on_disk if i in have)
            print(f"round {round_number + 1}: {len(on_disk)} files left, "
                  f"{sum(1 for i in on_disk if i in have)} of them already delivered", file=sys.stderr)
        empty = os.path.join(work, "empty.jsonl")
        open(empty, "w").close()
        subprocess.run([tool, "replay", empty, "--gateway", url, "--state-dir", state, "--timeout", "120"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        ids = received_ids()
    finally:
        gateway.terminate()
        gateway.wait()
        drain.wait()
    unique = set(ids)
    share = 100.0 * left_delivered / left_on_disk if left_on_disk else 0.0
    print(f"rounds {args.rounds}, events tagged {tagged}, received {len(ids)} ({len(unique)} distinct), "
          f"lost {tagged - len(unique)}, duplicates {len(ids) - len(unique)}, "
          f"files left by the kills {left_on_disk}, already delivered {left_delivered} ({share:.1f} %)")


if __name__ == "__main__":
    main()
