"""A configuration with twenty mistakes that the daemon says nothing about."""

from __future__ import annotations

# Each line, and what `skarnctl check` calls the mistake in it.
LINES: list[tuple[str, str | None]] = [
    ("# twenty mistakes", None),
    ("logfile\t/var/log/skarn.log", "key-followed-by-tab"),
    ("logfile_max_size 10m", "size-lower-case-unit"),
    ("logfile_max_number ten", "not-a-number"),
    ("remoteIP 127.0.0.9", "key-before-first-block"),
    ("uid=1000", "key-followed-by-equals"),
    ("gid \t", "value-from-next-line"),
    ("usrdir u$UID/$UID", "repeated-variable"),
    ("pasword secret", "unknown-key"),
    ("", None),
    ("detectorID 1", "repeated-detector"),
    ("remoteIP 127.0.0.1", None),
    ("source /", None),
    ("target /srv/a", None),
    ("detectorID 2", "missing-remote-address"),
    ("source /", None),
    ("target data", "relative-target"),
    ("minpause -5", "negative-pause"),
    ("interrun_pause 5s", "number-with-tail"),
    ("detectorID 3", None),
    ("remoteIP 10.0.0.300", "bad-remote-address"),
    ("source /a # see detectorID 4", "block-inside-line"),
    ("detectorID 1", None),
    ("remoteIP 127.0.0.1", None),
    ("source /my data", "blank-in-path"),
    ("target /srv/x;y", "shell-characters"),
    ("minpause 0", "busy-cycle"),
    ("minpause 500", "repeated-key"),
    ("#" * 1024, "line-too-long"),
    ("logfile /var/log/skarn.log", None),
]

TEXT = "\n".join(line for line, _ in LINES) + "\n"

# Line numbers and codes.
PLANTED = {(number, code) for number, (_, code) in enumerate(LINES, 1) if code is not None}
assert len(PLANTED) == 20
