#!/usr/bin/env python3
"""Each call that changes the disk fails, or the tool dies in front of it: nothing is lost."""

import pathlib
import shutil
import tempfile

import support
from kill import NEW, KillTest, Workload, unnamed_bodies, untold
from support import CHEAP, PASSWORD


class Put(Workload):
    args = ("put", "settings/n", "-")
    stdin = b"new"
    bodies = {**Workload.bodies, "settings/n": {None, b"new"}}


class PutOver(Workload):
    args = ("put", "-f", "settings/a", "-")
    stdin = b"new"
    bodies = {**Workload.bodies, "settings/a": {b"old", b"new"}}


class Set(Workload):
    args = ("set", "keys/k", "label=x", "--encrypt")


class Remove(Workload):
    args = ("rm", "settings/a")
    bodies = {**Workload.bodies, "settings/a": {b"old", None}}


class Move(Workload):
    args = ("mv", "settings/a", "crm/moved")
    bodies = {**Workload.bodies, "settings/a": {b"old", None}, "crm/moved": {b"old", None}}

    def verify(self, folder):
        super().verify(folder)
        _, digests = self.listed(folder)
        assert digests.get("settings/a") or digests.get("crm/moved"), "neither old nor new"
        if "settings/a" in digests:
            # Whoever broke it off can finish it.
            if "crm/moved" in digests:
                run = support.fstore("-D", folder, "rm", "settings/a")
            else:
                run = support.fstore("-D", folder, *self.args)
            assert run.code == 0, run
            _, digests = self.listed(folder)
        assert "settings/a" not in digests and digests["crm/moved"], digests


class Copy(Workload):
    args = ("cp", "settings/a", "crm/copied")
    bodies = {**Workload.bodies, "crm/copied": {b"old", None}}


class MakeFolders(Workload):
    args = ("mkdir", "-p", "settings/one/two")


class Change(Workload):
    args = ("passwd", *CHEAP)
    env = {"FSTORE_NEW_PASSWORD": NEW}
    passwords = (PASSWORD, NEW)

    def verify(self, folder):
        said = support.fstore("-D", folder, "info", password=None).text
        assert self.keeps or "is kept" not in said, said  # the next command removes it
        super().verify(folder)


class ChangeKeepingOld(Change):
    args = ("passwd", *CHEAP, "--keep-old")
    keeps = True

    def verify(self, folder):
        """What is kept can be used as a database, however much of it was put in order."""
        super().verify(folder)
        for kept in folder.glob("db-*"):
            elsewhere = folder / "elsewhere"
            shutil.copytree(kept, elsewhere / "db")
            for args in [("check", "--deep"), ("check", "--repair"), ("check", "--deep")]:
                run = support.fstore("-D", elsewhere, *args)
                assert run.code == 0, run
            assert support.fstore("-D", elsewhere, "get", "settings/a").out == b"old"
            shutil.rmtree(elsewhere)


class Init(Workload):
    args = ("init", *CHEAP)
    bodies = {"settings/s": {None, b"secret"}}

    def fresh(self, folder):
        folder.mkdir()

    def verify(self, folder):
        # What stands before it is done is no database that would keep a secret.
        run = support.fstore("-D", folder, "put", "settings/s", "-", stdin=b"secret")
        assert run.code in (0, 14, 50, 74), run
        if run.code != 0:
            run = support.fstore("-D", folder, *self.args)
            assert run.code == 0, run
        super().verify(folder)


class Repair(Workload):
    args = ("check", "--repair")

    def prepare(self, folder):
        settings = folder / "db/settings"
        (settings / "a.dsc").rename(settings / "a.dsc.$o$")
        for name in ["deadbeef", "b.dsc.$n$", "b.dsc.$d$", "0000ab10"]:
            (settings / name).write_text("10000003 00000000 0000ab10\n")
        shutil.copy(folder / "db/keys/k.dsc", folder / "db/keys/k.dsc.$o$")
        shutil.copytree(folder / "db", folder / "new_db")
        (folder / "db/crm").rmdir()

    def verify(self, folder):
        # Whatever is left, the next one cleans up.
        run = support.fstore("-D", folder, "check", "--repair")
        assert run.code == 0, run
        super().verify(folder)


class MovedAside(Repair):
    """The database stands aside, as between the two renames of a change."""

    def prepare(self, folder):
        super().prepare(folder)
        (folder / "db").rename(folder / "old_db")


class SettleOurs(Workload):
    """Of two states one is kept; whatever dies, the record is in one of them."""

    args = ("check", "--settle", "lsps/plain.dsc.orig", "--keep", "ours")
    bodies = {**Workload.bodies, "lsps/plain": {b"plain", b"theirs"}}
    kept = b"plain"

    def prepare(self, folder):
        lsps = folder / "db/lsps"
        before = {path: path.read_bytes() for path in lsps.iterdir()}
        run = support.fstore("-D", folder, "put", "-f", "lsps/plain", "-", "--plain-body", stdin=b"theirs")
        assert run.code == 0, run
        (lsps / "plain.dsc").rename(lsps / "plain.dsc.orig")
        for path, contents in before.items():
            path.write_bytes(contents)

    def verify(self, folder):
        shown = support.fstore("-D", folder, "get", "lsps/plain")
        assert shown.out in self.bodies["lsps/plain"], shown
        for _ in range(3):  # the states that are left, also one that the run has put aside
            run = support.fstore("-D", folder, "check", "--json")
            left = [one["path"] for one in run.document["findings"] if one["kind"] == "conflict"]
            if not left:
                break
            keep = "theirs" if support.fstore("-D", folder, "get", "lsps/plain").out != self.kept \
                else "ours"
            run = support.fstore("-D", folder, "check", "--settle", left[0], "--keep", keep)
            assert run.code == 0, run
        super().verify(folder)
        assert support.fstore("-D", folder, "get", "lsps/plain").out == self.kept


class SettleTheirs(SettleOurs):
    args = ("check", "--settle", "lsps/plain.dsc.orig", "--keep", "theirs")
    kept = b"theirs"


class SettleMerge(SettleTheirs):
    args = ("check", "--settle", "lsps/plain.dsc", "--keep", "theirs")

    def prepare(self, folder):
        super().prepare(folder)
        ours, theirs = folder / "db/lsps/plain.dsc", folder / "db/lsps/plain.dsc.orig"
        ours.write_bytes(b"<<<<<<< HEAD\n" + ours.read_bytes() + b"=======\n" +
                         theirs.read_bytes() + b">>>>>>> other\n")
        theirs.unlink()

    def verify(self, folder):
        # Until it is settled, nobody can say which state the record has.
        if support.fstore("-D", folder, "get", "lsps/plain").code == 59:
            run = support.fstore("-D", folder, *self.args)
            assert run.code == 0, run
        super().verify(folder)


class CommandsTest(KillTest):
    def test_a_plain_check_tells_of_bodies_that_nobody_names(self):
        """Only what lists all files finds them, so no other command does; each call is struck."""
        left = {}
        for kind in (Put, PutOver, Remove, Move):
            workload = kind(self.template)
            for call in range(1, workload.count() + 1):
                with tempfile.TemporaryDirectory(prefix="fstore-kill-") as name:
                    folder = pathlib.Path(name) / "w"
                    workload.fresh(folder)
                    workload.run(folder, CALL_TRAP_DIE=call)
                    left[kind] = left.get(kind, 0) + len(unnamed_bodies(folder))
                    self.assertEqual(set(), untold(folder, PASSWORD), (kind, call))
                    # The next command is not kept from its work, and leaves them for the check.
                    run = support.fstore("-D", folder, "put", "settings/z", "-", stdin=b"z")
                    self.assertEqual(0, run.code, run)
                    self.assertEqual(set(), untold(folder, PASSWORD), (kind, call))
        self.assertTrue(all(left.values()), left)

    def test_put_with_faults(self):
        self.fail_everywhere(Put)

    def test_put_over_with_faults(self):
        self.fail_everywhere(PutOver)

    def test_set_with_faults(self):
        self.fail_everywhere(Set)

    def test_rm_with_faults(self):
        self.fail_everywhere(Remove)

    def test_mv_with_faults(self):
        self.fail_everywhere(Move)

    def test_passwd_with_faults(self):
        self.fail_everywhere(Change)

    def test_passwd_keep_old_with_faults(self):
        self.fail_everywhere(ChangeKeepingOld)

    def test_init_with_faults(self):
        self.fail_everywhere(Init)

    def test_repair_with_faults(self):
        self.fail_everywhere(Repair)

    def test_repair_of_a_database_moved_aside_with_faults(self):
        self.fail_everywhere(MovedAside)

    def test_settle_ours_with_faults(self):
        self.fail_everywhere(SettleOurs)

    def test_settle_theirs_with_faults(self):
        self.fail_everywhere(SettleTheirs)

    def test_settle_a_merge_with_faults(self):
        self.fail_everywhere(SettleMerge)

    def test_put(self):
        self.kill_everywhere(Put)

    def test_put_over(self):
        self.kill_everywhere(PutOver)

    def test_set(self):
        self.kill_everywhere(Set)

    def test_rm(self):
        self.kill_everywhere(Remove)

    def test_cp(self):
        self.kill_everywhere(Copy)

    def test_mkdir(self):
        self.kill_everywhere(MakeFolders)

    def test_mv(self):
        self.kill_everywhere(Move)

    def test_init(self):
        self.kill_everywhere(Init)

    def test_passwd(self):
        self.kill_everywhere(Change)

    def test_passwd_keep_old(self):
        self.kill_everywhere(ChangeKeepingOld)

    def test_repair(self):
        self.kill_everywhere(Repair)

    def test_repair_of_a_database_moved_aside(self):
        self.kill_everywhere(MovedAside)

    def test_settle_ours(self):
        self.kill_everywhere(SettleOurs)

    def test_settle_theirs(self):
        self.kill_everywhere(SettleTheirs)

    def test_settle_a_merge(self):
        self.kill_everywhere(SettleMerge)


if __name__ == "__main__":
    support.main()
