"""What runs have left unannounced: a listing settles it, and one copy run announces it."""

from __future__ import annotations

import os
import re
import signal
import socket
import time
from pathlib import Path

import pytest

from confirming_rsync.listing import (
    JOURNALS,
    MOVE,
    RECEIVE,
    REMINDER,
    ROOT_ENTRY,
    WAIT,
    OtherDaemon,
    broken_run,
    called,
    copy,
    cycle,
    end_cycle,
    found,
    journals,
    kill,
    list_share,
    mounted,
    other_boot,
    recovered,
    remarks,
    reminders,
    script,
    strace,
)
from confirming_rsync.program import TARGET, URL, Program, names, run, scripted_binary
from support.folders import remove
from support.waiting import wait_until


def left() -> list[str]:
    """What the one file of left names says, without its head."""
    (file,) = found("left")
    return file.read_text("utf-8").split("\nnames\n", 1)[1].splitlines()


def let_reminder_be_due() -> None:
    """The time between two reminders goes by."""
    (file,) = found("left")
    os.utime(file, (0, time.time() - 1))


def test_what_a_killed_run_has_moved_is_announced_by_the_next_cycle() -> None:
    broken_run("a", "sub/b")
    one = cycle("c")
    assert reminders(one.listing) == 1
    assert one.recovered == ["a", "sub/b"] and one.confirmed == ["c"]
    assert one.copying and one.copying.status == 0
    # And by no other one.
    assert cycle("d").recovered == []
    assert cycle().copying is None
    assert journals() == [] and found("left") == []
    assert called("asked") == []


def test_only_what_is_gone_at_the_source_and_in_place_is_announced() -> None:
    broken_run("here", "gone", "nowhere", "also/gone", "folder")
    (TARGET / "nowhere").unlink()
    (TARGET / "folder").unlink()
    (TARGET / "folder").mkdir()
    one = cycle("here", copying=RECEIVE)
    assert one.recovered == ["gone", "also/gone"]


def test_what_the_source_has_is_known_however_it_is_listed() -> None:
    broken_run("link", "two words", " lead", "a -> b", "gone")
    end_cycle()
    script(listing='show("link -> /x", "two words", " lead", "a -> b -> c")')
    assert reminders(list_share()) == 1
    there = [line.split(" ", 2)[2] for line in left() if line.startswith("there ")]
    assert there == ["link", "two words", " lead", "a -> b"]
    assert [line for line in left() if line.startswith("gone")] == ["gone gone"]


def test_what_the_same_daemon_has_been_told_is_not_announced_again() -> None:
    broken_run("a", "b", copying=RECEIVE + '\nremove("a")', shows="CONFIRMED: removed a\n")
    text = journals()[0].read_text("utf-8")
    assert "\nn a\n" in text and "\nn b\n" in text
    # It is killed as soon as its reader has the line, maybe before it could write that down.
    expected = ["b"] if "\nc a\n" in text else ["a", "b"]
    assert cycle("c").recovered == expected


def test_what_a_dead_daemon_was_told_is_announced_again() -> None:
    names("a", "b")
    script()
    other = OtherDaemon()
    other.wait_for_run()
    # While that daemon lives and its list is there, nobody knows what it has handed off.
    script(listing='out("%s\\n")' % ROOT_ENTRY)
    before = journals()
    assert reminders(list_share()) == 0 and journals() == before != []
    other.die()
    assert cycle("c").recovered == ["a", "b"]
    assert cycle("d").recovered == []


def test_what_another_living_daemon_was_told_is_its_own_affair() -> None:
    names("a", "b", "c")
    script('receive(*mine)\nremove("a", "b")\nsys.exit(12)')
    other = OtherDaemon()
    other.wait_for_run()
    # Its cycle is over, and of "c" nobody has told it.
    one = cycle("d")
    assert one.recovered == ["c"] and one.confirmed == ["d"]
    other.die()
    assert cycle("e").recovered == []


def test_a_run_that_ended_well_is_forgotten_after_a_minute() -> None:
    assert cycle("a").confirmed == ["a"]
    (journal,) = journals()
    # A listing while the list is still there: nobody knows what was handed off.
    assert cycle("b").confirmed == ["b"]
    (done,) = found("done-*")
    assert done.name.endswith("-" + journal.name) and journal not in journals()
    make_older(done, 59)
    list_share()
    assert len(found("done-*")) == 2
    make_older(found("done-*")[0], 2)
    list_share()
    assert len(found("done-*")) == 1 and journals() == []


def make_older(done: Path, seconds: int) -> None:
    """Moves the moment at which a journal was done back."""
    match = re.fullmatch(r"(done-[0-9a-f]{8}-)(\d+)(-run-.*)", done.name)
    assert match
    moment = int(match[2]) - seconds * 10**9
    done.rename(done.with_name(f"{match[1]}{moment}{match[3]}"))


def test_a_run_of_the_same_cycle_is_left_alone() -> None:
    names("a")
    script('receive(*mine)\nsys.exit(12)', listing="pass")
    assert copy().finish().status == 12
    before = journals()
    assert reminders(list_share()) == 0 and journals() == before != []
    end_cycle()
    assert reminders(list_share()) == 1


def test_a_run_that_goes_on_is_left_alone() -> None:
    names("a")
    script(RECEIVE + WAIT)
    going_on = copy()
    going_on.read_until("SENT: a\n")
    (journal,) = journals()
    # Its list is gone, as if its daemon had died and another one had been started.
    assert cycle("b").recovered == []
    assert journal in journals()
    kill(going_on)
    assert cycle("c").recovered == ["a"]


def test_a_name_that_a_later_run_has_confirmed_is_not_announced_again() -> None:
    broken_run("a", "b")
    # "a" is still there, and copied again; "b" is listed, and was removed when it came to it.
    one = cycle("a", "b", copying='receive("a")\nremove("a")\nmissing("b")\nsys.exit(23)')
    assert one.confirmed == ["a"] and one.recovered == []
    assert cycle("c").recovered == ["b"]
    assert cycle("d").recovered == []


def test_a_name_that_a_later_run_takes_over_and_leaves_open_is_announced_once() -> None:
    broken_run("a")
    broken_run("a")
    assert len(journals()) == 2
    assert cycle("c").recovered == ["a"]


def test_a_removal_that_a_server_makes_late_is_noticed() -> None:
    end_cycle()
    names("a", "b")
    script('receive("a")\nsys.exit(12)')
    assert copy().finish().confirmed == []
    end_cycle()
    script(listing='show("a", "b")')
    assert reminders(list_share()) == 0
    assert left() == ["there 1 a"]
    # Nothing but "b" by now. It was not received before it was gone, and "a" was.
    one = cycle("b", copying="sys.exit(12)")
    assert one.recovered == ["a"]


def test_a_name_that_stays_at_the_source_is_left_to_the_listings() -> None:
    broken_run("stays")
    for number in (1, 2):
        assert cycle("stays", copying="sys.exit(5)").recovered == []
        assert left() == [f"there {number} stays"] or number == 2
    assert cycle("stays", copying="sys.exit(5)").recovered == []


def test_a_listing_that_fails_settles_nothing() -> None:
    broken_run("a")
    before = journals()
    for failing in ("sys.exit(23)", "sys.exit(10)", "os.kill(os.getpid(), 9)"):
        script(listing=failing)
        result = list_share()
        assert result.status != 0 and result.lines == []
        assert journals() == before and found("left") == []
    # What was settled is no cause to remind after a failure either.
    script()
    assert reminders(list_share()) == 1
    let_reminder_be_due()
    script(listing="sys.exit(23)")
    assert list_share().lines == []
    assert cycle().recovered == ["a"]


def test_a_target_in_whose_place_a_file_stands_settles_nothing() -> None:
    broken_run("a", "b")
    away = TARGET.with_name("away")
    TARGET.rename(away)
    TARGET.touch()
    script()
    for _ in range(4):
        list_share()
        let_reminder_be_due()
    TARGET.unlink()
    away.rename(TARGET)
    assert cycle().recovered == ["a", "b"]


def test_what_came_into_a_target_made_anew_meanwhile_is_announced() -> None:
    names("a", "b")
    away = TARGET.with_name("away")
    script(f'os.rename("{TARGET}", "{away}")\n' + MOVE)
    assert copy().finish().confirmed == ["a", "b"]
    assert sorted(os.listdir(TARGET)) == ["a", "b"]
    end_cycle()
    assert cycle().recovered == []


def test_a_listing_that_is_killed_settles_nothing() -> None:
    broken_run("a")
    before = journals()
    script(listing="out('x\\n')" + WAIT)
    program = Program(
        scripted_binary(), ["--list-only", "rsync://root@127.0.0.1:49371/ramdisk/"]
    )
    program.read_until("x\n")
    program.signal(signal.SIGTERM)
    assert program.finish().status == -signal.SIGTERM
    assert journals() == before and found("left") == []


def test_the_reminder_is_an_entry_for_one_run_that_starts_no_rsync() -> None:
    broken_run("a")
    script('sys.exit("not to be called")', listing=f'out("{ROOT_ENTRY}\\n")\nerr("noise\\n")')
    listing = list_share()
    assert reminders(listing) == 1 and listing.status == 0
    assert sorted(listing.lines[:2]) == sorted([ROOT_ENTRY, "noise"]) and len(listing.lines) == 3
    names(REMINDER)
    before = len(called())
    result = copy().finish()
    assert result.lines == ["CONFIRMED: recovered a"] and result.status == 0
    assert len(called()) == before
    end_cycle()
    assert sorted(list_share().lines) == sorted([ROOT_ENTRY, "noise"])


def test_a_reminder_that_nobody_follows_is_given_again_but_not_at_each_listing() -> None:
    broken_run("b")
    (other,) = journals()
    content = other.read_bytes()
    other.unlink()
    broken_run("a")
    script()
    assert [reminders(list_share()) for _ in range(4)] == [1, 0, 0, 0]
    for _ in range(5):
        let_reminder_be_due()
        assert [reminders(list_share()) for _ in range(3)] == [1, 0, 0]
    # What comes in between does not put it off, and is settled meanwhile.
    (folder,) = {file.parent for file in found("left")}
    (folder / other.name).write_bytes(content)
    (folder / other.name).chmod(0o600)
    script()
    assert reminders(list_share()) == 0
    assert left() == ["gone a", "gone b"]
    let_reminder_be_due()
    assert reminders(list_share()) == 1
    # A clock that was set back does not put it off either.
    (file,) = found("left")
    os.utime(file, (0, time.time() + 3600))
    assert reminders(list_share()) == 1
    let_reminder_be_due()
    assert cycle().recovered == ["a", "b"]


def test_of_eight_runs_one_announces() -> None:
    listed = [f"f{index}" for index in range(50)]
    broken_run(*listed)
    script()
    assert reminders(list_share()) == 1
    programs = []
    for slot in range(8):
        end_cycle()
        names(*([REMINDER] if slot == 0 else []), f"x{slot}")
        program = copy()
        programs.append(program)
        # Each reads its list before the next one is written in its place.
        wait_until(lambda: len(called("copying")) == slot + 2, "the next copy to begin")
    announced = [recovered(program.finish()) for program in programs]
    assert sorted(announced) == [[]] * 7 + [listed]


def test_of_eight_runs_that_find_names_put_aside_one_announces() -> None:
    listed = [f"f{index}" for index in range(50)]
    broken_run(*listed)
    elsewhere = Path("/srv/elsewhere")
    assert cycle("x", target=elsewhere).recovered == []
    assert len(found("unannounced")) == 1
    end_cycle()
    names("y")
    script()
    programs = [copy() for _ in range(8)]
    announced = [recovered(program.finish()) for program in programs]
    assert sorted(announced) == [[]] * 7 + [listed]
    assert found("unannounced") == []


@pytest.mark.parametrize("ends", ["reader", "killed"])
def test_a_run_that_dies_before_it_has_told_all_leaves_the_rest(ends: str) -> None:
    listed = [f"{index:0200}" for index in range(950)]
    broken_run(*listed)
    script()
    assert reminders(list_share()) == 1
    names(REMINDER)
    program = copy()
    # The pipe takes some hundred lines; nobody reads them, and the run is killed.
    wait_until(
        lambda: any("\nt " + listed[-1] + "\n" in each.read_text() for each in journals()),
        "the names to be taken over",
    )
    if ends == "killed":
        program.signal(signal.SIGKILL)
    else:
        program.close_report()
    program.process.wait(30)
    program.close_report()
    told = {
        line[2:]
        for each in journals()
        for line in each.read_text("utf-8").splitlines()
        if line.startswith("c ")
    }
    assert len(told) < len(listed)
    let_it = cycle()
    assert let_it.recovered == [name for name in listed if name not in told]


def damage(journal: Path, how: str) -> None:
    """Makes a journal one that must not be trusted."""
    if how == "text":
        journal.write_bytes(journal.read_bytes().replace(b"\nn ", b"\nN "))
    elif how == "empty":
        journal.write_bytes(b"")
    elif how == "leads out":
        journal.write_bytes(journal.read_bytes() + b"n ../outside\n")
    elif how == "owner":
        os.chown(journal, 1, 1)
    elif how == "mode":
        journal.chmod(0o666)
    elif how == "link":
        journal.rename(JOURNALS / "elsewhere")
        journal.symlink_to(JOURNALS / "elsewhere")
    elif how == "folder":
        journal.unlink()
        journal.mkdir()
    elif how == "fifo":
        journal.unlink()
        os.mkfifo(journal, 0o600)
    elif how == "socket":
        journal.unlink()
        with socket.socket(socket.AF_UNIX) as server:
            os.chdir(journal.parent)  # its path is longer than an address may be
            server.bind(journal.name)
            os.chdir("/")
    elif how == "share":
        journal.write_bytes(journal.read_bytes().replace(b"/ramdisk/", b"/other/"))


DAMAGES = [
    *("text", "empty", "leads out", "owner", "mode", "link", "folder", "fifo", "socket", "share")
]


@pytest.mark.parametrize("how", DAMAGES)
def test_a_journal_that_is_not_sound_is_set_aside_and_the_next_copy_says_so(how: str) -> None:
    broken_run("a")
    (TARGET.parent / "outside").touch()
    (journal,) = journals()
    damage(journal, how)
    # One that fails says nothing, and leaves all as it is.
    script(listing="sys.exit(10)")
    list_share()
    assert os.path.lexists(journal)
    one = cycle("c")
    assert one.confirmed == ["c"] and one.recovered == []
    assert reminders(one.listing) == 1
    assert one.remarks == [
        f"rsync_orbelin: the journal {journal.name} is not used: damaged, or not this program's; "
        f"set aside as damaged-{journal.name}"
    ]
    assert os.path.lexists(journal.with_name(f"damaged-{journal.name}"))
    # Said once.
    assert cycle("d").remarks == []


def test_sound_journals_beside_a_damaged_one_count() -> None:
    broken_run("a")
    (journal,) = journals()
    damage(journal, "empty")
    broken_run("b")
    one = cycle("c")
    assert one.recovered == ["b"] and len(one.remarks) == 1


@pytest.mark.parametrize("how", ["text", "cut off", "leads out"])
@pytest.mark.parametrize("finder", ["listing", "failing listing", "copy"])
def test_left_names_that_are_not_sound_are_set_aside_and_the_next_copy_says_so(
    how: str, finder: str
) -> None:
    broken_run("a", "b")
    script()
    list_share()
    (file,) = found("left")
    text = file.read_bytes()
    file.write_bytes(
        {
            "text": text.replace(b"\ngone b", b"\nGone b"),
            "cut off": text[:-1],
            "leads out": text + b"gone ../outside\n",
        }[how]
    )
    said: list[str] = []
    if finder == "failing listing":
        script(listing="sys.exit(10)")
        list_share()
    elif finder == "copy":
        names("b")
        said = remarks(copy().finish())
        end_cycle()
    one = cycle("c")
    assert one.recovered == []
    said += one.remarks
    assert len(said) == 1 and said[0].startswith("rsync_orbelin: the ") and "left" in said[0]
    assert [each.name for each in found("damaged-*")] == ["damaged-left"]


def test_journals_that_cannot_be_opened_now_are_kept() -> None:
    broken_run("a")
    (journal,) = journals()
    script()
    refused = 0
    for error in ("EMFILE", "ENFILE", "ENOMEM", "EIO"):
        inject = strace("-P", str(journal), "-e", f"inject=openat,read:error={error}")
        list_share(before=inject)
        refused += Path("/srv/strace").read_text("utf-8").count("(INJECTED)")
        assert journals() == [journal] and found("damaged-*") == []
    assert refused == 4
    assert cycle().recovered == ["a"]


@pytest.mark.parametrize("error", ["EMFILE", "EIO"])
def test_no_open_that_fails_loses_a_name(error: str) -> None:
    broken_run("a")
    calls = strace("-e", "trace=openat")
    script()
    list_share(before=calls)
    script()
    opens = Path("/srv/strace").read_text("utf-8").count("openat(")
    assert opens > 8
    for number in range(1, opens + 1):
        remove(JOURNALS)
        broken_run("b")
        (journal,) = journals()
        content = journal.read_bytes()
        journal.unlink()
        broken_run("a")
        script()
        assert reminders(list_share()) == 1
        # Now "a" is left, and "b" is open.
        journal.write_bytes(content)
        journal.chmod(0o600)
        let_reminder_be_due()
        list_share(before=strace("-e", f"inject=openat:error={error}:when={number}"))
        let_reminder_be_due()
        assert found("damaged-*") == []
        announced = sorted(cycle().recovered)
        assert announced == ["a", "b"], f"after open number {number} of {opens}"


def test_no_open_of_the_announcing_run_that_fails_loses_a_name() -> None:
    for number in range(1, 60):
        broken_run("a", "b")
        script()
        list_share()
        names(REMINDER)
        inject = strace("-e", f"inject=openat:error=EMFILE:when={number}")
        told = recovered(copy(before=inject).finish())
        end_cycle()
        if found("left"):
            let_reminder_be_due()
        assert sorted(told + cycle().recovered) == ["a", "b"], f"open number {number}"
        if "(INJECTED)" not in Path("/srv/strace").read_text("utf-8"):
            assert number > 8
            return
    raise AssertionError("a run without end")


@pytest.mark.parametrize("what", ["stat", "boot"])
def test_a_daemon_of_which_the_system_tells_nothing_may_live(what: str) -> None:
    names("a")
    script()
    other = OtherDaemon()
    other.wait_for_run()
    pid = other.process.pid
    other.die()
    before = journals()
    path = f"/proc/{pid}/stat" if what == "stat" else "/proc/sys/kernel/random/boot_id"
    for error in ("EACCES", "EPERM", "EMFILE"):
        result = list_share(before=strace("-P", path, "-e", f"inject=openat:error={error}"))
        assert "(INJECTED)" in Path("/srv/strace").read_text("utf-8")
        assert reminders(result) == 0 and journals() == before
    end_cycle()
    names()
    assert cycle().recovered == ["a"]


def test_what_is_not_this_programs_own_is_left_alone() -> None:
    broken_run("a")
    (journal,) = journals()
    others = {"notes": b"mine", "run": b"", "new-left": b"half of a file"}
    for name, content in others.items():
        (journal.parent / name).write_bytes(content)
    foreign = journal.parent.with_name("foreign")
    foreign.mkdir()
    (foreign / "run-1-1").write_bytes(b"not ours")
    os.chown(foreign, 1, 1)
    one = cycle("c")
    assert one.recovered == ["a"] and one.remarks == []
    assert (journal.parent / "notes").read_bytes() == b"mine"
    assert (journal.parent / "run").exists()
    assert (foreign / "run-1-1").read_bytes() == b"not ours"


@pytest.mark.parametrize("which", ["all", "share", "destination"])
@pytest.mark.parametrize("how", ["owner", "mode", "link"])
def test_folders_that_others_could_have_filled_are_not_read(which: str, how: str) -> None:
    broken_run("a")
    (journal,) = journals()
    folder = {"all": JOURNALS, "share": journal.parent.parent, "destination": journal.parent}[which]
    if how == "owner":
        os.chown(folder, 1, 1)
    elif how == "mode":
        folder.chmod(0o777)
    else:
        folder.rename("/var/lib/skarn/moved")
        folder.symlink_to("/var/lib/skarn/moved")
    script()
    assert reminders(list_share()) == 0
    assert journal.exists()


def test_a_hundred_thousand_names_are_settled_in_a_blink_and_no_question_is_asked() -> None:
    broken_run("first")
    (journal,) = journals()
    many = [f"{index:06}" for index in range(100_000)]
    with open(journal, "a", encoding="ascii") as file:
        file.writelines(f"n {name}\n" for name in many)
    for name in many:
        (TARGET / name).touch()
    script()
    listing = list_share()
    assert reminders(listing) == 1 and listing.seconds < 5
    names(REMINDER)
    result = copy().finish()
    assert recovered(result) == ["first", *many] and result.seconds < 15
    assert called("asked") == [] and len(called("copying")) == 1


def test_after_the_next_boot_what_the_last_runs_announced_is_announced_again() -> None:
    assert cycle("a").confirmed == ["a"]
    assert cycle("b", "taken").confirmed == ["b", "taken"]
    # The consumer has acted on it.
    (TARGET / "taken").unlink()
    assert len(found("done-*")) == len(journals()) == 1
    with other_boot():
        assert cycle("c").recovered == ["a", "b"]
        assert cycle("d").recovered == []


def test_after_the_next_boot_what_was_announced_long_before_is_not() -> None:
    assert cycle("a").confirmed == ["a"]
    assert cycle("b").confirmed == ["b"]
    make_older(found("done-*")[0], 61)
    assert cycle("c").confirmed == ["c"]
    with other_boot():
        assert cycle("d").recovered == ["b", "c"]


def test_a_cut_spares_the_names_that_were_to_be_announced() -> None:
    broken_run("a", "b")
    script()
    assert reminders(list_share()) == 1
    with other_boot():
        let_reminder_be_due()
        assert cycle("c").recovered == ["a", "b"]
        # And now the run that has announced them is over, in this boot and in the next.
        assert cycle("d").recovered == []
    with other_boot("12345678-0000-0000-0000-000000000000"):
        assert sorted(cycle("e").recovered) == ["a", "b", "c", "d"]


def test_names_of_another_target_are_told_of_and_kept_for_it() -> None:
    broken_run("a", "b", "sub/c")
    (journal,) = journals()
    folder, content = journal.parent, journal.read_bytes()
    elsewhere = Path("/srv/elsewhere")
    one = cycle("x", target=elsewhere)
    assert reminders(one.listing) == 1
    assert one.recovered == []
    assert one.remarks == [
        f"rsync_orbelin: 3 files in {TARGET}/ left the source and may not have been announced: "
        f"the target is another one now. Their names are in {folder}/unannounced"
    ]
    text = (folder / "unannounced").read_text("utf-8")
    assert text.endswith("\nnames\ngone a\ngone b\ngone sub/c\n")
    # Said once, and no cause to remind.
    two = cycle("y", target=elsewhere)
    assert reminders(two.listing) == 0 and two.remarks == []
    # Some more of them: a run's journal that comes late.
    (folder / journal.name).write_bytes(content.replace(b"\nn a\n", b"\nn d\n"))
    (folder / journal.name).chmod(0o600)
    (TARGET / "d").touch()
    (TARGET / "sub/c").unlink()
    three = cycle("z", target=elsewhere)
    assert [line.split()[1:3] for line in three.remarks] == [["2", "files"]]
    # A run to that target announces them without being reminded.
    four = cycle("w")
    assert reminders(four.listing) == 0
    assert sorted(four.recovered) == ["a", "b", "d"]
    assert not (folder / "unannounced").exists()
    assert cycle("v").recovered == []


def test_names_of_two_targets_are_announced_under_their_own() -> None:
    broken_run("a")
    elsewhere = Path("/srv/elsewhere")
    end_cycle()
    names("b")
    script(RECEIVE + WAIT)
    program = copy(elsewhere)
    program.read_until("SENT: b\n")
    kill(program)
    (elsewhere / "b").touch()
    one = cycle("x", target=elsewhere)
    assert one.recovered == ["b"] and len(one.remarks) == 1
    assert cycle("y").recovered == ["a"]


def test_names_that_the_full_disk_keeps_from_being_forgotten_are_not_announced_twice() -> None:
    with mounted(JOURNALS.parent, "-o", "size=256k"):
        broken_run("a", *(f"{index:0200}" for index in range(300)))
        script(listing=f"show(*[('%0200d' % index) for index in range(300)])")
        assert reminders(list_share()) == 1
        assert len(left()) == 301
        room = os.statvfs(JOURNALS.parent)
        filler = JOURNALS.parent / "filler"
        # Enough for the journal, and not for what is left without the name that was taken.
        filler.write_bytes(b"x" * (room.f_bavail * room.f_frsize - 8192))
        names(REMINDER)
        announced = recovered(copy().finish())
        end_cycle()
        filler.unlink()
        script(listing=f"show(*[('%0200d' % index) for index in range(300)])")
        for _ in range(2):
            list_share()
            if found("left"):
                names(REMINDER)
                announced += recovered(copy().finish())
            end_cycle()
        assert announced == ["a"]


def test_a_listing_on_a_full_disk_settles_nothing_and_loses_nothing() -> None:
    with mounted(JOURNALS.parent, "-o", "size=64k"):
        broken_run("a")
        damaged = journals()[0].with_name("run-1-1")
        damaged.write_bytes(b"")
        damaged.chmod(0o600)
        room = os.statvfs(JOURNALS.parent)
        filler = JOURNALS.parent / "filler"
        filler.write_bytes(b"x" * (room.f_bavail * room.f_frsize))
        script()
        assert reminders(list_share()) == 0
        filler.unlink()
        one = cycle()
        assert one.recovered == ["a"]
        assert len(one.remarks) == 1 and "run-1-1" in one.remarks[0]


def test_nothing_behind_a_link_at_the_target_is_announced_for_an_earlier_run() -> None:
    secret = Path("/srv/secret")
    secret.mkdir()
    (secret / "key").touch()
    broken_run("a", "d/key", "d/sub/key")
    remove(TARGET / "d")
    (TARGET / "d").symlink_to(secret)
    assert cycle("c").recovered == ["a"]
    # A link that was itself received is a file as any other.
    broken_run("d/key", "d", copying='out("SENT: d\\n")', shows="SENT: d\n")
    assert cycle("c").recovered == ["d"]


def test_nothing_is_kept_for_a_source_that_is_no_share() -> None:
    for source in ("/srv/share/", URL + "../other/", URL + "a/../b/"):
        names("a")
        script()
        result = copy(source=source).finish()
        assert result.status == 3 and result.confirmed == [] and called() == []
        assert result.lines == [
            f"rsync_orbelin: nothing is copied: {source} is no share of an rsync daemon, "
            "or not below its module"
        ]
        assert not JOURNALS.exists()


def test_the_moves_of_a_cycle_need_no_reminder() -> None:
    script(MOVE)
    for name in ("a", "b", "c"):
        one = cycle(name)
        assert one.listing.lines[0].endswith(f" {name}") and len(one.listing.lines) == 1
    assert run(scripted_binary()).lines[0].startswith("rsync_orbelin: the list ")
