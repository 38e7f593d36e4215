#!/usr/bin/env python3
"""Whether a file keeps the rules of the trace-event JSON format that a trace viewer needs to draw it rightly.

    trace_rules.py FILE     exit code 0 when it does; 1, with the first broken rule on standard output, when it does not

On a row, bars either follow each other or lie inside of one another; viewers stack or drop what overlaps.
"""

import json
import sys

SCOPES = {"g", "p", "t"}
METADATA = {"process_name": "name", "thread_name": "name", "thread_sort_index": "sort_index"}
ROUNDING = 0.0015  # microseconds: three digits are written


class Broken(Exception):
    pass


def expect(condition, event, rule):
    if not condition:
        raise Broken(f"{rule}: {event}")


def is_number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def check_event(event):
    expect(isinstance(event, dict), event, "an event is an object")
    for key in ("pid", "tid"):
        expect(isinstance(event.get(key), int), event, f"{key} is a whole number")
    expect(isinstance(event.get("name"), str) and event["name"], event, "an event has a name")
    expect(isinstance(event.get("args", {}), dict), event, "args is an object")
    phase = event.get("ph")
    if phase == "M":
        expect(event["name"] in METADATA, event, "metadata is of a known kind")
        expect(METADATA[event["name"]] in event.get("args", {}), event, "metadata says something")
        return
    expect(phase in ("X", "i"), event, "ph is a kind that is written")
    expect(is_number(event.get("ts")) and event["ts"] >= 0, event, "ts is a time")
    if phase == "X":
        expect(is_number(event.get("dur")) and event["dur"] >= 0, event, "dur is a time")
    else:
        expect(event.get("s") in SCOPES, event, "s is a scope")


def check_rows(events):
    bars = {}
    named = set()
    for event in events:
        if event["ph"] == "X":
            bars.setdefault(event["tid"], []).append((event["ts"], -event["dur"], event["name"]))
        elif event["name"] == "thread_name":
            named.add(event["tid"])
    for row, spans in bars.items():
        expect(row in named, row, "a row with bars has a name")
        open_ends = []
        for begin, negative, name in sorted(spans):
            end = begin - negative
            while open_ends and open_ends[-1] <= begin + ROUNDING:
                open_ends.pop()
            expect(not open_ends or end <= open_ends[-1] + ROUNDING, (row, begin, name), "bars do not overlap")
            open_ends.append(end)


def check(text):
    trace = json.loads(text)
    expect(isinstance(trace, dict) and isinstance(trace.get("traceEvents"), list), "", "traceEvents is an array")
    expect(trace["traceEvents"], "", "there are events")
    expect(trace.get("displayTimeUnit") in ("ms", "ns"), "", "displayTimeUnit is a unit")
    for event in trace["traceEvents"]:
        check_event(event)
    check_rows(trace["traceEvents"])


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        text = file.read()
    try:
        check(text)
    except (Broken, json.JSONDecodeError) as broken:
        print(broken)
        return 1
    return 0


sys.exit(main())
