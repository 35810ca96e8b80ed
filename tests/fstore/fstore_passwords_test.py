#!/usr/bin/env python3
"""Passwords: where they come from, what is refused, how they are protected and changed."""

import hashlib
import os
import pathlib
import re
import shutil
import signal

import kept_database
import support
from support import CHEAP, PASSWORD, FstoreTest, InitialisedTest
from terminal import Terminal

SLOT = re.compile(r"ln=(\d+) r=(\d+) p=(\d+) salt=([0-9a-f]{64}) wrap=aead key=([0-9a-f]{32})")


class SourceTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"body")
        assert run.code == 0, run.message

    def opens(self, *args, code=0, **more):
        run = self.run_tool("get", "a", *args, code=code, password=None, **more)
        self.assertEqual(b"body" if code == 0 else b"", run.out)
        return run

    def private(self, name, contents):
        path = self.write(name, contents)
        path.chmod(0o600)
        return path

    def test_each_source(self):
        path = self.private("pw", PASSWORD)
        self.opens("--password-file", path)
        self.opens("--password-file", "-", stdin=PASSWORD.encode())
        self.opens(env={"FSTORE_PASSWORD_FILE": path})
        self.opens(env={"FSTORE_PASSWORD": PASSWORD})
        with path.open("rb") as file:
            self.opens("--password-fd", file.fileno(), pass_fds=(file.fileno(),))
        self.opens("--password-fd", "0", stdin=PASSWORD.encode())

    def test_order_of_sources(self):
        right, wrong = self.private("right", PASSWORD), self.private("wrong", "wrong")
        with right.open("rb") as file:
            self.opens("--password-fd", file.fileno(),
                       env={"FSTORE_PASSWORD_FILE": wrong, "FSTORE_PASSWORD": "wrong"},
                       pass_fds=(file.fileno(),))
        self.opens("--password-file", right,
                   env={"FSTORE_PASSWORD_FILE": wrong, "FSTORE_PASSWORD": "wrong"})
        self.opens(env={"FSTORE_PASSWORD_FILE": right, "FSTORE_PASSWORD": "wrong"})

    def test_two_options_for_one_secret_are_refused(self):
        file = self.private("pw", PASSWORD)
        for pair in [("--password-file", file, "--password-fd", 0),
                     ("--password-file", file, "--key-file", file),
                     ("--password-fd", 0, "--key-file", file)]:
            self.opens(*pair, code=2, stdin=PASSWORD.encode())
        run = self.run_tool("passwd", "--new-password-file", file, "--new-password-fd", 0, code=2)
        self.assertIn("do not go together", run.message)

    def test_one_line_feed_is_dropped(self):
        self.opens("--password-file", self.private("pw", PASSWORD + "\n"))
        self.opens("--password-file", self.private("pw", PASSWORD + "\n\n"), code=6)
        self.opens("--password-file", self.private("pw", PASSWORD + "\r"), code=6)

    def test_a_line_as_windows_ends_it_is_taken_with_a_warning(self):
        run = self.opens("--password-file", self.private("pw", PASSWORD + "\r\n"))
        self.assertRegex(run.message, "carriage return is left out")
        self.assertNotIn(PASSWORD, run.message)

    def test_refused_ones(self):
        for contents in [b"", b"\n", b"a\0b", b"x" * 4097]:
            with self.subTest(contents[:8]):
                path = self.private("pw", contents)
                self.fails(4, "invalid", "get", "a", "--password-file", path)
        self.fails(4, "invalid", "get", "a", env={"FSTORE_PASSWORD": ""})

    def test_wrong_password(self):
        self.assertIn("password", self.fails(6, "wrong-password", "get", "a", password="wrong"))

    def test_file_that_others_can_read_is_warned_about(self):
        path = self.private("pw", PASSWORD)
        self.assertEqual(b"", self.opens("--password-file", path).err)
        path.chmod(0o640)
        self.assertIn("warning: other users can read", self.opens("--password-file", path).message)
        run = self.run_tool("get", "a", "--json", "--password-file", path)
        self.assertIn("other users can read", run.document["warnings"][0])
        self.assertEqual(b"", run.err)

    def test_without_source_the_ways_are_named(self):
        message = self.fails(2, "usage", "get", "a", password=None)
        for way in ["--password-fd", "--password-file", "FSTORE_PASSWORD_FILE", "FSTORE_PASSWORD"]:
            self.assertIn(way, message)

    def test_missing_file(self):
        self.assertIn("nowhere", self.fails(50, "missing", "get", "a", "--password-file",
                                            "nowhere"))

    def test_standard_input_has_one_use(self):
        self.fails(2, "usage", "put", "settings/b", "-", "--password-file", "-",
                   stdin=PASSWORD.encode())
        self.fails(2, "usage", "passwd", "--new-password-file", "-", "--password-file", "-")
        self.assertIn("cannot be both the password and a value",
                      self.fails(2, "usage", "set", "a", "label=@-", "--password-file", "-"))
        self.assertIn("cannot be a value twice",
                      self.fails(2, "usage", "set", "a", "label=@-", "0x8001=@-"))

    def test_no_password_is_asked_for_what_is_plain(self):
        for args in [("ls",), ("info",), ("show", "a"), ("dump", "a"), ("check",),
                     ("rm", "a")]:
            self.run_tool(*args, password=None)


class TerminalTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"body")
        assert run.code == 0, run.message

    def terminal(self, *args, **more):
        terminal = Terminal(args, cwd=self.folder, **more)
        self.addCleanup(terminal.close)
        return terminal

    def test_asks_without_showing(self):
        terminal = self.terminal("get", "a")
        terminal.expect("Password: ")
        self.assertFalse(terminal.shows())
        terminal.type(PASSWORD + "\n")
        self.assertEqual(0, terminal.wait())
        self.assertNotIn(PASSWORD, terminal.seen)
        self.assertIn("body", terminal.seen)
        self.assertTrue(terminal.shows())

    def test_no_input_never_asks(self):
        terminal = self.terminal("get", "a", "--no-input")
        self.assertEqual(2, terminal.wait())
        self.assertNotIn("Password:", terminal.seen)

    def test_nothing_typed(self):
        terminal = self.terminal("get", "a")
        terminal.expect("Password: ")
        terminal.type("\x04")
        self.assertEqual(2, terminal.wait())
        terminal = self.terminal("get", "a")
        terminal.expect("Password: ")
        terminal.type("\n")
        self.assertEqual(4, terminal.wait())

    def test_interrupt_gives_the_terminal_back(self):
        terminal = self.terminal("get", "a")
        terminal.expect("Password: ")
        terminal.type("\x03")
        self.assertEqual(130, terminal.wait())
        self.assertTrue(terminal.shows())

    def test_quit_gives_the_terminal_back(self):
        terminal = self.terminal("get", "a")
        terminal.expect("Password: ")
        terminal.type("\x1c")
        self.assertEqual(-signal.SIGQUIT, terminal.wait())
        self.assertTrue(terminal.shows())

    def test_a_stop_gives_the_terminal_back_and_the_prompt_comes_again(self):
        terminal = self.terminal("get", "a")
        terminal.expect("Password: ")
        terminal.type("\x1a")
        terminal.await_stop()
        self.assertTrue(terminal.shows())
        terminal.resume()
        terminal.expect("Password: ")
        self.assertFalse(terminal.shows())
        terminal.type(PASSWORD + "\n")
        self.assertEqual(0, terminal.wait())
        self.assertIn("body", terminal.seen)

    def test_interrupt_leaves_no_file(self):
        named = {"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_NO_UNNAMED": "1"}
        for env, drafts in ({}, []), (named, [".out.new-5d0c9e7b-0"]):
            terminal = self.terminal("get", "a", "-o", "out", env=env)
            terminal.expect("Password: ")
            self.assertEqual([*drafts, "db", "db.lock"], self.entries())
            terminal.type("\x03")
            self.assertEqual(130, terminal.wait())
            self.assertEqual(["db", "db.lock"], self.entries())

    def test_hangup_ends_it(self):
        terminal = self.terminal("get", "a")
        terminal.expect("Password: ")
        terminal.hang_up()
        self.assertNotEqual(0, terminal.wait())

    def test_hangup_at_the_new_password_changes_nothing(self):
        before = {path: path.read_bytes() for path in self.folder.rglob("*.dsc")}
        terminal = self.terminal("passwd", *CHEAP)
        terminal.expect("Password: ")
        terminal.type(PASSWORD + "\n")
        terminal.expect("New password: ")
        terminal.hang_up()
        self.assertNotEqual(0, terminal.wait())
        self.assertEqual(before, {path: path.read_bytes() for path in self.folder.rglob("*.dsc")})
        self.assert_sound()

    def test_hangup_in_the_midst_of_a_change_leaves_one_password(self):
        terminal = self.terminal("passwd", *CHEAP, password=PASSWORD,
                                 env={"LD_PRELOAD": support.CALL_TRAP, "CALL_TRAP_PAUSE": "50",
                                      "FSTORE_NEW_PASSWORD": "new"})
        support.wait_until(lambda: (self.folder / "new_db").exists())
        terminal.hang_up()
        self.assertNotEqual(0, terminal.wait())
        codes = [self.run_any("get", "a", password=password) for password in (PASSWORD, "new")]
        self.assertEqual([0, 6], sorted(codes))
        self.run_tool("check", "--repair")
        self.assertEqual(["db", "db.lock"], self.entries())

    def run_any(self, *args, **more):
        return support.fstore(*args, cwd=self.folder, **more).code

    def test_new_password_is_typed_twice(self):
        terminal = self.terminal("passwd", *CHEAP)
        for prompt, answer in [("Password: ", PASSWORD), ("New password: ", "new one"),
                               ("New password again: ", "new one")]:
            terminal.expect(prompt)
            terminal.type(answer + "\n")
        self.assertEqual(0, terminal.wait(), terminal.seen)
        self.assertEqual(b"body", self.body("a", password="new one"))

    def test_new_passwords_that_differ_change_nothing(self):
        terminal = self.terminal("passwd", *CHEAP)
        for prompt, answer in [("Password: ", PASSWORD), ("New password: ", "new one"),
                               ("New password again: ", "new two")]:
            terminal.expect(prompt)
            terminal.type(answer + "\n")
        self.assertEqual(4, terminal.wait())
        self.assertEqual(b"body", self.body("a"))

    def test_prompts_go_to_the_terminal_and_not_to_the_streams(self):
        terminal = self.terminal("get", "a", stdout=self.folder / "out")
        terminal.expect("Password: ")
        terminal.type(PASSWORD + "\n")
        self.assertEqual(0, terminal.wait())
        self.assertEqual(b"body", (self.folder / "out").read_bytes())

    def test_removing_a_key_is_confirmed(self):
        self.put("keys/k", b"x")
        for answer, code in [("n", 4), ("", 4), ("y", 0)]:
            terminal = self.terminal("rm", "keys/k")
            terminal.expect("Remove the key keys/k?")
            terminal.type(answer + "\n")
            self.assertEqual(code, terminal.wait())
        self.assertEqual(["settings/a"], self.records())

    def test_nobody_holds_the_lock_while_a_password_is_typed(self):
        terminal = self.terminal("get", "a")
        terminal.expect("Password: ")
        self.run_tool("set", "a", "label=free", "--lock-timeout", "0")
        terminal.type(PASSWORD + "\n")
        self.assertEqual(0, terminal.wait())


class InitTest(FstoreTest):
    def test_makes_an_empty_database(self):
        document = self.run_tool("init", "--json", *CHEAP).document
        self.assertEqual({"schema": "fstore/1", "folder": ".", "created": True}, document)
        self.assertEqual([], self.records())
        self.assert_sound()
        self.assertEqual(["db", "db.lock"], self.entries())
        for path in self.folder.rglob("db/**/*"):
            self.assertEqual(0, path.stat().st_mode & 0o077, path)

    def test_makes_the_folder(self):
        self.run_tool("-D", "new", "init", *CHEAP)
        self.assertTrue((self.folder / "new/db/key.dsc").exists())
        self.fails(50, "missing", "-D", "no/where", "init")

    def test_again_needs_the_password(self):
        self.init()
        before = self.files()
        self.assertFalse(self.run_tool("init", "--json").document["created"])
        self.fails(6, "wrong-password", "init", password="wrong")
        self.assertEqual(before, self.files())

    def test_refuses_a_database_with_records(self):
        self.init()
        self.put("settings/a", b"x", "--plain-body")
        for name in ["key.dsc", "kdf.dsc", "kdf-copy.dsc"]:
            (self.folder / "db" / name).unlink()
        self.assertIn("passwd", self.fails(4, "invalid", "init"))

    def test_the_store_gets_a_random_key_that_a_slot_wraps(self):
        self.run_tool("init", "--cost", "15")
        kdf = (self.folder / "db/kdf.dsc").read_text()
        ln, r, p, _, digest = SLOT.search(kdf).groups()
        self.assertEqual(("15", "8", "1"), (ln, r, p))
        self.assertIn(digest, (self.folder / "db/key.dsc").read_text())
        self.assertEqual(kdf, (self.folder / "db/kdf-copy.dsc").read_text())

    def test_default_cost(self):
        self.run_tool("init")
        self.assertIn("ln=17 r=8 p=1", (self.folder / "db/kdf.dsc").read_text())


class OldLineTest(InitialisedTest):
    """A database from before there were slots: one line, whose cost nothing else limits."""

    def setUp(self):
        super().setUp()
        kept_database.copy_to(self.folder)

    def kdf(self):
        return self.folder / "db/kdf.dsc"

    def test_costs_out_of_bounds_are_refused(self):
        text = self.kdf().read_text()
        for bad in ["ln=13", "ln=23", "ln=40"]:
            self.kdf().write_text(text.replace("ln=14", bad))
            self.fails(59, "malformed", "put", "-f", "settings/a", "-")
        self.kdf().write_text(text.replace("r=8", "r=33"))
        self.fails(59, "malformed", "ls")
        self.kdf().write_text(text * 3)
        self.fails(59, "malformed", "ls")

    def test_a_cost_beyond_the_limits_is_refused_before_it_is_paid(self):
        text = self.kdf().read_text()
        for cost, reason in [("ln=22 r=32 p=1", "16384 MiB"), ("ln=22 r=9 p=1", "4608 MiB"),
                             ("ln=22 r=8 p=2", "work"), ("ln=20 r=32 p=2", "work")]:
            self.kdf().write_text(text.replace("ln=14 r=8 p=1", cost))
            for args in [("put", "-f", "settings/a", "-"), ("passwd",), ("ls",)]:
                message = self.fails(59, "malformed", *args, memory=1 << 30,
                                     env={"FSTORE_NEW_PASSWORD": "new"})
                self.assertIn(reason, message)
                self.assertIn("./kdf", message)
        for cost in ["ln=22 r=8 p=1", "ln=20 r=32 p=1", "ln=20 r=8 p=4"]:
            self.kdf().write_text(text.replace("ln=14 r=8 p=1", cost))
            self.run_tool("ls")  # which reads it, and pays nothing

    def test_memory_that_cannot_be_had(self):
        text = self.kdf().read_text().replace("ln=14", "ln=22")  # 4 GiB
        self.kdf().write_text(text)
        self.assertIn("MiB", self.fails(1, "no-memory", "put", "-f", "settings/a", "-",
                                        memory=2 << 30))

    def test_opens_and_gets_a_copy_of_its_line(self):
        line = self.kdf().read_text()
        copy = self.folder / "db/kdf-copy.dsc"
        self.assertEqual(b"a secret value", self.body("secret", password=kept_database.PASSWORD))
        self.run_tool("set", "settings/plain", "label=x")  # which proves nothing
        self.assertFalse(copy.exists())
        self.put("settings/new", b"new", password=kept_database.PASSWORD)
        self.assertIn(line.split(" ", 2)[2], copy.read_text())
        self.assertEqual(line, self.kdf().read_text())
        self.kdf().unlink()
        self.assertEqual(b"new", self.body("new", password=kept_database.PASSWORD))
        self.run_tool("set", "settings/plain", "label=y")
        self.assertEqual(line, self.kdf().read_text())

    def test_moves_to_slots_with_its_next_password(self):
        records = self.run_tool("ls").text
        self.run_tool("passwd", *CHEAP, password=kept_database.PASSWORD,
                      env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertRegex(self.kdf().read_text(), SLOT)
        self.assertEqual(self.kdf().read_text(), (self.folder / "db/kdf-copy.dsc").read_text())
        self.assertEqual(records, self.run_tool("ls").text)
        self.assertEqual(b"a secret value", self.body("secret", password="new"))
        self.fails(6, "wrong-password", "get", "secret", password=kept_database.PASSWORD)
        self.assert_sound(password="new")

    def test_a_record_of_the_users_is_never_overwritten(self):
        copy = self.folder / "db/kdf-copy.dsc"
        descriptor = self.folder / "db/settings/plain.dsc"
        before = descriptor.read_bytes()
        copy.write_bytes(before)
        (body,) = re.findall(rb"^1\S+ 00000000 (\S+)$", before, re.MULTILINE)
        shutil.copy(descriptor.parent / body.decode(), self.folder / "db" / body.decode())
        self.put("settings/new", b"new", password=kept_database.PASSWORD)
        message = self.fails(4, "invalid", "passwd", *CHEAP, password=kept_database.PASSWORD,
                             env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertIn("fstore mv", message)
        self.assertEqual(before, copy.read_bytes())
        self.run_tool("mv", "./kdf-copy", "settings/moved")
        self.run_tool("passwd", *CHEAP, password=kept_database.PASSWORD,
                      env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertEqual(b"new", self.body("new", password="new"))
        self.assertEqual(self.body("plain", password="new"), self.body("moved", password="new"))


class ProtectionTest(InitialisedTest):
    def kdf(self):
        return self.folder / "db/kdf.dsc"

    def forget_slots(self):
        for name in ["kdf.dsc", "kdf-copy.dsc"]:
            (self.folder / "db" / name).unlink()

    def test_a_lost_key_is_written_again_by_whoever_has_the_password(self):
        self.put("settings/secret", b"a secret value")
        key = self.folder / "db/key.dsc"
        before = key.read_bytes()
        damages = [None, b"", b"00000002 00000001 00\n", b"\0" * len(before),
                   re.sub(rb"[0-9a-f]{32}", b"0" * 32, before)]
        commands = [("put", "-f", "settings/a", "-"), ("init",), ("get", "secret"),
                    ("check", "--repair"), ("set", "secret", "label=x"),
                    ("passwd", *CHEAP)]
        for damage in damages:
            for args in commands:
                with self.subTest(damage=damage, args=args):
                    if damage is None:
                        key.unlink()
                    else:
                        key.write_bytes(damage)
                    self.assertIn("./key", self.run_tool("ls", password=None).message)
                    self.assertIn("key-record", self.run_tool("check", "--json", code=3).text)
                    self.fails(6, "wrong-password", *args, password="another",
                               env={"FSTORE_NEW_PASSWORD": "new"})
                    self.run_tool(*args, env={"FSTORE_NEW_PASSWORD": PASSWORD})
                    if args[0] != "passwd":
                        self.assertEqual(before, key.read_bytes())
                    before = key.read_bytes()
                    # What was damaged is not thrown away.
                    (self.folder / "db/key.dsc.$o$").unlink(missing_ok=True)
                    self.assert_sound()

    def test_a_key_that_another_program_changed_stays(self):
        self.put("settings/secret", b"a secret value")
        slots = [(path, path.read_bytes()) for path in (self.folder / "db").glob("kdf*.dsc")]
        self.run_tool("passwd", *CHEAP, env={"FSTORE_NEW_PASSWORD": "new"})
        for path, contents in slots:
            path.write_bytes(contents)
        key = self.folder / "db/key.dsc"
        before = key.read_bytes()
        message = self.fails(74, "no-digest", "get", "secret")
        self.assertIn("another program changed the password", message)
        self.assertEqual(before, key.read_bytes())

    def test_a_database_without_kdf_takes_the_password_as_it_is(self):
        self.forget_slots()
        key = self.folder / "db/key.dsc"
        key.write_text(f"00000002 00000001 {hashlib.md5(b'plain').hexdigest()}\n")
        run = self.run_tool("put", "-f", "settings/a", "-", stdin=b"x", password="plain")
        self.assertIn("fstore passwd", run.message)
        self.assertIn("passwd", self.fails(4, "invalid", "init", password="plain"))
        self.run_tool("passwd", *CHEAP, password="plain", env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertEqual(b"x", self.body("a", password="new"))
        self.assertRegex(self.kdf().read_text(), SLOT)
        self.assert_sound(password="new")

    def test_a_database_without_password_keeps_no_secrets(self):
        self.forget_slots()
        (self.folder / "db/key.dsc").unlink()
        self.assertIn("init", self.fails(14, "not-open", "put", "-f", "settings/a", "-", password=None))
        self.put("settings/a", b"plain", "--plain-body", password=None)
        self.fails(14, "not-open", "set", "a", "--encrypt", "0x8001=x", password=None)
        run = self.run_tool("passwd", *CHEAP, password=None, env={"FSTORE_NEW_PASSWORD": "new"})
        self.assertIn("no password", run.message)
        self.put("settings/b", b"secret", password="new")
        self.assert_sound(password="new")

    def test_both_copies_lost_are_damage(self):
        for name in ["kdf.dsc", "kdf-copy.dsc"]:
            (self.folder / "db" / name).write_text("garbage\n")
        message = self.fails(59, "malformed", "ls")
        self.assertIn("./kdf-copy", message)


class ChangeTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for name in ["a", "b"]:
            run = support.fstore("-D", folder, "put", f"settings/{name}", "-", stdin=name.encode())
            assert run.code == 0, run.message
        run = support.fstore("-D", folder, "put", "lsps/plain", "-", "--plain-body", stdin=b"p")
        assert run.code == 0, run.message

    def change(self, *args, code=0, new="new", **more):
        return self.run_tool("passwd", *CHEAP, *args, code=code,
                             env={"FSTORE_NEW_PASSWORD": new}, **more)

    def test_all_of_it_opens_with_the_new_password_alone(self):
        self.change()
        self.assertEqual(b"a", self.body("a", password="new"))
        self.fails(6, "wrong-password", "get", "a")
        self.assert_sound(password="new")
        self.assertEqual(["db", "db.lock"], self.entries())
        self.assertEqual(1, (self.folder / "db/kdf.dsc").read_text().count("kind=password"))

    def test_keep_old_keeps_the_database_as_it_was(self):
        self.change("--keep-old")
        self.assertEqual(b"a", self.body("a", password="new"))
        self.assertEqual([], self.run_tool("check", "--json",
                                           password=None).document["findings"])
        kept, = self.run_tool("info", "--json", password=None).document["kept"]
        (self.folder / "other").mkdir()
        shutil.move(self.folder / kept, self.folder / "other/db")
        # It was copied before the change was finished, and nothing of that is left in it.
        self.assertEqual([], self.run_tool("-D", "other", "check", "--json",
                                           password=None).document["findings"])
        info = self.run_tool("-D", "other", "info", password=None).text
        self.assertNotIn("interrupted", info)
        self.assertEqual(1, info.count("password, scrypt"))
        self.fails(6, "wrong-password", "-D", "other", "get", "a", password="new")
        run = self.run_tool("-D", "other", "get", "a")
        self.assertEqual(b"a", run.out)
        self.run_tool("-D", "other", "check", "--deep")

    def test_what_is_kept_stays_until_the_user_removes_it(self):
        self.change("--keep-old")
        kept, = self.run_tool("info", "--json", password=None).document["kept"]
        before = support.FstoreTest.files(self)
        self.change(new="third", password="new")
        after = support.FstoreTest.files(self)
        kept = kept.removeprefix("./")
        self.assertEqual({name: data for name, data in before.items() if name.startswith(kept)},
                         {name: data for name, data in after.items() if name.startswith(kept)})

    def test_a_database_that_stands_aside_is_kept_and_not_deleted(self):
        # As an older tool's --keep-old left it, or a restore that was broken off.
        shutil.copytree(self.folder / "db", self.folder / "old_db")
        run = self.change()
        self.assertIn("kept the previous database as ./db-", run.message)
        kept, = self.run_tool("info", "--json", password=None).document["kept"]
        (self.folder / "other").mkdir()
        shutil.move(self.folder / kept, self.folder / "other/db")
        self.assertEqual(b"a", self.run_tool("-D", "other", "get", "a").out)

    def test_sources_of_the_new_password(self):
        path = self.write("new", "second\n")
        path.chmod(0o600)
        self.run_tool("passwd", *CHEAP, "--new-password-file", path)
        self.run_tool("passwd", *CHEAP, "--new-password-file", "-", stdin=b"third",
                      password="second")
        self.run_tool("passwd", *CHEAP, env={"FSTORE_NEW_PASSWORD_FILE": path}, password="third")
        read, write = os.pipe()
        os.write(write, b"fourth")
        os.close(write)
        self.run_tool("passwd", *CHEAP, "--new-password-fd", read, password="second",
                      pass_fds=(read,))
        os.close(read)
        self.assertEqual(b"a", self.body("a", password="fourth"))
        message = self.fails(2, "usage", "passwd", password="fourth")
        self.assertIn("--new-password-file", message)

    def test_wrong_old_password_changes_nothing(self):
        before = self.files()
        self.change(code=6, password="wrong")
        self.assertEqual(before, self.files())

    def test_refused_while_something_does_not_decrypt(self):
        body = next(path for path in (self.folder / "db/settings").iterdir()
                    if path.suffix == "")
        body.write_bytes(body.read_bytes()[:-1])
        before = self.files()
        run = self.change(code=3)
        self.assertIn("fstore rm", run.message)
        self.assertEqual(before, self.files())

    def test_same_password_again_is_a_change_too(self):
        slot = (self.folder / "db/kdf.dsc").read_text()
        self.change(new=PASSWORD)
        self.assertNotEqual(slot, (self.folder / "db/kdf.dsc").read_text())
        self.assert_sound()

    def test_an_interrupted_change_leaves_one_password(self):
        process = support.start("passwd", *CHEAP, cwd=self.folder,
                                env={"FSTORE_NEW_PASSWORD": "new", "CALL_TRAP_PAUSE": "50",
                                     "LD_PRELOAD": support.CALL_TRAP})
        support.wait_until(lambda: (self.folder / "new_db").exists())
        process.send_signal(signal.SIGINT)
        run = support.finish(process)
        self.assertEqual(130, run.code)
        self.assertIn("the password was not changed, and the old one holds", run.message)
        self.assertEqual(b"a", self.body("a"))
        self.fails(6, "wrong-password", "get", "a", password="new")
        self.run_tool("check", "--repair")
        self.assert_sound()

    def test_an_interrupted_change_that_is_made_says_that_the_new_password_holds(self):
        process = support.start("passwd", *CHEAP, cwd=self.folder,
                                env={"FSTORE_NEW_PASSWORD": "new", "CALL_TRAP_PAUSE": "200",
                                     "LD_PRELOAD": support.CALL_TRAP})
        support.wait_until(lambda: (self.folder / "old_db").exists())
        process.send_signal(signal.SIGINT)
        run = support.finish(process)
        self.assertEqual(130, run.code, run.message)
        self.assertIn("the new password holds, and the next command finishes", run.message)
        self.assertEqual(b"a", self.body("a", password="new"))
        self.assertFalse((self.folder / "old_db").exists())

    def test_progress_is_drawn_on_a_terminal_only(self):
        self.assertNotIn("\r", self.change().message)


class SecrecyTest(InitialisedTest):
    """Looks at a process from outside while it waits for its input."""

    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"body")
        assert run.code == 0, run.message

    def waiting(self, *args, **more):
        process = support.start(*args, cwd=self.folder, **more)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process, pathlib.Path("/proc") / str(process.pid)

    def test_no_core_dump_no_debugger_no_access_for_others(self):
        process, proc = self.waiting("get", "a", "--password-file", "-", password=None)
        # Where a process that may be dumped has files of its user, this one has root's;
        # its own limits and umask are set together with that.
        support.wait_until(lambda: re.search(r"Umask:\s+0077", (proc / "status").read_text()))
        support.wait_until(lambda: re.search(r"core file size\s+0\s+0 ",
                                             (proc / "limits").read_text()))
        if os.geteuid() != 0:
            support.wait_until(lambda: (proc / "environ").stat().st_uid == 0)
        self.assertEqual(0, support.finish(process, PASSWORD.encode()).code)

    def test_no_output_and_no_file_tells_a_secret(self):
        text = "hunter2 of the body"
        slot = SLOT.search((self.folder / "db/kdf.dsc").read_text())
        raw = hashlib.scrypt(PASSWORD.encode(), salt=bytes.fromhex(slot[4]), n=1 << int(slot[1]),
                             r=8, p=1, dklen=32, maxmem=1 << 27).hex()
        digest = hashlib.sha256(text.encode()).hexdigest()  # tells whether a guess is right
        forms = [form for secret in (PASSWORD, raw, text, digest)
                 for form in (secret.encode(), secret.encode().hex().encode())]
        value = self.write("value", text)
        trace = self.folder / "trace"
        commands = [("put", "settings/s", "value"), ("set", "s", "--encrypt", "0x8001=@value"),
                    ("ls",), ("show", "s"), ("dump", "s"), ("dump", "--raw", "s"),
                    ("info",), ("check", "--deep", "--repair"), ("get", "s", "-o", "out", "-f", "-q"),
                    ("set", "s", "0x8001:number=@value"), ("get", "missing"), ("init",),
                    ("passwd", *CHEAP, "--new-password-file", "-")]
        for args in commands:
            for option in ("-v", "--json"):
                run = support.fstore(*args, option, cwd=self.folder, stdin=PASSWORD.encode(),
                                     prefix=["strace", "-f", "-s", "200", "-e",
                                             "trace=write,execve", "-o", trace])
                shown = run.out + run.err
                if args[0] == "get":  # asks for the body, so may tell about it
                    shown = shown.replace(digest.encode(), b"")
                for form in forms:
                    self.assertNotIn(form, shown, args)
                # Of what is written to streams and files, only the file that was asked for.
                written = [line.replace(digest.encode(), b"") if args[0] == "get" else line
                           for line in trace.read_bytes().splitlines()
                           if b'"' + text.encode() not in line]
                for form in forms:
                    self.assertFalse(any(form in line for line in written), (args, form))
        value.unlink()
        trace.unlink()
        (self.folder / "out").unlink()
        for name, contents in self.files().items():
            for form in forms:
                self.assertNotIn(form, contents, name)

    def test_password_leaves_the_environment(self):
        process, proc = self.waiting("passwd", *CHEAP, "--new-password-file", "-",
                                     password="visible-secret-1")

        def has_left():
            try:
                return b"visible-secret-1" not in (proc / "environ").read_bytes()
            except ProcessLookupError:  # it is just beginning, and has no memory yet
                return False

        try:
            support.wait_until(has_left)
        except PermissionError:  # nobody but root may look any more
            pass
        self.assertEqual(6, support.finish(process, b"new").code)


if __name__ == "__main__":
    support.main()
