"""Builds the product with one small fault at a time and runs tests that must notice it.

A fault is a change of a few lines of one source file; the text must be found there exactly once,
so that a fault whose place has changed is an error and is not passed over. The file is changed in a
copy, compiled as the build compiles it, and linked in its object's place into the programs that
may see it, one after the other until a test fails. Needs a Ninja build of those programs.
"""
import collections
import dataclasses
import json
import os
import pathlib
import re
import subprocess
import sys

PROJECT = pathlib.Path(__file__).resolve().parents[2]
ARCHIVES = {"lib/CMakeFiles/filestore_lib.dir/": "lib/libfilestore_lib.a"}
TIMEOUT = 900  # of one test program


@dataclasses.dataclass
class Bug:
    name: str
    file: str
    old: str
    new: str
    # The test that is expected to see it: a GoogleTest program, with a filter behind a colon; or
    # a test of the built tool, "fstore_check_test.py:CheckTest.test_a_sound_database".
    first: str
    also: tuple = ()  # further places in the file: (old, new)


def with_bug(bug):
    text = (PROJECT / bug.file).read_text(encoding="utf-8")
    for old, new in ((bug.old, bug.new), *bug.also):
        if text.count(old) != 1:
            raise RuntimeError(f"{bug.name}: its place in {bug.file} is there {text.count(old)} times")
        text = text.replace(old, new)
    return text


def run_once(program, command, folder, **environment):
    """Runs the command and removes the program; None when it does not end."""
    try:
        return subprocess.run(command, cwd=folder, env={**os.environ, **environment},
                              capture_output=True, text=True, errors="replace",
                              timeout=TIMEOUT, check=False)
    except subprocess.TimeoutExpired:
        return None
    finally:
        program.unlink()


class Build:
    """The commands of a Ninja build, with one object replaced."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder).resolve()
        # How each source is compiled: by itself or in a group, which includes it, and once for each
        # library that has it.
        self.compiles = collections.defaultdict(list)
        with open(self.folder / "compile_commands.json", encoding="utf-8") as file:
            for entry in json.load(file):
                name = entry["file"]
                sources = [name] if "/Unity/" not in name else re.findall(
                    r'#include "([^"]+)"', pathlib.Path(name).read_text("utf-8"))
                for source in sources:
                    self.compiles[source].append(entry)
        self.links = {}
        self.sound = set()

    def link_command(self, program):
        if program not in self.links:
            listed = subprocess.run(["ninja", "-C", self.folder, "-t", "commands", "bin/" + program],
                                    check=True, capture_output=True, text=True).stdout
            self.links[program] = listed.strip().splitlines()[-1]
        return self.links[program]

    def variant(self, bug):
        """Compiles the faulty source; returns the folder, and of each object both names."""
        folder = self.folder / "seeded" / bug.name
        folder.mkdir(parents=True, exist_ok=True)
        faulty = folder / pathlib.Path(bug.file).name
        faulty.write_text(with_bug(bug), encoding="utf-8")
        sound = str(PROJECT / bug.file)
        return folder, [self.compile(entry, sound, faulty, folder / str(number))
                        for number, entry in enumerate(self.compiles[sound])]

    def compile(self, entry, sound, faulty, folder):
        """One object of the faulty source, and the sound one's name."""
        folder.mkdir(exist_ok=True)
        source = faulty
        if entry["file"] != sound:
            group = pathlib.Path(entry["file"]).read_text(encoding="utf-8")
            source = folder / pathlib.Path(entry["file"]).name
            source.write_text(group.replace(f'"{sound}"', f'"{faulty}"'), encoding="utf-8")
        before = re.search(r" -o (\S+)", entry["command"]).group(1)
        after = str(folder / (source.name + ".o"))
        command = entry["command"].replace(" -o " + before, " -o " + after)
        command = command.replace(" -c " + entry["file"], " -Wno-error -w -c " + str(source))
        subprocess.run(command, shell=True, check=True, cwd=self.folder)
        return before, after

    def link(self, program, objects, faulty):
        """Links the program with the faulty object, if it has that object at all."""
        command = self.link_command(program)
        own = [(before, after) for before, after in objects if before in command]
        # In front of its archive it is the one that is taken.
        archived = [(before, after, archive) for before, after in objects
                    for head, archive in ARCHIVES.items()
                    if before.startswith(head) and f" {archive}" in command]
        if own:
            for before, after in own:
                command = command.replace(before, after)
        elif archived:
            before, after, archive = archived[0]
            if after != before:
                command = command.replace(f" {archive}", f" {after} {archive}", 1)
        else:
            return False
        command = command.replace("-o bin/" + program, f"-o {faulty}")
        subprocess.run(command, shell=True, check=True, cwd=self.folder)
        return True

    def faulty_program(self, folder, name):
        """Of the sound one's name, with the libraries where that has them."""
        (folder / "bin").mkdir(exist_ok=True)
        if not (folder / "lib").is_symlink():
            (folder / "lib").symlink_to(self.folder / "lib")
        return folder / "bin" / name

    def run(self, test, folder, objects):
        """Which test fails with these objects in the place of the sound ones; None when none does."""
        program, _, cases = test.partition(":")
        if program.endswith(".py"):
            return self.run_tool(program, cases, folder, objects)
        faulty = self.faulty_program(folder, program)
        if not self.link(program, objects, faulty):
            return None
        done = run_once(faulty, [faulty, "--gtest_fail_fast", "--gtest_brief=1",
                                 f"--gtest_filter={cases or '*'}"], folder,
                        FILESTORE_MODULES=str(self.folder / "lib"))
        if done is None:
            return program + ": hangs"
        if " 0 tests ran" in done.stdout or " 0 tests from" in done.stdout:
            raise RuntimeError(f"{test}: there is no such test")
        if done.returncode == 0:
            return None
        if done.returncode > 1:  # a crash is below 0
            raise RuntimeError(f"{test} does not run:\n{done.stdout}{done.stderr}")
        failed = re.search(r"\[  FAILED  \] ([\w./]+)", done.stdout)
        if failed is None:
            failed = re.search(r"\[ RUN      \] ([\w./]+)(?!.*\[ RUN)", done.stdout, re.DOTALL)
        return failed.group(1) if failed else f"{program}: ends with {done.returncode}"

    def run_tool(self, script, cases, folder, objects):
        """The same for a test that starts the tool, which finds its modules from where it is."""
        faulty = self.faulty_program(folder, "fstore")
        if not self.link("fstore", objects, faulty):
            return None
        done = run_once(faulty, [sys.executable, "-B", PROJECT / "tests/fstore" / script,
                                 *filter(None, cases.split(","))], self.folder,
                        FSTORE_PROGRAM=str(faulty), CALL_TRAP=str(self.folder / "lib/call_trap.so"))
        if done is None:
            return script + ": hangs"
        if done.returncode == 0:
            return None
        failed = re.search(r"^FAIL: (\w+)", done.stdout, re.MULTILINE)
        if failed is None:
            raise RuntimeError(f"{script} {cases} does not run:\n{done.stdout}{done.stderr}")
        return f"{script.removesuffix('.py')}.{failed.group(1)}"


def catch(build, bug, programs, controls):
    folder, objects = build.variant(bug)
    for test in (bug.first, *(p for p in programs if p != bug.first)):
        if controls and test not in build.sound:
            # Where it fails by itself it proves nothing.
            if (failed := build.run(test, folder, [(before, before) for before, _ in objects])) is not None:
                raise RuntimeError(f"{test} fails without a fault: {failed}")
            build.sound.add(test)
        caught = build.run(test, folder, objects)
        if caught is not None:
            return caught
    return None


def chosen(names, bugs, every_day):
    if names == ["--all"]:
        return list(bugs)
    unknown = set(names) - {bug.name for bug in bugs}
    if unknown:
        sys.exit("unknown: " + ", ".join(sorted(unknown)))
    return [bug for bug in bugs if bug.name in (names or every_day)]


def main(usage, figure, bugs, every_day, programs):
    """Tries the bugs that the command line names: exit code 0 if each was caught."""
    if len(sys.argv) < 2:
        sys.exit(usage)
    for variable in ("GTEST_OUTPUT", "TORTURE_FULL", "TORTURE_PART", "TORTURE_SECONDS",
                     "TORTURE_SEED", "FSTORE_LONG"):
        os.environ.pop(variable, None)  # each bug meets the tests of every day
    for bug in bugs:
        with_bug(bug)  # a place that has moved is known at once, and not when its turn comes
    build = Build(sys.argv[1])
    tried = chosen(sys.argv[2:], bugs, every_day)
    controls = sys.argv[2:] == ["--all"]  # every day, the programs run by themselves as well
    missed = 0
    for bug in tried:
        caught = catch(build, bug, programs, controls)
        missed += caught is None
        print(f"{bug.name:48}  {caught or 'NOT CAUGHT'}", flush=True)
    print(f"figure: {figure}: {len(tried)}")
    print(f"figure: {figure} caught: {len(tried) - missed}")
    return 1 if missed else 0
