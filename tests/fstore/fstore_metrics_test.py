#!/usr/bin/env python3
"""metrics, and what is known of the last backup and check; what check warns of."""

import os
import re
import shutil
import stat
import time

import support
from authority import Authority, request_of_key
from pki import openssl
from support import InitialisedTest

LINE = re.compile(r'(fstore_[a-z_]+)(?:\{((?:[a-z]+="(?:[^"\\\n]|\\[\\"n])*",?)+)\})? (-?\d+)')


class MetricsCase(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for name, subject in ("www", "CN=www.example.com"), ("odd", 'CN=a "quoted"\\\\ name'):
            run = support.fstore("-D", folder, "generate", name, "--type", "ed25519",
                                 "--self-signed", "40", "--subject", subject)
            assert run.code == 0, run.message

    def metrics(self, *options, **more):
        """By name and labels. Each metric is told of once, before its values."""
        run = self.run_tool("metrics", *options, password=None, **more)
        values, told = {}, []
        for line in run.text.splitlines():
            if line.startswith("# HELP "):
                told.append(line.split()[2])
            elif line.startswith("# TYPE "):
                self.assertEqual(["#", "TYPE", told[-1], "gauge"], line.split())
            else:
                match = LINE.fullmatch(line)
                self.assertIsNotNone(match, line)
                self.assertEqual(told[-1], match[1])
                labels = {name: re.sub(r"\\(.)", r"\1", value) for name, value in
                          re.findall(r'([a-z]+)="((?:[^"\\]|\\.)*)"', match[2] or "")}
                values[match[1], tuple(sorted(labels.items()))] = int(match[3])
        self.assertEqual(len(told), len(set(told)))
        return values

    def value(self, name, **labels):
        return self.metrics().get((f"fstore_{name}", tuple(sorted(labels.items()))))


class MetricsTest(MetricsCase):
    def test_expiry_and_counts(self):
        listed = {record["address"]: record for record in
                  self.run_tool("ls", "--json").document["records"]}
        for address in "certificates/local/www", "certificates/local/odd":
            record = listed[address]
            told = self.value("not_after_timestamp_seconds", address=address, kind="certificate",
                              subject=record["subject"])
            self.assertEqual(record["notAfter"],
                             time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(told)))
        self.assertEqual(2, self.value("records", kind="key"))
        self.assertEqual(2, self.value("records", kind="certificate"))
        self.assertEqual(0, self.value("unread_records"))

    def test_certificates_of_others_only_when_asked(self):
        pem = openssl("req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", "/CN=other",
                      "-addext", "basicConstraints=CA:FALSE", "-keyout", "/dev/null")
        self.run_tool("import", "-", "--name", "other", stdin=pem)
        labels = (("address", "certificates/remote/other"), ("kind", "certificate"),
                  ("subject", "CN=other"))
        self.assertNotIn(("fstore_not_after_timestamp_seconds", labels), self.metrics())
        self.assertIn(("fstore_not_after_timestamp_seconds", labels), self.metrics("--all"))

    def test_superseded_ones_are_counted(self):
        authority = Authority(self.folder, "Root")
        request = request_of_key(self.folder, "host", "--san", "host.example.com")
        for name, begin in ("old", -9), ("new", -1):
            self.run_tool("import", "-", "--name", name, stdin=authority.sign(request, begin, 90))
        values = self.metrics()
        self.assertEqual(1, values["fstore_superseded_records", ()])
        told = {dict(labels).get("address") for _, labels in values}
        self.assertIn("certificates/local/new", told)
        self.assertNotIn("certificates/local/old", told)

    def test_a_file_for_other_users_is_replaced_at_once(self):
        self.run_tool("metrics", "-o", "fstore.prom")
        first = (self.folder / "fstore.prom").read_bytes()
        inode = (self.folder / "fstore.prom").stat().st_ino
        self.assertEqual(0o644, stat.S_IMODE((self.folder / "fstore.prom").stat().st_mode))
        self.run_tool("metrics", "-o", "fstore.prom")
        self.assertEqual(first, (self.folder / "fstore.prom").read_bytes())
        self.assertNotEqual(inode, (self.folder / "fstore.prom").stat().st_ino)
        self.assertEqual(["db", "db.lock", "fstore.prom"], sorted(os.listdir(self.folder)))

    def test_a_file_of_others_is_replaced_with_force_only(self):
        ours = self.run_tool("metrics").out.decode()
        for contents in ("precious\n", "# HELP other_metric Of another program.\n", "# HELP fsto",
                         ours + 'node_other{x="y"} 1\n', "\n" + ours):
            path = self.write("fstore.prom", contents)
            self.assertIn("--force", self.run_tool("metrics", "-o", path, code=4).message)
            self.assertEqual(contents, path.read_text())
        self.run_tool("metrics", "-f", "-o", path)
        self.run_tool("metrics", "-o", path)
        self.assertIn("fstore_records{", path.read_text())
        path.write_text("")
        self.run_tool("metrics", "-o", path)
        self.assertIn("fstore_records{", path.read_text())

    def test_a_file_without_a_name_is_refused(self):
        for command in (["metrics", "-o"], ["report", "-o"], ["backup"]):
            message = self.run_tool(*command, "", code=4).message
            self.assertIn("the name of the file to write is empty", message)

    def test_damage_is_counted_and_told(self):
        (self.folder / "db/keys/www.dsc").write_text("nothing\n")
        values = self.metrics(code=3)
        self.assertEqual(1, values["fstore_unread_records", ()])


class StateTest(MetricsCase):
    def test_backup_and_check_are_noted(self):
        self.assertIsNone(self.value("last_backup_timestamp_seconds"))
        self.assertIsNone(self.value("last_check_timestamp_seconds"))
        begin = int(time.time())
        self.run_tool("backup", "backup.tar", password=None)
        self.assertLessEqual(begin, self.value("last_backup_timestamp_seconds"))
        self.assertIsNone(self.value("last_check_timestamp_seconds"))
        self.run_tool("check", password=None)
        self.assertLessEqual(begin, self.value("last_check_timestamp_seconds"))
        self.assertEqual(1, self.value("last_check_sound"))
        self.assertLessEqual(begin, self.value("last_backup_timestamp_seconds"))
        (self.folder / "db/keys/www.dsc").write_text("nothing\n")
        self.run_tool("check", code=3, password=None)
        self.assertEqual(0, self.metrics(code=3)["fstore_last_check_sound", ()])

    def test_an_end_that_is_not_known_is_told(self):
        path = self.folder / "db/certificates/local/www.dsc"
        path.write_text("".join(line for line in path.read_text().splitlines(True)
                                if " 00000107 " not in line))
        self.assertEqual(1, self.metrics(code=5)["fstore_unread_records", ()])
        run = self.run_tool("metrics", code=5)
        self.assertIn("the end of certificates/local/www is not known", run.message)
        self.assertIn("its end is not known", self.run_tool("report").text)

    def test_what_failed_is_not_noted(self):
        (self.folder / "backup.tar").write_bytes(b"")
        self.run_tool("backup", "backup.tar", code=4, password=None)
        self.run_tool("backup", "--verify", "backup.tar", code=59, password=None)
        self.assertFalse((self.folder / "db.state").exists())

    def test_what_is_no_backup_is_not_noted(self):
        self.run_tool("backup", "/dev/null", password=None)
        self.assertFalse((self.folder / "db.state").exists())
        (self.folder / "db/keys/www.dsc").write_text("nothing\n")
        self.assertIn("damaged", self.run_tool("backup", "damaged.tar", password=None).message)
        self.assertFalse((self.folder / "db.state").exists())

    def test_a_backup_that_cannot_be_noted_is_told(self):
        (self.folder / "db.state").mkdir()
        run = self.run_tool("backup", "a.tar", password=None)
        self.assertIn("warning: the time of the backup could not be noted", run.message)

    def test_another_database_is_not_that_which_was_checked(self):
        self.run_tool("backup", "a.tar", password=None)
        self.run_tool("check", password=None)
        self.run_tool("restore", "a.tar", "--replace", password=None)
        self.assertIsNone(self.value("last_check_sound"))
        self.run_tool("check", password=None)
        shutil.rmtree(self.folder / "db")
        self.run_tool("init", *support.CHEAP)
        self.assertIsNone(self.value("last_check_sound"))
        self.assertIsNone(self.value("last_backup_timestamp_seconds"))

    def test_nothing_depends_on_it(self):
        for contents in b"", b"filestore-state-2 x", b"\xff" * 256, b"filestore-state-" + b"a" * 10000:
            (self.folder / "db.state").write_bytes(contents)
            self.assertIsNone(self.value("last_backup_timestamp_seconds"))
            self.assert_sound()
            self.assertIsNotNone(self.value("last_check_timestamp_seconds"))

    def test_nothing_is_followed_or_waited_for(self):
        (self.folder / "precious").write_bytes(b"a" * 300)
        state = self.folder / "db.state"
        for make in (lambda: state.symlink_to("precious"), lambda: os.mkfifo(state), state.mkdir,
                     lambda: os.link(self.folder / "precious", state),
                     lambda: shutil.copy(self.folder / "precious", state)):
            make()
            self.assertIn("could not be noted", self.run_tool("-v", "check", password=None).message)
            self.assertIsNone(self.value("last_check_timestamp_seconds"))
            self.assertEqual([("unknown-file", "./db.state")], [
                (each["kind"], each["path"]) for each in
                self.run_tool("check", "--json", password=None).document["findings"]])
            self.assertIn("could not be noted", self.run_tool("backup", "-f", "a.tar", password=None).message)
            if state.is_file():
                self.assertEqual(b"a" * 300, state.read_bytes())
            if state.is_dir():
                state.rmdir()
            else:
                state.unlink()
        self.assertEqual(b"a" * 300, (self.folder / "precious").read_bytes())

    def test_a_folder_that_cannot_be_written(self):
        self.run_tool("ls")
        self.folder.chmod(0o500)
        self.addCleanup(self.folder.chmod, 0o700)
        self.run_tool("check", password=None, prefix=support.BOUND)
        self.assertFalse((self.folder / "db.state").exists())

    def test_no_output_goes_there(self):
        self.assertIn("is the database's own", self.fails(4, "invalid", "export",
                                                          "certificates/local/www", "-o", "db.state"))


class WeaknessTest(InitialisedTest):
    def weaknesses(self, *options, **more):
        document = self.run_tool("check", "--json", *options, **more).document
        return [(weakness["kind"], weakness["path"]) for weakness in document["weaknesses"]]

    def test_cost(self):
        self.assertEqual([("weak-cost", "")], self.weaknesses())
        run = self.run_tool("check")
        self.assertIn("warning: the password of slot 1 costs less to guess than is usual; "
                      "`fstore passwd --slot 1 --rewrap --cost 17`", run.message)
        self.run_tool("passwd", "--slot", "1", "--rewrap", "--cost", "17",
                      env={"FSTORE_NEW_PASSWORD": "another"})
        self.assertEqual([], self.weaknesses())

    def test_folders_that_others_write(self):
        (self.folder / "db/keys").chmod(0o757)
        self.folder.chmod(0o1777)
        self.assertEqual([("writable-folder", "./db/keys"), ("weak-cost", "")], self.weaknesses())
        (self.folder / "db/keys").chmod(0o1777)
        self.assertIn(("writable-folder", "./db/keys"), self.weaknesses())
        self.folder.chmod(0o777)
        self.assertIn(("writable-folder", "."), self.weaknesses())
        self.folder.chmod(0o700)

    def test_password_files_that_others_read(self):
        (self.folder / "password").write_text(support.PASSWORD)
        (self.folder / "password").chmod(0o640)
        options = ("--password-file", "password")
        self.assertIn(("exposed-secret", "password"), self.weaknesses(*options, password=None))
        (self.folder / "password").chmod(0o600)
        self.assertNotIn(("exposed-secret", "password"), self.weaknesses(*options, password=None))

    def test_backup_within(self):
        self.assertIn(("old-backup", ""), self.weaknesses("--backup-within", "7d"))
        self.run_tool("backup", "backup.tar")
        self.assertNotIn(("old-backup", ""), self.weaknesses("--backup-within", "7d"))
        state = self.folder / "db.state"
        state.write_text(re.sub(r"20\d\d-", "2001-", state.read_text(), 1))
        self.assertIn(("old-backup", ""), self.weaknesses("--backup-within", "7d"))
        self.assertIn("2001-", self.run_tool("check", "--backup-within", "7d").message)
        state.write_text(re.sub(r"2001-", "2999-", state.read_text(), 1))
        self.assertIn("which is to come", self.run_tool("check", "--backup-within", "7d").message)
        self.fails(2, "usage", "check", "--backup-within", "soon")

    def test_exit_code_only_when_asked(self):
        self.weaknesses("--strict", code=3)
        self.weaknesses("--strict", "--deep", code=3)
        self.assertTrue(self.run_tool("check", "--json").document["sound"])


if __name__ == "__main__":
    support.main()
