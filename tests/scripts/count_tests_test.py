"""count_tests.py counts cases, and nothing that proved nothing as passed."""

import json
import unittest

from support import ScriptTest


def case(name, result="COMPLETED", failed=False):
    status = "NOTRUN" if result == "SUPPRESSED" else "RUN"
    found = {"name": name, "status": status, "result": result}
    if failed:
        found["failures"] = [{"failure": "expected 1"}]
    return found


class CountTestsTest(ScriptTest):
    def entries(self, **status_of):
        lines = [f'<testcase name="{name}" status="{status}"/>'
                 for name, status in status_of.items()]
        self.write("ctest.xml", f"<testsuite>{''.join(lines)}</testsuite>")

    def results(self, name, *cases):
        suites = [{"name": "Suite", "testsuite": list(cases)}] if cases else []
        self.write(f"results/{name}.json", json.dumps({"testsuites": suites}))

    def expect(self, passed, failed):
        status, output = self.run_script("count_tests.py")
        self.assertEqual((0, f"{passed} {failed}\n"), (status, output))

    def test_an_entry_without_cases_counts_once(self):
        self.entries(a="run", b="fail")
        self.expect(1, 1)

    def test_cases_count_one_by_one(self):
        self.entries(a="run")
        self.results("a", case("One"), case("Two"), case("Three"))
        self.expect(3, 0)

    def test_failed_cases_are_told_apart(self):
        self.entries(a="fail")
        self.results("a", case("One"), case("Two", failed=True))
        self.expect(1, 1)

    def test_skipped_and_disabled_cases_did_not_pass(self):
        self.entries(a="run")
        self.results("a", case("One"), case("Two", "SKIPPED"), case("Three", "SUPPRESSED"))
        self.expect(1, 2)

    def test_a_crash_after_the_last_case_is_a_failure(self):
        self.entries(a="fail")
        self.results("a", case("One"))
        self.expect(1, 1)

    def test_results_cut_short_are_a_failure(self):
        self.entries(a="run")
        self.write("results/a.json", '{"testsuites": [')
        self.expect(0, 1)

    def test_a_program_without_cases_is_a_failure(self):
        self.entries(a="run")
        self.results("a")
        self.expect(0, 1)

    def test_the_last_lines_of_a_failure_are_shown(self):
        printed = "\n".join(f"line {number}" for number in range(100))
        self.write("ctest.xml", '<testsuite><testcase name="a" status="fail">'
                                f"<system-out>{printed}</system-out></testcase></testsuite>")
        shown = self.run_whole("count_tests.py").stderr.splitlines()
        self.assertEqual(("line 60", "line 99", "failed: a"), (shown[0], shown[-2], shown[-1]))


if __name__ == "__main__":
    unittest.main()
