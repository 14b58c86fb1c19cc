"""The sandbox harms nothing outside it, wherever the project's folder lies.

Each test puts a checkout of its own somewhere in the sandbox that the tests run in, and starts
that checkout's sandbox script, which makes a second sandbox within the first one.
"""

from __future__ import annotations

import shutil
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest

from support.folders import remove

SCRIPT = Path(__file__).resolve().parent.parent / "support" / "sandbox"
COVERED = ("/etc", "/run", "/srv", "/tmp", "/usr/local", "/var/lib", "/var/log")
# /mnt and /dev/shm stand for everywhere else: where the sandbox makes its places first, and where
# nothing but the project is made read-only.
PLACES = (*COVERED, "/mnt", "/opt", "/dev/shm")
PRECIOUS = "an hour's work, not committed"


@pytest.fixture(params=PLACES)
def checkout(request: pytest.FixtureRequest) -> Iterator[Path]:
    """A folder with the sandbox script and a file that must not be lost, somewhere."""
    place = Path(request.param)
    mounted = place not in map(Path, COVERED)
    if mounted:
        # The machine's own folders can only be read here.
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", place], check=True)
    root = place / "some one's" / "skarn"
    try:
        (root / "tests" / "support").mkdir(parents=True)
        shutil.copy(SCRIPT, root / "tests" / "support" / "sandbox")
        (root / "results").mkdir()
        (root / "source.cpp").write_text(PRECIOUS, encoding="utf-8")
        yield root
    finally:
        remove(root.parent)
        if mounted:
            subprocess.run(["umount", place], check=True)


def run(checkout: Path, command: str) -> subprocess.CompletedProcess[str]:
    """Runs a shell command in the checkout's sandbox, which lets it write to results."""
    return subprocess.run(
        [
            *(checkout / "tests" / "support" / "sandbox", "--writable", checkout / "results"),
            *("sh", "-c", command, "sh", checkout),
        ],
        cwd=checkout,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        timeout=60,
        check=False,
    )


# What a test that goes wrong could do to the project, $1, the mildest first.
HARM = """
touch "$1/new" "$1/tests/new"; mkdir "$1/folder"; ln "$1/source.cpp" "$1/results/link"
chmod 000 "$1/source.cpp"; chown 1:1 "$1/source.cpp"; touch "$1/source.cpp"
echo gone >"$1/source.cpp"
truncate --size=0 "$1/source.cpp"
mv "$1/source.cpp" "$1/results/moved"
mv "$1" "$1.old"
rm -rf "$1"
rm -rf --no-preserve-root /run /srv /tmp /usr/local /var/lib /var/log /etc /mnt /opt /dev/shm
echo done
"""


def test_nothing_that_a_command_does_harms_the_project(checkout: Path) -> None:
    source = checkout / "source.cpp"
    before = source.stat()
    assert run(checkout, HARM).stdout.endswith("done\n")
    assert source.read_text(encoding="utf-8") == PRECIOUS
    after = source.stat()
    assert (after.st_mode, after.st_uid, after.st_mtime_ns, after.st_nlink) == (
        (before.st_mode, before.st_uid, before.st_mtime_ns, before.st_nlink)
    )
    names = {str(path.relative_to(checkout)) for path in checkout.rglob("*")}
    assert names == {"source.cpp", "results", "tests", "tests/support", "tests/support/sandbox"}


def test_a_command_finds_what_it_needs(checkout: Path) -> None:
    """The project at its own path, its folder for results, and private covered places."""
    files = " ".join(f"{place}/of-a-test" for place in COVERED)
    command = f"""set -e
        cat "$1/source.cpp" source.cpp
        pwd
        echo 5 passed >results/outcome
        touch {files} /of-a-test
        for place in /usr /var /root; do touch "$place/of-a-test" 2>/dev/null && exit 3; done
        true
    """
    done = run(checkout, command)
    assert (done.returncode, done.stdout) == (0, f"{PRECIOUS}{PRECIOUS}{checkout}\n")
    assert (checkout / "results" / "outcome").read_text(encoding="utf-8") == "5 passed\n"
    for place in (*COVERED, "/"):
        assert not Path(place, "of-a-test").exists()


def test_a_folder_outside_the_project_can_be_named(checkout: Path) -> None:
    outside = checkout.parent / "outside"
    outside.mkdir()
    script = checkout / "tests" / "support" / "sandbox"
    command: list[str | Path] = [script, "--writable", outside, "touch", outside / "written"]
    subprocess.run(command, cwd=checkout, check=True, timeout=60)
    assert (outside / "written").exists()


@pytest.mark.parametrize("place", COVERED)
def test_a_project_that_is_a_covered_place_has_no_sandbox(place: str) -> None:
    # Only shown: the script looks from where it lies.
    support = Path(place, "tests", "support")
    support.mkdir(parents=True)
    shutil.copy(SCRIPT, support / "sandbox")
    try:
        done = subprocess.run(
            [support / "sandbox", "true"], stderr=subprocess.PIPE, check=False, timeout=60
        )
    finally:
        remove(Path(place, "tests"))
    assert done.returncode == 77
    assert f"may lie below {place}, but not be it".encode() in done.stderr
