#!/usr/bin/env python3
"""Every road through a failing gateway that also goes away for a while: replays events,
tracking-plan messages and promoted URLs while the development gateway answers a share of
requests with 503 (a fixed seed) and is stopped from `--down-at` s for `--down-for` s, then
reconciles each road's counts: delivered + dropped by reason + waiting = sent, and what the
gateway holds agrees with what the replay says it delivered.

    scripts/fault-run.py BUILD_DIR [--fail-rate 0.3] [--seed 7] [--down-at 1] [--down-for 10]
                         [--events 1000] [--messages 1000] [--urls 100] [--timeout 120] [--retry-pause 1]

With --down-at 0 the gateway is away from the start.

Exit status: 0 when every road reconciles, 1 when one does not, 2 when the run could not be made.
"""
import argparse
import collections
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

from gateway_runs import free_port, received, write_replay


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build_dir")
    parser.add_argument("--fail-rate", type=float, default=0.3)
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--down-at", type=float, default=1, help="seconds into the run the gateway stops")
    parser.add_argument("--down-for", type=float, default=10, help="seconds it stays away")
    parser.add_argument("--events", type=int, default=1000)
    parser.add_argument("--messages", type=int, default=1000)
    parser.add_argument("--urls", type=int, default=100)
    parser.add_argument("--timeout", type=float, default=120, help="seconds the replay waits for delivery")
    parser.add_argument("--retry-pause", type=float, default=1, help="the replay's first pause after a failed upload")
    args = parser.parse_args()
    tool = os.path.join(os.path.abspath(args.build_dir), "Tools", "ktanalytics", "ktanalytics")
    work = tempfile.mkdtemp(prefix="kt-fault-", dir=args.build_dir)
    db = os.path.join(work, "gateway.sqlite3")
    port = free_port()
    base = f"http://127.0.0.1:{port}"

    lines = os.path.join(work, "lines.jsonl")
    write_replay(lines, base, "", args.events, args.messages, args.urls)

    log = open(os.path.join(work, "gateway.log"), "w")

    def start_gateway():
        # The same port, store and seed each time: the draw of failures goes on where it was.
        return subprocess.Popen([tool, "gateway", "--port", str(port), "--db", db, "--fail-rate", str(args.fail_rate),
                                 "--seed", str(args.seed)], stdout=log, stderr=log)

    gateway = [start_gateway() if args.down_at > 0 else None]
    outage = threading.Event()

    def take_down():
        if args.down_at > 0:
            if outage.wait(args.down_at):
                return
            gateway[0].terminate()
            gateway[0].wait()
        print(f"fault-run: the gateway is away from {args.down_at:g} s for {args.down_for:g} s", file=sys.stderr)
        if not outage.wait(args.down_for):
            gateway[0] = start_gateway()

    changer = threading.Thread(target=take_down)
    changer.start()
    started = time.monotonic()
    env = dict(os.environ, KTANALYTICS_LOG_LEVEL="3")
    replay = subprocess.run([tool, "replay", lines, "--gateway", base, "--state-dir", os.path.join(work, "state"),
                             "--retry-pause", str(args.retry_pause), "--timeout", str(args.timeout)],
                            capture_output=True, text=True, env=env)
    took = time.monotonic() - started
    outage.set()
    changer.join()
    if gateway[0]:
        gateway[0].terminate()
        gateway[0].wait()
    try:
        summary = json.loads(replay.stdout)
    except json.JSONDecodeError:
        print(f"fault-run: the replay printed no summary (exit {replay.returncode}):\n{replay.stderr}", file=sys.stderr)
        return 2
    held = received(db)

    log.close()
    answers = collections.Counter()
    with open(os.path.join(work, "gateway.log")) as gateway_log:
        for line in gateway_log:
            words = line.split()
            if len(words) >= 3 and words[0] in ("GET", "POST") and words[1] != "/stats":
                answers[words[2]] += 1

    promoted, messages = summary["promoted"], summary["product_analytics"]
    roads = {
        # road: (sent, delivered, dropped by reason, waiting)
        "events": (args.events, summary["delivered"], summary["dropped_by_reason"], summary["waiting"]),
        "messages": (args.messages, messages["delivered"], messages["dropped_by_reason"], messages["waiting"]),
        "urls": (args.urls, promoted["delivered"], promoted["dropped_by_reason"], promoted["waiting"]),
    }
    print(f"fault-run: {args.fail_rate:.0%} of requests failed (seed {args.seed}), gateway away "
          f"{args.down_for:g} s from {args.down_at:g} s; replay exit {replay.returncode} after {took:.0f} s; "
          f"the gateway answered {sum(answers.values())} requests, {answers[str(503)]} of them with 503")
    broken = []
    for road, (sent, delivered, by_reason, waiting) in roads.items():
        dropped = sum(by_reason.values())
        distinct = len(set(held[road]))
        reasons = ", ".join(f"{k} {v}" for k, v in by_reason.items() if v) or "none"
        print(f"  {road}: sent {sent} = delivered {delivered} + dropped {dropped} ({reasons}) + waiting {waiting}; "
              f"the gateway holds {distinct} ({len(held[road]) - distinct} twice)")
        if delivered + dropped + waiting != sent:
            broken.append(f"{road}: {delivered} + {dropped} + {waiting} != {sent}")
        if distinct != delivered:
            broken.append(f"{road}: the gateway holds {distinct} distinct, the replay delivered {delivered}")
    for line in broken:
        print("fault-run: does not reconcile: " + line, file=sys.stderr)
    if not broken:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if broken else 0


if __name__ == "__main__":
    sys.exit(main())
