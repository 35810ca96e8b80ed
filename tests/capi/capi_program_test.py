"""The examples as somebody's programs: compiled against the header and the library alone, and watched
for what a library must not do to its process."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
LIBRARY = pathlib.Path(os.environ["FILESTORE_LIBRARY"])
STRICT = ["-Wall", "-Wextra", "-pedantic", "-Werror"]


class ProgramTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.work = pathlib.Path(cls.folder.name)
        include = cls.work / "include" / "filestore"
        include.mkdir(parents=True)
        shutil.copy(ROOT / "capi" / "filestore.h", include)
        cls.programs = [cls.compile(["gcc", "-std=c99"], "notes.c"),
                        cls.compile(["g++", "-std=c++17"], "notes.cpp")]

    @classmethod
    def compile(cls, compiler, source):
        program = cls.work / source.replace(".", "_")
        subprocess.run([*compiler, *STRICT, f"-I{cls.work / 'include'}", ROOT / "examples" / source,
                        LIBRARY, f"-Wl,-rpath,{LIBRARY.parent}", "-o", program], check=True)
        return program

    def setUp(self):
        place = tempfile.TemporaryDirectory(dir=self.work)
        self.addCleanup(place.cleanup)
        self.place = pathlib.Path(place.name)
        (self.place / "password").write_text("secret\n", encoding="utf-8")

    def run_notes(self, program, *arguments, before=()):
        return subprocess.run([*before, program, self.place / "db-folder", self.place / "password",
                               *arguments], capture_output=True, text=True, check=False, timeout=60)

    def test_stores_and_prints(self):
        for writer in self.programs:
            for reader in self.programs:
                stored = self.run_notes(writer, "one", f"by {writer.name}")
                self.assertEqual((0, "", ""), (stored.returncode, stored.stdout, stored.stderr))
                self.assertEqual(f"by {writer.name}\n", self.run_notes(reader, "one").stdout)

    def test_relative_names_begin_at_the_folder_of_the_process(self):
        for program in self.programs:
            for text in (["text"], []):
                run = subprocess.run([program, "db-folder", "password", "one", *text],
                                     cwd=self.place, capture_output=True, text=True, check=False,
                                     timeout=60)
                self.assertEqual((0, "" if text else "text\n", ""),
                                 (run.returncode, run.stdout, run.stderr))

    def test_ends_with_the_status(self):
        for program in self.programs:
            self.run_notes(program, "one", "text")
            run = self.run_notes(program, "two")
            self.assertEqual(50, run.returncode)
            self.assertRegex(run.stderr, r"^notes: there is no record settings/two")
            (self.place / "password").write_text("wrong", encoding="utf-8")
            self.assertEqual(6, self.run_notes(program, "one").returncode)
            (self.place / "password").write_text("secret", encoding="utf-8")

    def test_leaves_its_process_as_it_is(self):
        trace = self.place / "trace"
        watched = "chdir,fchdir,umask,unshare,setns,execve,execveat,rt_sigaction,sigaltstack,prctl," \
                  "setrlimit,fork,vfork,clone,clone3,kill,tgkill"
        for program in self.programs:
            run = self.run_notes(program, "one", "text",
                                 before=["strace", "-f", "-o", trace, "-e", f"trace={watched}"])
            self.assertEqual(0, run.returncode, run.stderr)
            calls = re.findall(r"^\d+ +(\w+)\(", trace.read_text(encoding="utf-8"), re.MULTILINE)
            self.assertEqual(["execve"], calls)  # strace's own

    def test_beside_modules_that_the_program_hosts_itself(self):
        run = subprocess.run([os.environ["HOSTING_PROGRAM"], LIBRARY, self.place / "db-folder"],
                             cwd=self.place, capture_output=True, text=True, check=False, timeout=60)
        self.assertEqual((0, "two copies\n", ""), (run.returncode, run.stdout, run.stderr))


if __name__ == "__main__":
    unittest.main()
