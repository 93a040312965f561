#!/usr/bin/env python3
"""Writes when the clocks of time zones change, from 1970 to 2106, as Python's own reader of the system's
zone files has it: the calendar against which the daemon's is held.

    zone_offsets.py FILE ZONE...    FILE gets a line "zone NAME" each, and lines "SECONDS OFFSET" below it:
                                    from this point on, local time is so many seconds ahead of UTC
    zone_offsets.py FILE --all      of every zone that there is
"""
import sys
from datetime import datetime
from zoneinfo import ZoneInfo, available_timezones

END = 2**32
STEP = 86400  # no clocks change twice in a day


def offset(zone, seconds):
    return int(datetime.fromtimestamp(seconds, zone).utcoffset().total_seconds())


def changes(zone):
    """Yields (seconds, offset): the first one at 0."""
    before, at = 0, offset(zone, 0)
    yield before, at
    while before < END:
        after = min(before + STEP, END)
        new = offset(zone, after)
        if new != at:
            low, high = before, after
            while high - low > 1:
                middle = (low + high) // 2
                if offset(zone, middle) == at:
                    low = middle
                else:
                    high = middle
            at = new
            yield high, at
        before = after


def main():
    names = sys.argv[2:]
    if names == ["--all"]:
        names = sorted(available_timezones() - {"Factory", "localtime"})
    with open(sys.argv[1], "w", encoding="ascii") as out:
        for name in names:
            zone = ZoneInfo(name)
            out.write(f"zone {name}\n")
            for seconds, ahead in changes(zone):
                out.write(f"{seconds} {ahead}\n")


main()
