#!/usr/bin/python3
"""Writes the fuzzers' seeds, small inputs from which they start, into corpus/FUZZER/.

    make_corpus.py

Run it after a change of the seeds below, and commit what it writes. A seed that is gone from here
is removed there. Inputs that the fuzzers find themselves are kept in the build folder instead.
"""

from __future__ import annotations

from pathlib import Path

CORPUS = Path(__file__).resolve().parent / "corpus"
DIRECTORY = "drwxr-xr-x"
LINK = "lrwxrwxrwx"


def line(path: str, kind: str = "-rw-r--r--") -> str:
    """One line of a listing."""
    return f"{kind} {'20,000':>14} 2024/05/06 07:08:09 {path}\n"


def gone(path: str, side: str = "[sender] ") -> str:
    """The complaint about a file that is not there."""
    return f'rsync: {side}link_stat "{path}" (in ramdisk) failed: No such file or directory (2)\n'


def question(source: str, names: str, listed: str, complaints: str) -> bytes:
    """An input of the fuzzer share_question."""
    return b"\xff".join(part.encode() for part in (source, names, listed, complaints))


HEAD = (
    "skarn journal 2\ndaemon 0123-ab 4711 123456\nbegun 987654321\nlist 2 42 1700 /tmp/list_1\n"
    "source rsync://root@10.0.0.1:49371/ramdisk/\ndestination /images/./\nnames\n"
)
LEFT = "skarn left names 1\nsource rsync://h/ramdisk/\ndestination /images/./\nnames\n"


RULE = "+" * 78
BANNER = f"\n\n{RULE}\n\n++ skarn 3.7.1 started\n++ on Sat Nov 21 2026\n\n{RULE}\n\n++\n"
SETTINGS = (
    "++ settings:\n++ logfile: /l\n++    max size of logfile: 9\n"
    "++    max # of backuped logfiles: 2\n\n++ current directory: /\n"
    "++ Starting copy thread for detector 1\n++ Starting copy thread for detector c\n"
)


def block(*lines: str) -> str:
    """What one copy process leaves in the log."""
    inside = "".join(line + "\n" for line in lines)
    return (
        f"++ RSYNC OUTPUT BEGIN ++++++++++++++++++\n{inside}"
        "++ RSYNC OUTPUT END ++++++++++++++++++++\n"
    )


def cycle(detector: str, processes: int) -> str:
    """The beginning of a cycle in the log."""
    call = f"{detector}: rsync call: /x --files-from=/tmp/f u t\n"
    return f"{detector} Starting {processes} copy processes\n" + call * processes


COPIED = "Copied 3 files in the range of: a ... b"


def seeds() -> dict[str, dict[str, str | bytes]]:
    """The seeds by fuzzer and name."""
    detector = "detectorID 1\nremoteIP 10.0.0.1\nsource /data\ntarget /images\nminpause 500\n"
    return {
        "config_text": {
            "global_keys": "logfile /var/log/x\nlogfile_max_number 5\nlogfile_max_size 20M\n"
            "uid 500\ngid 500\nusrdir u\n",
            "detectors": detector + "interrun_pause 20\n" + detector.replace("ID 1", "ID 2"),
            "comments": "# logfile /a\n  # b\n\t\n  logfile   /c # d\nuid\n",
            "sizes": "logfile_max_size - 3 M\n",
            "size_overflow": "logfile_max_size 99999999999999999999G\n",
            "size_sign_alone": "logfile_max_size +\n",
            "number_overflow": "logfile_max_number 99999999999\n",
            "number_underflow": "logfile_max_number -21474836480\n",
            "value_on_next_line": "usrdir \t\nuid 500\n",
            "id_inside_a_line": "source /a detectorID 2 target /b",
            "crlf_and_zero": b"logfile /x\r\nuid 5\x00\x006\ngid\x007\n",
            "long_line": "uid 1\n" + "x" * 1023 + "\n" + "y" * 1024 + "\ngid 1\n",
        },
        "tokenize": {
            "copy_command": "/bin/rsync -vt  --out-format='SENT: %n' --files-from=/tmp/l /t/./",
            "colons": "2:/data:/images::",
            "nested": "a\"b'c\" 'd\"e' ''\"\"",
            "open": "a 'b c",
        },
        "listing": {
            "files": line(".", DIRECTORY) + line("a.raw") + line("b.raw"),
            "folders": line("d", DIRECTORY) + line("d/a") + line("d/b") + line("e", DIRECTORY),
            "links": line("l -> /etc/passwd", LINK) + line("my file.dat"),
            "hidden": line(".x") + line("../x") + line("a/../../x") + line("\t.x"),
            "shell": line("$(touch") + line("`id`") + line("-e") + line("--rsh=sh") + line("';|&"),
            "escaped": line("line\\#012feed") + line("tab\there"),
            "zero": b"-rw-r--r-- 1 2 3 a\x00b c d e f\nx y z w v",
            "long_line": line("n" * 1500) + line("b"),
            "short": "one two three four\n\n   \n a b c d e\n",
        },
        "report": {
            "good": "receiving file list ... done\nSENT: a\nCONFIRMED: removed a\n\nsent 1 bytes\n",
            "lost": "SENT: b\nSENT: a\nSENT: b\nCONFIRMED: removed c\n",
            "incomplete": "CONFIRMED:\nCONFIRMED: x\nSENT:\nSENT: \n \t CONFIRMED:  y  z w",
            "zero": b"\x00SENT: a\nSENT: b\x00c\nCONFIRMED: \x00 a\n",
            "long_line": "SENT: " + "n" * 1500 + " CONFIRMED: x y\nCONFIRMED: removed b\n",
        },
        "report_filter": {
            "good": "receiving file list ... done\nSENT: a\nsender removed a\nSENT: d/\n\nsent 1\n",
            "link_first": "sender removed a\nSENT: a\nsender removed bb\nSENT: bb\n",
            "forged": b"CONFIRMED: removed a\n CONFIRMED: x y\n\xffeSENT: b\nsender removed c\n",
            "complaints": b"\xffersync: [sender] link_stat \"/a\" (in ramdisk) failed: Oh (13)\n"
            b"ERROR: b failed verification -- update discarded.\n"
            b"file has vanished: \"/c\" (in ramdisk)\n",
            "mixed": b"SENT: a\nsend\xffeoh\xffoer removed a\xff\xffe\n\xffo\nSENT: b\xffcb\xffmm",
            "asked": b"SENT: a\nSENT: b\n\xfff\xffca\xffca\xffmcannot ask\xffcb",
            "cut_off": b"SENT: a\nsender removed a",
            "overlong": b"sender removed \xffnaaaaaaaaaaaaaaaaaaa\n\xffeCONFIRMED: x\nSENT: a\n",
            "at_the_limit": b"\xffnxxxxxxxxxxxxxxxx\nSENT: a\n",
            "behind_the_limit": b"\xffe\xffnxxxxxxxxxxxxxxxxCONFIRMED: x y\n",
            "behind_two_limits": b"SENT: \xffnaaaaaaaaaa\xffnxxxxxxxxxxxxxxxxSENT: b\xffeno",
            "not_credible": b"\xffl../a\xffl/b\xffosender removed ../a\nsender removed /b\n"
            b"sender removed x\n",
            "never_sent": "sender removed null\nsender removed zero\nsender removed c\nSENT: a\n",
            "two_passes": b"\xff2SENT: a\nSENT: b\nsender removed c\n\xff3sender removed b\n"
            b"\xffersync: [receiver] mkstemp \"/proc/.a.x\" failed\n\xfff\xffga\xffcc",
            "of_the_log": b"++ RSYNC OUTPUT END\nCopied 3 files\n\x9b2J\x7f\n\xffe ++ x\n",
        },
        "share_question": {
            "all_gone": question("rsync://r@h:1/ramdisk/", "a\nb", "", gone("/a") + gone("/b")),
            "one_left": question("rsync://h/ramdisk/data/", "a\nb", line("a"), gone("/data/b")),
            "below": question("h::ramdisk/a\nb//./c d/", "a\nb/c", "", gone("/a\\#012b/c d/a")),
            "older": question("h::ramdisk", "a", line(".", DIRECTORY), gone("/a", "")),
            "listed_and_gone": question("h::ramdisk", "a.raw", line("a.raw"), gone("/a.raw", "")),
            "link": question("rsync://h/ramdisk/", "a\nb", line("a -> b", LINK), gone("/a")),
            "arrow": question("[::1]::r", "a -> b", line("a -> b -> c", LINK), gone("/a -> b")),
            "escapes": question(
                "rsync://h/ramdisk/x/../y", "a\\#012\nb\\#134", line("a\\#012"), gone("/b\\#134")
            ),
            "other_complaint": question(
                "rsync://h/ramdisk/", "a", "", gone("/a").replace("No such file", "No such thing")
            ),
        },
        "journal": {
            "going_on": HEAD + "n a\nn d/b\nc a\n",
            "taken": HEAD + "t b\nt d/c\\#012\nn a\nc b\n",
            "done": HEAD + "n a\nc a\ndone\n",
            "left": LEFT + "gone a\nthere 2 d/c\\#012\nremark the journal is not used\n",
            "left_outside": LEFT + "gone ../a\n",
            "cut_off": HEAD + "n a\nn b",
            "leads_out": HEAD + "n ../a\n",
            "body": "n a\nt b\nc a\ndone\n",
            "process": "4711 (a) b) S 1 4711 4711 0 -1 4194304 1 0 0 0 1 2 0 0 20 0 1 0 12345 8\n",
        },
        "printed_name": {
            "plain": "dir/a.raw",
            "controls": b"line\nfeed\r\x00\x1b\t\x7f",
            "escapes": "\\#012 \\#134#012 \\#999 \\#01",
            "beyond_ascii": b"\x7f\x80\x9b2J\x9f\xa0",
            "latin": b"\xe9\xff\\#\xe9",
        },
        "log_model": {
            "cycle": BANNER + SETTINGS + cycle("1", 2) + block("receiving x", COPIED)
            + "Error: Lost c\n" + block(COPIED) + "1: Removed file /tmp/f\n",
            "two": BANNER + cycle("1", 1) + cycle("11", 1) + block(COPIED)
            + "11: Removed file f\n" + block(COPIED) + "1: Error: could not remove f\n   no\n",
            "failures": cycle("1", 1) + "1: Error: Could not fork subprocess\n  no\n"
            + "++ Warning: No pipe to VANTREL\n++ Error: Failed to pass a to VANTREL\n"
            + '++ Warning: Path to "a" is longer than 4096\n1: Error: Listing failed\n',
            "nested": block("++ RSYNC OUTPUT BEGIN ++++++++++++++++++", BANNER, COPIED),
            "gap": (cycle("1", 1)).encode() + b"\xff\n" + block("x" + COPIED).encode(),
        },
        "relay_record": {
            "lines": "/data/1/./run1/f.cbf\nusershift: 1 2\nrun: 7\nother\n",
            "no_utf8": b"/data/./\xff\xed\xa0\x80\xc0\x80\n\xf4\x8f\xbf\xbf\n",
            "runs": 'run: {"event":"ended","run":"scan 7","complete":true}\nrun: {"run_percent":"%FF%25"}\n',
            "times": "2026-01-31T12:00:00Z\n",
            "age": "90s",
            "number": "17",
        },
        "relay_settings": {
            "all": "[pipe]\npath = \"/p\"\nmode = \"0600\"\nsize = \"1M\"\n[log]\nfolder = \"/l\"\n"
            + "keep = \"7d\"\nkeep_size = \"10G\"\n[http]\nsocket = \"/s\"\nlisten = \"127.0.0.1:1\"\n",
            "subscribers": '[[subscriber]]\nname = "a"\ntype = "pipe"\npath = "/x"\n'
            + '[[subscriber]]\nname = "b"\ntype = "command"\ncommand = ["/bin/x"]\nbatch = 3\n'
            + 'kinds = ["file", "other"]\nstart = 5\nback_off = "1s"\n',
            "runs": "[runs]\npattern = '/(?P<run>r[0-9]+)/(?P<index>[0-9]+)$'\nend_quiet = \"5m\"\n"
            + "end_sentinel = '/(?P<run>.)/DONE'\nend_next = true\nchecksum = \"xxh3\"\nchecksum_rate = \"1M\"\n",
            "mistakes": "[pipe]\npath = 3\ncolour = 1\n[[subscriber]]\n[x]\nlog = 1\n",
        },
        "file_list": {
            "lines": "a\nd/b\r\n\n./c/\n///d\n",
            "zeroes": b"a\x00b\nc\x00./\x00",
            "reminder": "a\n/rsync_orbelin:recovery\n//rsync_orbelin:recovery\n",
            "odd": "#a\n;b\n-c\n/./\n.\n..\n../x\na//b/../c\\#012\n",
        },
    }


def main() -> None:
    for fuzzer, inputs in seeds().items():
        folder = CORPUS / fuzzer
        folder.mkdir(parents=True, exist_ok=True)
        for name, content in inputs.items():
            (folder / name).write_bytes(content if isinstance(content, bytes) else content.encode())
        for path in folder.iterdir():
            if path.name not in inputs:
                path.unlink()


if __name__ == "__main__":
    main()
