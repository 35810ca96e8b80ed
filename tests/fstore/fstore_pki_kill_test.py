#!/usr/bin/env python3
"""generate, import, export, backup and restore die in front of each call: nothing is lost."""

import atexit
import os
import pathlib
import shutil
import tempfile

import pki
import support
from authority import Authority
from kill import KillTest, Workload


class Import(Workload):
    """What was killed is finished by running it again."""

    env = pki.IN_PASSWORD
    codes = {0, 5, 9}

    def __init__(self, template):
        super().__init__(template)
        self.args = ("import", *[pki.files() / name for name in
                                 ("modern.p12", "crl.pem", "request.pem", "rsa.key")])

    def verify(self, folder):
        super().verify(folder)
        run = support.fstore("-D", folder, *self.args, "--json", env=self.env)
        assert run.code == 0, run
        assert len(run.document["records"]) == 6, run
        super().verify(folder)
        run = support.fstore("-D", folder, "ls", "--json")
        folders = sorted(record["address"].split("-")[0] for record in run.document["records"])
        assert folders == ["certificates/local/Caf", "certificates/local/Example", "crls/Example",
                           "crm/asker", "keys/Caf", "keys/k", "keys/key", "lsps/plain",
                           "settings/a"], run


class Generate(Workload):
    """The key is there alone, or nothing is; `request` goes on with it."""

    args = ("generate", "www", "--type", "ed25519", "--request", "--san", "www.example.com",
            "--self-signed", "9")
    made = {"keys/www", "certificates/local/www", "crm/www"}

    def verify(self, folder):
        super().verify(folder)
        _, digests = self.listed(folder)
        assert "keys/www" in digests or not self.made & set(digests), digests
        if "keys/www" in digests:
            run = support.fstore("-D", folder, "request", "www", "--san", "www.example.com")
        else:
            run = support.fstore("-D", folder, *self.args)
        assert run.code == 0, run
        pki.openssl("req", "-verify", "-noout", stdin=run.out)
        super().verify(folder)


class RequestAgain(Generate):
    """The old request or the new one."""

    args = ("request", "www", "--san", "new.example")

    def prepare(self, folder):
        run = support.fstore("-D", folder, *Generate.args)
        assert run.code == 0, run

    def verify(self, folder):
        super().verify(folder)
        _, digests = self.listed(folder)
        assert self.made <= set(digests), digests


class Prune(Workload):
    """What was renewed and has expired is there or gone; everything else is there."""

    args = ("prune", "--yes")

    def __init__(self, template):
        super().__init__(template)
        place = pathlib.Path(tempfile.mkdtemp(prefix="fstore-authority-"))
        atexit.register(shutil.rmtree, place)
        authority = Authority(place, "Root")
        self.root = authority.certificate.read_bytes()
        self.lists = [("older", authority.crl(-40, -2)), ("old", authority.crl(-20, -1)),
                      ("new", authority.crl(-1, 30))]

    def prepare(self, folder):
        for name, given in [("root", self.root), *self.lists]:
            run = support.fstore("-D", folder, "import", "-", "--name", name, stdin=given)
            assert run.code == 0, run

    def verify(self, folder):
        super().verify(folder)
        run = support.fstore("-D", folder, *self.args)
        assert run.code == 0, run
        super().verify(folder)
        _, digests = self.listed(folder)
        assert [name for name in digests if name.startswith("crls/")] == ["crls/new"], digests


class Move(Import):
    """A certificate whose key has come since."""

    def __init__(self, template):
        super().__init__(template)
        self.args = ("import", pki.files() / "leaf.pem")

    def prepare(self, folder):
        for name in ("leaf.pem", "p256.key"):
            run = support.fstore("-D", folder, "import", pki.files() / name)
            assert run.code == 0, run

    def verify(self, folder):
        Workload.verify(self, folder)
        run = support.fstore("-D", folder, *self.args)
        assert run.code == 0, run
        run = support.fstore("-D", folder, "ls", "certificates", "--json")
        (record,) = run.document["records"]
        assert record["address"].startswith("certificates/local/"), record


class Output(Workload):
    """A file outside of the database, which is whole or not there."""

    def out(self, folder):
        return folder.parent / f"out-{folder.name}"

    def run(self, folder, **trap):
        self.args = (*self.command, self.out(folder))
        return super().run(folder, **trap)

    def verify(self, folder):
        super().verify(folder)
        out = self.out(folder)
        if out.exists():
            self.verify_file(folder, out)
        # The unfinished file had no name.
        left = [name for name in os.listdir(folder.parent) if name.startswith(".out-")]
        assert not left, left


class Export(Output):
    command = ("export", "certificates/remote/root", "-o")

    def prepare(self, folder):
        run = support.fstore("-D", folder, "import", pki.files() / "root.pem", "--name", "root")
        assert run.code == 0, run

    def verify_file(self, folder, out):
        assert out.read_bytes() == (pki.files() / "root.pem").read_bytes()


class Backup(Output):
    command = ("backup",)

    def verify_file(self, folder, out):
        copy = folder.parent / f"copy-{folder.name}"
        run = support.fstore("-D", copy, "restore", out)
        assert run.code == 0, run
        run = support.fstore("-D", copy, "get", "settings/a")
        assert run.out == b"old", run


class Restore(Workload):
    """The database is the old or the new one, and no other is lost."""

    def __init__(self, template):
        super().__init__(template)
        self.args = ("restore", template.parent / f"{template.name}.tar", "--replace")
        run = support.fstore("-D", template, "backup", self.args[1], "--force")
        assert run.code == 0, run

    def prepare(self, folder):
        run = support.fstore("-D", folder, "put", "-f", "settings/a", "-", stdin=b"changed since")
        assert run.code == 0, run

    @staticmethod
    def body_of(database):
        """Of a database that stands under another name."""
        parent = database.parent / "looked-at"
        parent.mkdir()
        os.rename(database, parent / "db")
        run = support.fstore("-D", parent, "check", "--deep")
        assert run.code == 0, run
        body = support.fstore("-D", parent, "get", "settings/a").out
        os.rename(parent / "db", database)
        shutil.rmtree(parent)
        return body

    def verify(self, folder):
        names = [name for name in sorted(os.listdir(folder))
                 if name not in ("new_db", "db.lock", "db.state")]
        bodies = [self.body_of(folder / name) for name in names]
        assert b"changed since" in bodies and set(bodies) <= {b"changed since", b"old"}, bodies
        run = support.fstore("-D", folder, "get", "settings/a")
        assert run.code == 0 and run.out in (b"changed since", b"old"), run
        run = support.fstore("-D", folder, "check", "--deep", "--repair")
        assert run.code == 0, run
        run = support.fstore("-D", folder, *self.args)
        assert run.code == 0, run
        assert support.fstore("-D", folder, "get", "settings/a").out == b"old"


class PkiKillTest(KillTest):
    def test_import(self):
        self.kill_everywhere(Import)

    def test_generate(self):
        self.kill_everywhere(Generate)

    def test_request(self):
        self.kill_everywhere(RequestAgain)

    def test_generate_with_faults(self):
        self.fail_everywhere(Generate)

    def test_prune(self):
        self.kill_everywhere(Prune)

    def test_move(self):
        self.kill_everywhere(Move)

    def test_export(self):
        self.kill_everywhere(Export)

    def test_backup(self):
        self.kill_everywhere(Backup)

    def test_restore(self):
        self.kill_everywhere(Restore)

    def test_import_with_faults(self):
        self.fail_everywhere(Import)

    def test_restore_with_faults(self):
        self.fail_everywhere(Restore)


if __name__ == "__main__":
    support.main()
