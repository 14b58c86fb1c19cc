"""A configuration with twenty mistakes that the daemon says nothing about."""

from __future__ import annotations

# Each line, and what `skarnctl check` calls the mistake in it.
LINES: list[tuple[str, str | None]] = [
    ("# twenty mistakes", None),
    ("logfile\t/var/log/skarn.log", "not-taken"),
    ("logfile_max_size 10m", "taken-otherwise"),
    ("logfile_max_number ten", "not-taken"),
    ("remoteIP 127.0.0.9", "not-taken"),
    ("uid=1000", "not-taken"),
    ("gid \t", "taken-otherwise"),
    ("usrdir u$UID/$UID", "bad-value"),
    ("pasword secret", "not-taken"),
    ("", None),
    ("detectorID 1", "repeated-detector"),
    ("remoteIP 127.0.0.1", None),
    ("source /", None),
    ("target /srv/a", None),
    ("detectorID 2", "missing-key"),
    ("source /", None),
    ("target data", "bad-value"),
    ("minpause -5", "bad-value"),
    ("interrun_pause 5s", "taken-otherwise"),
    ("detectorID 3", None),
    ("remoteIP 10.0.0.300", "bad-value"),
    ("source /a # see detectorID 4", "block-inside-line"),
    ("detectorID 1", None),
    ("remoteIP 127.0.0.1", None),
    ("source /my data", "taken-otherwise"),
    ("target /srv/x;y", "bad-value"),
    ("minpause 0", "busy-cycle"),
    ("minpause 500", "not-taken"),
    ("#" * 1024, "line-too-long"),
    ("logfile /var/log/skarn.log", None),
]

TEXT = "\n".join(line for line, _ in LINES) + "\n"

# Line numbers and codes.
PLANTED = {(number, code) for number, (_, code) in enumerate(LINES, 1) if code is not None}
assert len(PLANTED) == 20
