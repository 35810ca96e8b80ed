#!/usr/bin/env python3
"""Records through the Python package: what comes back, what fails and how, what close() does."""

import gc
import hashlib
import io
import os
import pathlib
import pickle
import shutil
import tempfile
import threading
import unittest
import warnings

import filestore
import support
from python_support import CHEAP, PASSWORD, StoreTest, example


class RecordTest(StoreTest):
    def test_comes_back_as_it_was(self):
        for body in (b"hello", b"", b"\0", bytes(range(256)) * 999):
            self.database.put("settings/a", body)
            self.assertEqual(body, self.body("settings/a"))

    def test_takes_whatever_has_bytes(self):
        with self.database.copy_key() as key:
            for body in (bytearray(b"ab"), memoryview(b"xaby")[1:3], memoryview(bytearray(b"ab")),
                         key):
                expected = bytes(body)
                self.database.put("settings/a", body)
                self.assertEqual(expected, self.body("a"))
        self.assertRaises(TypeError, self.database.put, "settings/a", "text")

    def test_info(self):
        self.database.put("settings/a", b"body", label="a label", encrypt=False)
        with self.database.get("a") as record:
            info = record.info
        self.assertEqual(("settings/a", "settings", "a"), (info.address, info.folder, info.name))
        self.assertEqual((filestore.Kind.RAW, "a label", 4),
                         (info.kind, info.label, info.body_size))
        self.assertEqual((True, False), (info.has_body, info.body_encrypted))
        self.assertEqual(hashlib.sha256(b"body").hexdigest(), info.sha256)
        self.assertIsNone(info.not_after)

    def attributes(self, address):
        with self.database.get(address) as record:
            return {each.id: bytes(each.value) if isinstance(each.value, filestore.Secret)
                    else each.value for each in record.attributes if each.id >= 0x8000}

    def test_attributes(self):
        given = {0x8001: 5, 0x8002: "text", 0x8003: b"\0bytes"}
        self.database.put("settings/a", b"", attributes=given)
        self.assertEqual({0x8001: b"\5\0\0\0", 0x8002: b"text", 0x8003: b"\0bytes"},
                         self.attributes("a"))
        self.database.put("settings/b", b"x", attributes=given, encrypt=False)
        self.assertEqual(given, self.attributes("b"))
        self.database.set("b", label="new", attributes={0x8001: 6, 0x8002: ""})
        self.assertEqual({0x8001: 6, 0x8003: b"\0bytes"}, self.attributes("b"))
        self.assertEqual(b"x", self.body("b"))
        self.database.unset("b", 0x8001)
        self.assertEqual({0x8003: b"\0bytes"}, self.attributes("b"))
        with self.assertRaises(filestore.NotFound):
            self.database.unset("b", 0x8003, 0x8001)
        self.assertEqual({0x8003: b"\0bytes"}, self.attributes("b"))
        for value in (-1, 1 << 32):
            self.assertRaises(ValueError, self.database.set, "b", attributes={0x8001: value})
        self.assertRaises(filestore.Invalid, self.database.set, "b", attributes={0x101: 5})

    def test_names_that_are_no_text(self):
        self.database.put("settings/\u00e9", b"x")
        folder = os.fsencode(self.folder / "db/settings")
        shutil.copy(folder + "/\u00e9.dsc".encode(), folder + b"/\xff.dsc")
        for address in ("settings/\u00e9", "settings/\udcff"):
            with self.database.get(address) as record:
                self.assertEqual(address, record.info.address)

    def test_new_refuses_what_is_there(self):
        self.database.put("settings/a", b"one", new=True)
        self.assertRaises(filestore.Invalid, self.database.put, "settings/a", b"two", new=True)
        self.assertEqual(b"one", self.body("a"))

    def test_rename_and_remove(self):
        self.database.put("settings/a", b"x")
        self.database.put("settings/c", b"y")
        self.database.rename("a", "crm/b")
        self.assertEqual(b"x", self.body("crm/b"))
        self.assertRaises(filestore.Invalid, self.database.rename, "crm/b", "settings/c")
        self.database.remove("crm/b")
        self.assertRaises(filestore.Missing, self.database.get, "crm/b")

    def test_plain_only_and_without_body(self):
        self.database.put("settings/a", b"secret")
        self.database.put("settings/b", b"plain", encrypt=False)
        with filestore.Database(self.folder) as locked:
            self.assertRaises(filestore.NotOpen, locked.get, "a")
            with locked.get("a", plain_only=True) as record:
                self.assertIsNone(record.body)
                self.assertEqual([None], [each.value for each in record.attributes
                                          if each.encrypted])
            self.assertEqual(b"plain", self.body("b", locked))
        with self.database.get("b", body=False) as record:
            self.assertIsNone(record.body)
            self.assertTrue(record.info.has_body)


class SlotsTest(unittest.TestCase):
    """A database with a password, a recovery key and a key file, which are slots 1 to 3."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="filestore-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.secrets = example(self.folder)
        self.key_file = self.folder / "host.key"
        self.key_file.write_text(self.secrets["file"])
        self.database = filestore.Database(self.folder)
        self.addCleanup(self.database.close)

    def ways(self):
        recovery = self.secrets["recovery"]
        return [(1, {"password": self.secrets["password"]}),
                (2, {"recovery_key": recovery.lower()}),
                (2, {"recovery_key": lambda: recovery}),
                (3, {"key_file": self.key_file}), (3, {"key_file": str(self.key_file)})]

    def test_each_opens_and_tells_its_slot(self):
        self.database.unlock(self.secrets["password"])
        self.database.put("settings/a", b"the body")
        for slot, way in self.ways():
            with filestore.Database(self.folder) as database:
                self.assertEqual(slot, database.unlock(**way))
                with database.get("a") as record:
                    self.assertEqual(b"the body", bytes(record.body))

    def test_only_the_slot_that_is_named_is_tried(self):
        for slot, way in self.ways():
            self.assertEqual(slot, self.database.unlock(**way, slot=slot))
            self.assertRaises(filestore.WrongPassword, self.database.unlock, **way,
                              slot=slot % 3 + 1)

    def test_what_opens_nothing(self):
        key = self.secrets["recovery"]
        wrong = key[:12] + ("0" if key[12] != "0" else "1") + key[13:]
        with self.assertRaisesRegex(filestore.WrongPassword, "group 3 is mistyped"):
            self.database.unlock(recovery_key=wrong)
        self.key_file.write_text("no key file")
        with self.assertRaisesRegex(filestore.Malformed, "host.key"):
            self.database.unlock(key_file=self.key_file)
        self.assertRaises(filestore.Missing, self.database.unlock, key_file=self.folder / "none")
        self.assertFalse(self.database.is_unlocked)


class FailureTest(StoreTest):
    @classmethod
    def fill(cls, database):
        database.put("settings/a", b"the body")
        database.put("settings/p", b"plain", encrypt=False)

    def test_wrong_password(self):
        with filestore.Database(self.folder) as database:
            with self.assertRaises(filestore.WrongPassword) as caught:
                database.unlock("wrong")
            self.assertEqual(6, caught.exception.status)
            self.assertIn(str(self.folder), caught.exception.path)
            self.assertFalse(database.is_unlocked)
            database.unlock(lambda: PASSWORD.encode())
            self.assertTrue(database.is_unlocked)
            self.assertRaises(ZeroDivisionError, database.unlock, lambda: 1 // 0)

    def test_unlocking_takes_one_secret(self):
        for arguments in ({}, {"password": PASSWORD, "key_file": "k"},
                          {"key_file": "k", "recovery_key": "r"}):
            self.assertRaises(TypeError, self.database.unlock, **arguments)

    def test_a_nul_cuts_off_no_text(self):
        self.database.put("settings/a", b"kept")
        nul = "settings/a\0b"
        for use in (lambda: self.database.get(nul), lambda: self.database.put(nul, b""),
                    lambda: self.database.remove(nul), lambda: self.database.find(subject="\0"),
                    lambda: self.database.rename("settings/a", nul),
                    lambda: self.database.backup(f"{self.folder}/\0.tar"),
                    lambda: filestore.Database(f"{self.folder}\0/b")):
            self.assertRaises(ValueError, use)
        self.assertEqual(b"kept", self.body("settings/a"))

    def test_numbers_of_more_than_32_bits_are_no_others(self):
        self.database.put("settings/a", b"")
        for use in (lambda: self.database.unlock(PASSWORD, slot=1 << 32),
                    lambda: self.database.unlock(PASSWORD, slot=-1),
                    lambda: filestore.Database(self.folder, cost=1 << 40),
                    lambda: self.database.change_password("x", cost=1 << 32),
                    lambda: self.database.set("settings/a", attributes={(1 << 32) + 0x8001: "x"}),
                    lambda: self.database.unset("settings/a", -1)):
            self.assertRaises(ValueError, use)

    def test_damage(self):
        body = next(path for path in (self.folder / "db/settings").iterdir()
                    if path.read_bytes() == b"plain")
        body.write_bytes(b"other")
        with self.assertRaises(filestore.Malformed) as caught:
            self.database.get("p")
        self.assertEqual((59, "settings/p"), (caught.exception.status, caught.exception.path))
        (self.folder / "db/settings/a.dsc").write_text("nonsense\n")
        self.assertRaises(filestore.Malformed, self.database.get, "settings/a")

    def test_missing(self):
        for kind in (filestore.Missing, LookupError, filestore.Error):
            self.assertRaises(kind, self.database.get, "nothing")
        self.assertRaises(filestore.Missing, filestore.Database, self.folder / "nowhere")
        (self.folder / "empty").mkdir()
        with filestore.Database(self.folder / "empty") as database:
            self.assertRaises(filestore.Missing, database.unlock, PASSWORD)

    def test_read_only(self):
        with self.open(read_only=True) as database:
            self.assertEqual(b"the body", self.body("a", database))
            self.assertRaises(filestore.Invalid, database.put, "settings/a", b"x")

    def test_an_error_survives_pickling(self):
        error = filestore.Missing("no such thing", "settings/a")
        again = pickle.loads(pickle.dumps(error))
        self.assertEqual((filestore.Missing, "no such thing", "settings/a", 50),
                         (type(again), str(again), again.path, again.status))

    def test_a_status_of_a_later_version_is_an_error(self):
        error = filestore.Error.of(99, "what is this")
        self.assertEqual((filestore.Error, 99), (type(error), error.status))

    def test_a_warning_comes_after_the_call(self):
        settings = self.folder / "db/settings"
        (settings / "copy.dsc").write_bytes((settings / "p.dsc").read_bytes())
        with self.assertWarnsRegex(filestore.StoreWarning, "copy.dsc") as caught:
            self.database.remove("settings/p")
        self.assertEqual(__file__, caught.filename)
        self.assertEqual(b"plain", self.body("copy"))
        (settings / "again.dsc").write_bytes((settings / "copy.dsc").read_bytes())
        with warnings.catch_warnings():
            warnings.simplefilter("error")
            self.assertRaises(filestore.StoreWarning, self.database.remove, "settings/copy")
        self.assertRaises(filestore.Missing, self.database.get, "settings/copy")


class ClosingTest(StoreTest):
    @classmethod
    def fill(cls, database):
        database.put("settings/a", b"the body", attributes={0x8001: b"secret"})

    def test_a_closed_database_raises(self):
        with self.database as database:
            pass
        self.assertTrue(database.closed)
        for use in (lambda: database.get("a"), lambda: database.put("settings/a", b""),
                    lambda: database.find(), database.copy_key, database.lock,
                    lambda: database.is_unlocked, database.check, database.__enter__):
            with self.assertRaises(filestore.Closed) as caught:
                use()
            self.assertIsInstance(caught.exception, ValueError)
        database.close()

    def test_a_closed_record_raises_and_its_views_read_zeros(self):
        record = self.database.get("a")
        body = record.body
        secret = next(each.value for each in record.attributes if each.id == 0x8001)
        view, part = body.view, body.view[4:]
        stream = io.BytesIO(view)
        record.close()
        self.assertEqual((bytes(8), bytes(4)), (bytes(view), bytes(part)))
        self.assertEqual(b"the body", stream.getvalue())
        for use in (lambda: record.body, lambda: record.attributes, lambda: body.view,
                    lambda: bytes(body), lambda: len(body), lambda: secret.view,
                    record.__enter__, body.__enter__):
            self.assertRaises(filestore.Closed, use)
        self.assertEqual("settings/a", record.info.address)
        record.close()

    def test_finalizers_that_come_after_those_of_this_package_find_it_closed(self):
        said = []

        class User:
            def __del__(self):
                for use in (lambda: self.database.get("a"), lambda: self.record.body,
                            lambda: self.listing[0]):
                    try:
                        use()
                        said.append("used")
                    except filestore.Error as error:
                        said.append(type(error).__name__)

        database = self.open()  # the older ones are finalized first
        record, listing = database.get("a"), database.find()
        user = User()
        user.myself, user.database, user.record, user.listing = user, database, record, listing
        del user, database, record, listing
        gc.collect()
        self.assertEqual(["Closed", "Closed", "Invalid"], said)

    def test_what_was_handed_out_outlives_the_handle(self):
        record = self.database.get("a")
        self.database.close()
        self.assertEqual(b"the body", bytes(record.body))

    def test_a_view_keeps_the_memory(self):
        # Nothing else refers to record or secret here.
        view = self.database.get("a").body.view
        gc.collect()
        for _ in range(100):
            self.body("a")
        self.assertEqual(b"the body", bytes(view))

    def test_views_are_read_only(self):
        with self.database.get("a") as record:
            with self.assertRaises(TypeError):
                record.body.view[0] = 1

    def test_a_secret_shows_nothing(self):
        with self.database.get("a") as record:
            body = record.body
            self.assertEqual("<Secret of 8 bytes>", repr(body))
            self.assertNotIn("the body", repr(record) + str(body))
            self.assertRaises(TypeError, pickle.dumps, body)
            self.assertRaises(TypeError, hash, body)
            self.assertTrue(body == b"the body")
            self.assertFalse(body == b"another")
            self.assertFalse(body == 5)
        self.assertEqual("<Secret, wiped>", repr(body))

    def test_closing_while_others_use_it(self):
        """Calls that are running end as they would have; later ones raise."""
        failures = []

        def use():
            try:
                while True:
                    self.assertEqual(b"the body", self.body("a"))
            except filestore.Closed:
                pass
            except BaseException as failure:
                failures.append(failure)

        threads = [threading.Thread(target=use) for _ in range(4)]
        for thread in threads:
            thread.start()
        self.database.close()
        for thread in threads:
            thread.join(60)
        self.assertEqual([], failures)


class KeyTest(StoreTest):
    def test_a_copied_key_opens_at_once(self):
        self.database.put("settings/a", b"x")
        with self.database.copy_key() as key, filestore.Database(self.folder) as other:
            other.unlock_with_key(key)
            self.assertEqual(b"x", self.body("a", other))
            other.lock()
            self.assertFalse(other.is_unlocked)
            self.assertRaises(filestore.NotOpen, other.get, "a")
            self.assertRaises(filestore.NotOpen, other.copy_key)
            self.assertRaises(filestore.Error, other.unlock_with_key, b"no key")

    def test_create(self):
        folder = self.folder / "new"
        with filestore.Database(folder, create=True, cost=CHEAP) as database:
            self.assertRaises(filestore.Missing, database.get, "settings/a")
            database.unlock("new password")
            database.put("settings/a", b"x")
        with filestore.Database(folder) as database:
            database.unlock(bytearray(b"new password"))
            self.assertEqual(b"x", self.body("a", database))


class ThreadTest(StoreTest):
    def test_two_threads_on_one_handle(self):
        failures = []

        def work(name):
            try:
                for turn in range(50):
                    body = f"{name} {turn}".encode()
                    self.database.put(f"settings/{name}", body)
                    self.assertEqual(body, self.body(f"settings/{name}"))
            except BaseException as failure:
                failures.append(failure)

        threads = [threading.Thread(target=work, args=(name,)) for name in ("one", "two")]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(120)
        self.assertEqual([], failures)
        self.assertEqual({b"one 49", b"two 49"}, {self.body("one"), self.body("two")})


if __name__ == "__main__":
    support.main()
