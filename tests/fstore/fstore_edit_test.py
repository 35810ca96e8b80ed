"""fstore edit, with programs in place of an editor."""

import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import unittest

import support
from support import InitialisedTest
from terminal import Terminal

MEMORY = pathlib.Path("/dev/shm")


def left_in_memory():
    return {path for path in MEMORY.glob("fstore-??????") if path.is_dir()}


class EditCase(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for address, *more in (("settings/a",), ("settings/plain", "--plain-body")):
            run = support.fstore("-D", folder, "put", "-f", address, "-", *more, stdin=b"one\n")
            assert run.code == 0, run.message
        (folder / "key").write_bytes(subprocess.run(["openssl", "genpkey", "-algorithm", "ed25519"],
                                                    check=True, capture_output=True).stdout)
        run = support.fstore("-D", folder, "import", folder / "key", "--name", "k")
        assert run.code == 0, run.message

    def setUp(self):
        super().setUp()
        self.before = left_in_memory()

    def tearDown(self):
        self.assertLessEqual(left_in_memory(), self.before)
        super().tearDown()

    def editor(self, script):
        """A shell script as an editor; "$1" is the file."""
        path = self.folder / "editor"
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)
        return str(path)

    def edit(self, address, script, code=0, **more):
        return self.run_tool("edit", address, code=code, env={"EDITOR": self.editor(script)},
                             **more)

    def body(self, address):
        return self.run_tool("get", address).out

    def of_another(self, *args):
        """The command line of another process, for an editor's script."""
        (self.folder / "password").write_text(support.PASSWORD, encoding="ascii")
        (self.folder / "password").chmod(0o600)
        return f"FSTORE_PASSWORD_FILE='{self.folder}/password' '{support.PROGRAM}' " \
            f"-D '{self.folder}' " + " ".join(args)


class EditTest(EditCase):
    def test_the_body_becomes_what_the_editor_makes_of_it(self):
        run = self.edit("settings/a", 'echo two >> "$1"')
        self.assertEqual(b"one\ntwo\n", self.body("settings/a"))
        self.assertIn("stored settings/a: 8 bytes, encrypted", run.message)

    def test_an_editor_may_replace_the_file(self):
        self.edit("settings/a", 'cp "$1" "$1~"; echo new > "$1.tmp"; mv "$1.tmp" "$1"')
        self.assertEqual(b"new\n", self.body("settings/a"))

    def test_what_is_no_file_any_more_is_neither_waited_for_nor_followed(self):
        for script in ['rm "$1"', 'rm "$1"; mkfifo "$1"', 'rm "$1"; mkdir "$1"',
                       'rm "$1"; ln -s /etc/passwd "$1"']:
            run = self.edit("settings/a", script, code=4)
            self.assertIn("what the editor left cannot be stored, and settings/a stays as it was",
                          run.message)
            self.assertEqual(b"one\n", self.body("settings/a"))

    def test_an_editor_with_options(self):
        run = self.run_tool("edit", "settings/a", env={"VISUAL": "sed -i -e 's/one/a b/'",
                                                       "EDITOR": "false"})
        self.assertEqual(b"a b\n", self.body("settings/a"), run.message)

    def test_a_pattern_of_others_is_no_new_record(self):
        before = self.records()
        for pattern in ["settings/p*", "*/plain", "settings/[a]"]:
            run = self.edit(pattern, 'echo two > "$1"', code=4)
            self.assertIn(f"{pattern} is a pattern that matches settings/", run.message)
        self.assertEqual(before, self.records())
        self.edit("settings/x*", 'echo new > "$1"')
        self.assertEqual(b"new\n", self.body("settings/x*"))

    def test_what_is_plain_stays_so(self):
        self.edit("settings/plain", 'echo two >> "$1"', password=None)
        body = self.run_tool("--json", "show", "settings/plain").document["records"][0]["body"]
        self.assertEqual((8, False), (body["size"], body["encrypted"]))

    def test_a_new_record(self):
        self.edit("settings/new", 'test ! -s "$1" && echo text > "$1"')
        self.assertEqual(b"text\n", self.body("settings/new"))

    def test_unchanged_is_not_stored(self):
        before = self.run_tool("--json", "show", "-u", "settings/a").document
        run = self.edit("settings/a", "exit 0")
        self.assertIn("settings/a is as it was", run.message)
        self.assertEqual(before, self.run_tool("--json", "show", "-u", "settings/a").document)
        self.edit("settings/other", "exit 0")
        self.run_tool("get", "settings/other", code=50)

    def test_an_editor_that_fails(self):
        run = self.edit("settings/a", 'echo two >> "$1"; exit 1', code=9)
        self.assertIn("nothing was changed", run.message)
        self.assertEqual(b"one\n", self.body("settings/a"))
        run = self.run_tool("edit", "settings/a", code=9, env={"EDITOR": "/no/such/editor"})
        self.assertIn("VISUAL or EDITOR", run.message)

    def test_an_editor_that_leaves_nothing(self):
        for script in ': > "$1"', 'rm "$1"; touch "$1"':
            for address in "settings/a", "settings/plain":
                run = self.edit(address, script, code=4)
                self.assertIn(f"the editor left an empty text; {address} stays as it was", run.message)
                self.assertIn(f"fstore put -f {address} /dev/null", run.message)
                self.assertEqual(b"one\n", self.body(address))
        self.run_tool("put", "-f", "settings/a", "/dev/null")
        self.assertEqual(b"", self.body("settings/a"))
        self.edit("settings/a", ': > "$1"')  # it was empty before

    def test_what_is_no_text_of_the_users(self):
        for address, code in (("keys/k", 4), ("nowhere/a", 50)):
            run = self.edit(address, 'touch "$0.ran"', code=code)
            self.assertFalse((self.folder / "editor.ran").exists(), run.message)

    def test_nobody_else_sees_the_text(self):
        self.edit("settings/a", 'stat -c "%a %n" "$1" "$(dirname "$1")" > "$0.seen"; '
                                'env > "$0.env"; ls /proc/self/fd > "$0.files"; echo 2 >> "$1"')
        seen = (self.folder / "editor.seen").read_text(encoding="ascii").split()
        self.assertEqual(["600", "700"], seen[::2])
        self.assertEqual("a", pathlib.Path(seen[1]).name)
        self.assertEqual(MEMORY, pathlib.Path(seen[3]).parent)
        self.assertNotIn(support.PASSWORD, (self.folder / "editor.env").read_text())
        # Its standard streams, the script, and the folder that is listed.
        self.assertLessEqual(len((self.folder / "editor.files").read_text().split()), 5)

    def test_what_another_has_changed_is_not_replaced_unasked(self):
        other = self.of_another("put", "-f", "settings/a", "editor")
        run = self.edit("settings/a", f'cd "$(dirname "$0")" && {other} && echo two >> "$1"',
                        code=4)
        self.assertIn("settings/a has been changed in the meantime", run.message)
        self.assertEqual((self.folder / "editor").read_bytes(), self.body("settings/a"))

    def test_what_another_has_removed_stays_so(self):
        other = self.of_another("rm", "settings/a")
        run = self.edit("settings/a", f'{other} && echo two >> "$1"', code=50)
        self.assertIn("has been removed in the meantime", run.message)
        self.run_tool("get", "settings/a", code=50)

    def test_no_input_is_no_editor(self):
        run = self.run_tool("--no-input", "edit", "settings/a", code=2)
        self.assertIn("fstore put", run.message)

    def test_nothing_is_left_when_it_is_killed(self):
        for number in (signal.SIGKILL, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                editor = self.editor('cp "$1" "$1~"; touch "$0.ready"; exec sleep 60')
                process = support.start("-D", self.folder, "edit", "settings/a",
                                        env={"EDITOR": editor})
                ready = self.folder / "editor.ready"
                support.wait_until(ready.exists)
                os.kill(process.pid, number)
                support.wait_until(lambda: left_in_memory() <= self.before)
                os.killpg(process.pid, signal.SIGKILL)
                process.communicate()
                ready.unlink()
                self.assertEqual(b"one\n", self.body("settings/a"))


class LeftInMemoryTest(EditCase):
    """What is left when the process that would clean up is killed as well."""

    def interrupted(self, prepare=lambda left: None):
        """The folder of an edit all of whose processes were killed. From then on any other run may
        remove it, of another test as well."""
        editor = self.editor('mkdir "$1.d"; cp "$1" "$1.d/more"; touch "$0.ready"; exec sleep 60')
        process = support.start("-D", self.folder, "edit", "settings/a", env={"EDITOR": editor})
        support.wait_until((self.folder / "editor.ready").exists)
        (left,) = left_in_memory() - self.before
        self.assertEqual(b"one\n", (left / "a").read_bytes())
        prepare(left)
        children = pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children")
        for child in children.read_text().split():
            os.kill(int(child), signal.SIGKILL)
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        (self.folder / "editor.ready").unlink()
        return left

    def test_next_edit_removes_it(self):
        held = []
        left = self.interrupted(lambda left: held.append(os.open(left / "a", os.O_RDONLY)))
        self.addCleanup(os.close, held[0])
        self.edit("settings/a", f"test ! -e {left}")
        self.assertEqual(bytes(4), os.pread(held[0], 99, 0))

    def test_no_memory_is_filled_to_overwrite_a_file_of_holes(self):
        held = []

        def prepare(left):
            with open(left / "holes", "wb") as holes:
                holes.seek(1 << 26)
                holes.write(b"end")
            held.append(os.open(left / "holes", os.O_RDONLY))

        left = self.interrupted(prepare)
        self.addCleanup(os.close, held[0])
        self.edit("settings/a", f"test ! -e {left}")
        self.assertEqual(bytes(3), os.pread(held[0], 9, 1 << 26))
        self.assertLess(os.fstat(held[0]).st_blocks, 100)

    def test_so_does_an_import_with_keytool(self):
        left = self.interrupted()
        keytool = self.folder / "keytool"
        keytool.write_text(f"#!/bin/sh\ntest ! -e {left} && touch '{self.folder}/gone'; exit 1\n")
        keytool.chmod(0o755)
        (self.folder / "x.jks").write_bytes(b"\xfe\xed\xfe\xed\0\0\0\2\0\0\0\1")
        self.run_tool("import", "x.jks", code=59, env={
            "PATH": f"{self.folder}:{os.environ['PATH']}", "FSTORE_IN_PASSWORD": "x"})
        self.assertTrue((self.folder / "gone").exists())

    def test_a_folder_that_is_in_use_stays(self):
        editor = self.editor('touch "$0.ready"; exec sleep 60')
        process = support.start("-D", self.folder, "edit", "settings/a", env={"EDITOR": editor})
        support.wait_until((self.folder / "editor.ready").exists)
        (used,) = left_in_memory() - self.before
        self.run_tool("edit", "settings/plain", env={"EDITOR": "true"})
        self.assertEqual(b"one\n", (used / "a").read_bytes())
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()
        support.wait_until(lambda: left_in_memory() <= self.before)

    def test_what_is_not_surely_ours_stays(self):
        mark = ".fstore-83f1c2d6-lock"
        target = pathlib.Path(tempfile.mkdtemp(prefix="fstore-target-", dir=MEMORY))
        self.addCleanup(shutil.rmtree, target)
        (target / mark).touch(0o600)
        random = os.urandom(2).hex()
        link = MEMORY / f"fstore-l-{random}"
        link.symlink_to(target)
        self.addCleanup(link.unlink)
        folders = []
        for name, mode, lock in (("n-", 0o700, None), ("m-", 0o755, 0o600), ("r-", 0o700, 0o644),
                                 ("longer-", 0o700, 0o600)):
            folder = MEMORY / f"fstore-{name}{random}"
            folder.mkdir()
            self.addCleanup(shutil.rmtree, folder)
            folder.chmod(mode)
            (folder / "text").write_text("mine")
            if lock is not None:
                (folder / mark).touch()
                (folder / mark).chmod(lock)
            folders.append(folder)
        self.before = left_in_memory()
        self.edit("settings/a", "exit 0")
        for folder in folders:
            self.assertEqual("mine", (folder / "text").read_text())
        self.assertTrue((target / mark).exists())

    def test_what_is_linked_from_elsewhere_is_only_unlinked(self):
        elsewhere = MEMORY / f"elsewhere-{os.urandom(4).hex()}"

        def prepare(left):
            os.link(left / "a", elsewhere)
            (left / "link").symlink_to(elsewhere)

        left = self.interrupted(prepare)
        self.addCleanup(elsewhere.unlink)
        self.edit("settings/a", f"test ! -e {left}")
        self.assertEqual(b"one\n", elsewhere.read_bytes())


class TerminalTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"one\n")
        assert run.code == 0, run.message

    def start(self, script):
        path = self.folder / "editor"
        path.write_text(f"#!/bin/sh\n{script}\n")
        path.chmod(0o755)
        terminal = Terminal(["-D", self.folder, "edit", "settings/a"], env={"EDITOR": str(path)},
                            password=support.PASSWORD)
        self.addCleanup(terminal.close)
        return terminal

    def test_the_editor_has_the_terminal_and_its_interrupts(self):
        terminal = self.start('trap "echo heard" INT; echo ready; read line; '
                              'echo "$line" >> "$1"')
        terminal.expect("ready")
        terminal.type("\x03")
        terminal.expect("heard")
        terminal.type("two\n")
        self.assertEqual(0, terminal.wait(), terminal.seen)
        self.assertIn(b"one\n", self.run_tool("get", "settings/a").out)

    def test_an_empty_text_is_asked_about(self):
        for answer, code, body in ("n", 4, b"one\n"), ("y", 0, b""):
            terminal = self.start(': > "$1"')
            terminal.expect("The editor left an empty text. Empty settings/a?")
            terminal.type(f"{answer}\n")
            self.assertEqual(code, terminal.wait(), terminal.seen)
            self.assertEqual(body, self.run_tool("get", "settings/a").out)

    def test_the_text_is_not_lost_where_it_cannot_be_stored(self):
        (self.folder / "password").write_text(support.PASSWORD, encoding="ascii")
        (self.folder / "password").chmod(0o600)
        terminal = self.start(
            f"test -e '{self.folder}/ran' || FSTORE_PASSWORD_FILE='{self.folder}/password' "
            f"'{support.PROGRAM}' -D '{self.folder}' put -f settings/a \"$0\"; "
            f"touch '{self.folder}/ran'; echo two >> \"$1\"")
        terminal.expect("Replace it all the same?")
        terminal.type("n\n")
        terminal.expect("Edit the text again?")
        terminal.type("y\n")
        terminal.expect("Replace it all the same?")
        terminal.type("y\n")
        self.assertEqual(0, terminal.wait())
        self.assertEqual(b"one\ntwo\ntwo\n", self.run_tool("get", "settings/a").out)


if __name__ == "__main__":
    unittest.main()
