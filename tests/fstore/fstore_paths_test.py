#!/usr/bin/env python3
"""Whatever name a folder or file is given by, it is that one, and nothing else is touched."""

import os
import shutil
import subprocess

import support
from support import CHEAP, FstoreTest, InitialisedTest


class FolderTest(FstoreTest):
    def assert_only(self, *databases):
        """There are these databases, complete, and not one more."""
        found = sorted(str(path.parent.relative_to(self.folder))
                       for path in self.folder.rglob("db") if not path.is_symlink())
        self.assertEqual(sorted(databases), found)

    def test_init_by_any_name(self):
        for name, real in [("one", "one"), ("./one", "one"), ("one/", "one"), ("one//", "one"),
                           ("sub/one", "sub/one"), ("sub/../one", "one"), (".", "."),
                           ("sub/.", "sub"), ("link", "sub"), ("link/", "sub"),
                           ("link/one", "sub/one")]:
            for base in ["", f"{self.folder}/"]:
                with self.subTest(base + name):
                    (self.folder / "sub").mkdir()
                    (self.folder / "link").symlink_to("sub")
                    run = self.run_tool("-D", base + name, "init", *CHEAP)
                    self.assertEqual(f"fstore: created a database in {(base + name).rstrip('/')}/db",
                                     run.message.split("\n")[0])
                    self.assert_only(real)
                    self.run_tool("-D", base + name, "init")  # again, with the password
                    self.run_tool("-D", base + name, "check", "--deep")
                    self.assert_only(real)
                    for path in self.folder.iterdir():
                        if path.is_dir() and not path.is_symlink():
                            shutil.rmtree(path)
                        else:
                            path.unlink()

    def test_init_from_within(self):
        (self.folder / "one/two").mkdir(parents=True)
        for cwd, name in [("one", "."), ("one/two", ".."), ("one/two", "../../one")]:
            run = support.fstore("-D", name, "init", *CHEAP, cwd=self.folder / cwd)
            self.assertEqual(0, run.code, run.message)
            self.assert_only("one")

    def test_init_where_no_folder_can_be_leaves_nothing(self):
        self.write("file", "mine")
        (self.folder / "dangling").symlink_to("nowhere")
        for name in ["no/where", "dangling", "file", "file/sub"]:
            with self.subTest(name):
                self.fails(50, "missing", "-D", name, "init")
        self.fails(2, "usage", "-D", "", "init")
        self.assertEqual({"file": b"mine"}, self.files())
        self.assert_only()

    def test_init_without_password_leaves_nothing(self):
        self.fails(2, "usage", "-D", "new", "init", password=None)
        self.fails(4, "invalid", "-D", "new", "init", password="")
        self.fails(4, "invalid", "init", "--password-fd", "0", password=None)
        self.assertEqual([], os.listdir(self.folder))

    def test_restore_by_a_relative_name(self):
        self.run_tool("-D", "one", "init", *CHEAP)
        self.run_tool("-D", "one", "backup", "backup.tar")
        for name in ["two", "one/three", "./four/"]:
            self.run_tool("-D", name, "restore", "backup.tar")
            self.run_tool("-D", name, "check", "--deep")
        self.assert_only("one", "two", "one/three", "four")


class FileTest(InitialisedTest):
    """Names of files mean what they mean to the caller, not in the database's folder."""

    def setUp(self):
        super().setUp()
        self.elsewhere = self.folder / "elsewhere"
        self.elsewhere.mkdir()
        self.write("elsewhere/password", support.PASSWORD).chmod(0o600)
        self.write("elsewhere/in", "contents")
        # What would be taken if the names were looked up in the database's folder.
        for name in ["password", "in", "key.pem"]:
            self.write(name, "wrong")

    def from_elsewhere(self, *args, **more):
        run = support.fstore("-D", "..", *args, cwd=self.elsewhere, **more)
        self.assertEqual(0, run.code, (args, run.message))
        return run

    def test_of_every_command(self):
        before = set(os.listdir(self.folder)) | {"db.state"}  # which backup leaves
        word = ("--password-file", "password")
        subprocess.run(["openssl", "genpkey", "-algorithm", "ed25519", "-out",
                        self.elsewhere / "key.pem"], check=True, capture_output=True)
        self.from_elsewhere("put", "-f", "settings/a", "in", *word, password=None)
        self.from_elsewhere("set", "settings/a", "0x8001=@in")
        self.from_elsewhere("get", "settings/a", "-o", "got", *word, password=None)
        self.from_elsewhere("get", "settings/a", "-o", "got", "-f",
                            env={"FSTORE_PASSWORD_FILE": "password"}, password=None)
        self.from_elsewhere("import", "key.pem", "--name", "k", "--in-password-file", "password")
        self.from_elsewhere("export", "keys/k", "-o", "exported", "--out-password-file",
                            "password")
        self.from_elsewhere("backup", "saved")
        self.from_elsewhere("passwd", *CHEAP, *word, "--new-password-file", "password",
                            password=None)
        run = support.fstore("-D", "copy", "restore", "saved", cwd=self.elsewhere)
        self.assertEqual(0, run.code, run.message)
        self.assertEqual(b"contents", (self.elsewhere / "got").read_bytes())
        self.assertEqual({"password", "in", "key.pem", "got", "exported", "saved", "copy"},
                         set(os.listdir(self.elsewhere)))
        self.assertEqual(before, set(os.listdir(self.folder)))


class OutputTest(InitialisedTest):
    """What a file is decides how it is written, and no device or link becomes a file."""

    @classmethod
    def fill(cls, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"body")
        assert run.code == 0, run.message
        subprocess.run(["openssl", "genpkey", "-algorithm", "ed25519", "-out",
                        folder / "key.pem"], check=True, capture_output=True)
        run = support.fstore("-D", folder, "import", folder / "key.pem", "--name", "k")
        assert run.code == 0, run.message

    # Each command that writes a file, without its name.
    WRITERS = [("get", "settings/a", "-o"), ("export", "keys/k", "--plain", "-o"), ("backup",)]

    def kinds(self):
        return {path.name: path.lstat().st_mode for path in self.folder.iterdir()
                if path.name != "db.state"}

    def test_a_fifo_is_written_through(self):
        fifo = self.folder / "fifo"
        os.mkfifo(fifo)
        for writer in self.WRITERS:
            for force in [[], ["--force"]]:
                with self.subTest(writer=writer, force=force):
                    before = self.kinds()
                    reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
                    self.run_tool(*writer, fifo, *force)
                    with os.fdopen(reader, "rb") as file:
                        os.set_blocking(reader, True)
                        self.assertNotEqual(b"", file.read())
                    self.assertEqual(before, self.kinds())

    def test_a_device_is_written_through(self):
        before = os.stat("/dev/null").st_mode, os.stat("/dev/full").st_mode
        for writer in self.WRITERS:
            with self.subTest(writer=writer):
                self.run_tool(*writer, "/dev/null")
                self.run_tool(*writer, "/dev/null", "-f")
                self.assertIn("No space left", self.fails(9, "io", *writer, "/dev/full"))
        self.assertEqual(before, (os.stat("/dev/null").st_mode, os.stat("/dev/full").st_mode))

    def test_the_names_of_standard_output(self):
        for name in ["-", "/dev/stdout", "/dev/fd/1", "/proc/self/fd/1"]:
            with self.subTest(name):
                self.assertEqual(b"body", self.run_tool("get", "a", "-o", name).out)
                self.assertEqual(b"body", self.run_tool("get", "a", "-f", "-o", name).out)
        self.assertEqual(b"body", self.run_tool("get", "a", "-o", "/dev/stderr").err)

    def test_a_redirected_output_is_appended_to(self):
        # A file that is opened again by such a name would be written from its beginning.
        target = self.write("target", "before ")
        for name in ["/dev/stdout", "/proc/self/fd/1"]:
            with open(target, "ab") as file:
                subprocess.run([support.PROGRAM, "get", "a", "-o", name], cwd=self.folder,
                               stdout=file, check=True,
                               env=support.environment(FSTORE_PASSWORD=support.PASSWORD))
        self.assertEqual(b"before bodybody", target.read_bytes())

    def test_an_open_descriptor_is_written(self):
        read, write = os.pipe()
        with os.fdopen(read, "rb") as reader:
            self.run_tool("get", "a", "-o", f"/dev/fd/{write}", pass_fds=[write])
            os.close(write)
            self.assertEqual(b"body", reader.read())
        self.fails(9, "io", "get", "a", "-o", "/dev/fd/99")

    def test_a_link_is_not_followed(self):
        self.write("target", "mine")
        for name, to in [("link", "target"), ("dangling", "nowhere"), ("device", "/dev/null"),
                         ("stdout", "/dev/stdout")]:
            (self.folder / name).symlink_to(to)
            for writer in self.WRITERS:
                for force in [[], ["-f"]]:
                    with self.subTest(writer=writer, name=name, force=force):
                        before = self.kinds()
                        message = self.fails(4, "invalid", *writer, name, *force)
                        self.assertIn(f"{name} is a link, which fstore does not follow", message)
                        self.assertEqual(before, self.kinds())
        self.assertEqual(b"mine", (self.folder / "target").read_bytes())

    def test_a_folder_is_no_file(self):
        (self.folder / "sub").mkdir()
        for name in ["sub", "sub/", ".", "/"]:
            for writer in self.WRITERS:
                self.assertIn("is a folder", self.fails(4, "invalid", *writer, name, "-f"))

    def test_a_backup_to_a_stream_restores(self):
        for name in ["-", "/dev/stdout"]:
            run = self.run_tool("backup", name)
            self.assertIn("not verified", run.message)
            self.write("saved.tar", run.out)
            self.run_tool("-D", "copy", "restore", "saved.tar")
            self.assertEqual(b"body", self.run_tool("-D", "copy", "get", "a").out)
            shutil.rmtree(self.folder / "copy")
        self.assertIn("no text", self.run_tool("--json", "backup", "-", code=2).message)


class CodeTest(InitialisedTest):
    """Nothing in the folder of a database is loaded or run."""

    def test_relative_modules_are_refused(self):
        shutil.copytree(os.path.join(os.path.dirname(support.PROGRAM), "../lib"),
                        self.folder / "modules",
                        ignore=lambda _, names: [n for n in names if not n.endswith(".so")])
        for name in ["modules", "./modules", ".", "../modules"]:
            message = self.fails(40, "no-service", "ls", env={"FILESTORE_MODULES": name})
            self.assertIn(f"FILESTORE_MODULES is {name}; name it by an absolute path", message)
        self.run_tool("ls", env={"FILESTORE_MODULES": self.folder / "modules"})

    def test_openssl_is_not_configured_from_there(self):
        # With this, no algorithm would be found.
        self.write("openssl.cnf", "openssl_conf = all\n[all]\nalg_section = algorithms\n"
                                  "[algorithms]\ndefault_properties = colour=none\n")
        (self.folder / "elsewhere").mkdir()
        for name in ["openssl.cnf", "./openssl.cnf"]:
            for args in [("-D", "..", "put", "-f", "settings/a", "-"), ("-D", "..", "check", "--deep")]:
                run = support.fstore(*args, cwd=self.folder / "elsewhere", stdin=b"x",
                                     env={"OPENSSL_CONF": name})
                self.assertEqual(0, run.code, run.message)
            # Here it is the user who says so.
            self.assertNotEqual(0, support.fstore("put", "-f", "settings/a", "-", cwd=self.folder,
                                                  env={"OPENSSL_CONF": name}).code)


if __name__ == "__main__":
    support.main()
