"""A subscriber of the demonstration's relay: writes down each file that it is told of.

    analysis.py OUTPUT
"""

from __future__ import annotations

import sys

import skarn_relay

with open(sys.argv[1], "a", encoding="utf-8") as output:
    for record in skarn_relay.Relay().subscribe("analysis"):
        # Acknowledged when the next one is asked for: what is not written down comes again.
        print(record.path, file=output, flush=True)
