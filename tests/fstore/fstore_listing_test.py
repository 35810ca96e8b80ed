#!/usr/bin/env python3
"""ls for spreadsheets and calendars."""

import csv
import io
import re

import support
from pki import openssl
from support import InitialisedTest

HOSTILE = "=1+1"
LONG = "Käse, Brot; und \\ " + "東京" * 20


class ListingTest(InitialisedTest):
    @classmethod
    def fill(cls, folder):
        for name, subject, options in (
                ("plain", "CN=www.example.com", ("--san", "www.example.com", "--san", "b.example.com")),
                ("odd", 'CN=a "quoted"\\, name', ("--label", HOSTILE)),
                ("long", "CN=" + re.sub(r'([,;\\])', r"\\\1", LONG), ())):
            run = support.fstore("-D", folder, "generate", name, "--type", "ed25519", "--self-signed", "40",
                                 "--subject", subject, *options)
            assert run.code == 0, run.message

    def listed(self):
        return {record["address"]: record
                for record in self.run_tool("ls", "--json").document["records"]}


class CsvTest(ListingTest):
    def rows(self, *options, code=0):
        text = self.run_tool("ls", "--csv", *options, code=code).out.decode()
        self.assertEqual(text.count("\n"), text.count("\r\n"))
        return list(csv.DictReader(io.StringIO(text, newline=""), strict=True))

    def test_says_what_json_says(self):
        listed = self.listed()
        rows = self.rows()
        self.assertEqual(list(listed), [row["address"] for row in rows])
        for row in rows:
            record = listed[row["address"]]
            for name in ("kind", "notBefore", "notAfter", "keyAlgorithm", "subject", "issuer",
                         "serial", "sha256"):
                self.assertEqual(record.get(name, ""), row[name], name)
            self.assertEqual(" ".join(record.get("altNames", [])), row["altNames"])
            self.assertEqual("yes" if record["body"]["encrypted"] else "no", row["encrypted"])

    def test_text_is_no_formula(self):
        rows = {row["address"]: row for row in self.rows()}
        self.assertEqual("'" + HOSTILE, rows["certificates/local/odd"]["label"])
        for row in rows.values():
            for value in row.values():
                self.assertNotIn(value[:1], tuple("=+-@\t\r"), row)

    def test_damaged_records_are_rows_as_well(self):
        (self.folder / "db/keys/plain.dsc").write_text("nothing\n")
        rows = {row["address"]: row for row in self.rows(code=3)}
        self.assertEqual("damaged", rows["keys/plain"]["kind"])

    def test_a_missing_body_is_told_from_damage(self):
        remote = self.folder / "db/certificates/remote"
        (remote / "lost.dsc").write_text("10000003 00000000 0000000f\n")
        (remote / "torn.dsc").write_text("nothing\n")
        states = {row["address"]: row["kind"] for row in self.rows("certificates/remote", code=3)}
        self.assertEqual({"certificates/remote/lost": "body missing",
                          "certificates/remote/torn": "damaged"},
                         {name: states[name] for name in states if name[-4:] in ("lost", "torn")})
        text = self.run_tool("ls", code=3).text
        self.assertRegex(text, r"certificates/remote/lost +body missing")
        self.assertRegex(text, r"certificates/remote/torn +damaged")

    def test_filters_leave_out_a_missing_body_that_they_do_not_mean(self):
        folder = self.folder / "db/certificates/remote"
        for name, subject in ("one", "CN=one"), ("two", "CN=two"):
            (folder / f"{name}.dsc").write_text(
                f"10000003 00000000 0000000f\n00000001 00000101 00000001\n00000004 00000103 {subject}\n")
        (folder / "torn.dsc").write_text("nothing\n")
        self.assertEqual({"certificates/remote/one", "certificates/remote/torn"},
                         {row["address"] for row in self.rows("--subject", "CN=on*", code=3)})
        (folder / "torn.dsc").unlink()
        self.assertEqual([], list(self.rows("--subject", "CN=nobody")))

    def test_one_form_at_once(self):
        self.assertIn("--csv and --ics do not go together",
                      self.run_tool("ls", "--csv", "--ics", code=2).message)
        for form in "--csv", "--ics":
            run = self.run_tool("--json", "ls", form, code=2)
            self.assertIn("exclude each other", run.error["message"])


class CalendarTest(ListingTest):
    def events(self, *options, **more):
        """Of each event the properties, unfolded and unescaped."""
        out = self.run_tool("ls", "--ics", *options, **more).out
        lines = out.split(b"\r\n")
        self.assertEqual(b"", lines.pop())
        self.assertNotIn(b"\n", b"".join(lines))
        for line in lines:
            self.assertLessEqual(len(line), 75, line)
            line.decode()  # no character is torn
        logical = out.replace(b"\r\n ", b"").decode().split("\r\n")[:-1]
        self.assertEqual(["BEGIN:VCALENDAR", "VERSION:2.0"], logical[:2])
        self.assertTrue(logical[2].startswith("PRODID:"))
        self.assertEqual("END:VCALENDAR", logical[-1])
        found = []
        for line in logical[3:-1]:
            name, _, value = line.partition(":")
            if (name, value) == ("BEGIN", "VEVENT"):
                found.append({})
            elif name != "END":
                self.assertNotIn(name, found[-1])
                self.assertIsNone(re.search(r"(?<!\\)(\\\\)*[,;]", value), value)
                found[-1][name] = re.sub(r"\\(.)", lambda m: "\n" if m[1] == "n" else m[1], value)
        return found

    def test_one_event_a_certificate(self):
        listed = {address: record for address, record in self.listed().items()
                  if record["kind"] == "certificate"}
        events = self.events()
        self.assertEqual(len(listed), len(events))
        by_end = {event["DESCRIPTION"].split("\n")[0]: event for event in events}
        for address, record in listed.items():
            event = by_end[address]
            self.assertEqual(re.sub("[-:]", "", record["notAfter"]), event["DTSTART"])
            self.assertRegex(event["DTSTAMP"], r"\A\d{8}T\d{6}Z\Z")
            self.assertIn(record["subject"], event["SUMMARY"])
            self.assertIn(record["issuer"], event["DESCRIPTION"])

    def test_same_bytes_and_same_id_wherever_the_record_is(self):
        before = self.events()
        self.assertEqual(before, self.events())
        self.run_tool("mv", "certificates/local/plain", "certificates/local/moved")
        self.run_tool("cp", "certificates/local/moved", "certificates/local/copy")
        after = self.events()
        self.assertEqual({event["UID"] for event in before}, {event["UID"] for event in after})
        self.assertEqual(len(before), len(after))
        self.assertEqual(len(before), len({event["UID"] for event in before}))

    def test_filters_and_alarms(self):
        self.assertEqual([], self.events("--expires-within", "10d"))
        self.assertEqual(["www.example.com"], [re.search(r"CN=(\S+)", event["SUMMARY"])[1] for event in
                                               self.events("--subject", "www", "--fail", code=3)])

    def test_what_cannot_be_dated_is_told(self):
        pem = openssl("req", "-x509", "-newkey", "ed25519", "-nodes", "-subj", "/CN=x",
                      "-keyout", "/dev/null")
        self.run_tool("import", "-", "--encrypt", "--name", "x", stdin=pem)
        run = self.run_tool("ls", "--ics", password=None)
        self.assertIn("could not be read", run.message)
        self.assertEqual(4, len(self.events("--unlock")))


if __name__ == "__main__":
    support.main()
