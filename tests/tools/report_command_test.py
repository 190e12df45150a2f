"""ptzctl report and ptz-compliance --html as their users run them: what is in the files, and what becomes of them."""
import contextlib
import os
import re
import shutil
import signal
import stat
import subprocess
import tempfile
import time
import unittest

import report_pages
from report_pages import Driver, report

TIDY = shutil.which("tidy")


def contents(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def text_of(result):
    return (result.stdout + result.stderr).decode()


class WithFolder(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="report-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.page = os.path.join(self.folder, "page.html")

    def report(self, *arguments, extra=None):
        """As text, on standard output, without waiting for motions."""
        result = report(self.folder, "-", "--text", "--seconds", "0", *arguments, extra=extra)
        self.assertEqual(result.returncode, 0, text_of(result))
        return result.stdout.decode()

    def expect_valid(self, page):
        if TIDY is None:
            self.skipTest("tidy is not installed")
        tidy = subprocess.run([TIDY, "-errors", "-quiet", "-utf8", page], capture_output=True, check=False)
        self.assertEqual((tidy.returncode, tidy.stderr), (0, b""))


class File(WithFolder):
    def test_is_readable_by_its_owner_only(self):
        mask = os.umask(0)
        self.addCleanup(os.umask, mask)
        self.assertEqual(report(self.folder, self.page, "--seconds", "0").returncode, 0)
        self.assertEqual(stat.S_IMODE(os.stat(self.page).st_mode), 0o600)
        self.assertEqual([name for name in os.listdir(self.folder) if name.startswith("page")], ["page.html"])

    def test_is_replaced_with_force_only(self):
        with open(self.page, "w", encoding="utf-8") as file:
            file.write("mine")
        refused = report(self.folder, self.page, "--seconds", "0")
        self.assertEqual((refused.returncode, contents(self.page)), (1, "mine"))
        self.assertIn("exists; --force replaces it", text_of(refused))
        self.assertEqual(report(self.folder, self.page, "--seconds", "0", "--force").returncode, 0)
        self.assertIn("<!DOCTYPE html>", contents(self.page))

    def test_that_cannot_be_written_is_told_before_anything_is_watched(self):
        start = time.monotonic()
        result = report(self.folder, os.path.join(self.folder, "no/page.html"), "--seconds", "60")
        self.assertEqual(result.returncode, 1)
        self.assertLess(time.monotonic() - start, 30)

    def test_hyphen_is_standard_output(self):
        result = report(self.folder, "-", "--seconds", "0")
        self.assertTrue(result.stdout.startswith(b"<!DOCTYPE html>"))
        self.assertTrue(result.stdout.endswith(b"</html>\n"))

    def test_help_does_not_list_json(self):
        self.assertNotIn(b"--json", report(self.folder, "--help").stdout)

    def test_bad_options_are_misuse(self):
        for words in ([self.page, "--seconds", "-1"], [self.page, "--seconds", "601"], [self.page, "--timeout", "0"],
                      [self.page, "--json"], [], [self.page, "another"]):
            self.assertEqual(report(self.folder, *words).returncode, 2, words)
        self.assertFalse(os.path.exists(self.page))


class Contents(WithFolder):
    def test_of_a_system_without_drivers_say_so(self):
        text = self.report()
        self.assertIn("No driver is in the registry.", text)
        self.assertIn("Nothing is published.", text)
        self.assertIn("The parameter tree is empty.", text)

    def test_of_a_system_have_each_part(self):
        page, result = report_pages.moving_report(self.folder)
        self.assertEqual(result.returncode, 0, text_of(result))
        html = contents(page)
        for part in ("findings", "drivers", "figures", "motion", "status", "wire", "timings", "parameters", "log",
                     "versions"):
            self.assertIn(f'<section id="{part}">', html)
        self.assertIn("absolute to 30.00 °", html)
        self.assertIn("kind=absolute pan=30.00° speed=100 %", html)
        self.assertIn("sim-driver:1: latency of its replies", html)
        self.assertRegex(html, r"<dt>kernel</dt>\s*<dd>Linux \d")
        self.expect_valid(page)

    def test_of_one_driver_leave_out_the_others(self):
        with Driver(self.folder), Driver(self.folder, instance=2):
            text = self.report("--driver", "sim-driver:2")
            by_socket = self.report("--socket", os.path.join(self.folder, "socket2"))
        self.assertIn("1 driver,", text)
        self.assertNotIn("sim-driver:1", text)
        self.assertNotIn("sim-driver:1", by_socket)
        self.assertIn("sim-driver:2: latency", by_socket)

    def test_of_a_driver_that_does_not_run_say_so(self):
        text = self.report("--driver", "nothing")
        self.assertRegex(text, "fault: .*nothing")

    def test_hide_values_of_secrets_unless_full(self):
        for name in ("Head.H1.Password", "ApiKey", "Cloud.TOKEN", "SecretThing.Value"):
            report_pages.run([report_pages.PTZCTL, "param", "set", "PTZ." + name, "hunter2"], self.folder)
        report_pages.run([report_pages.PTZCTL, "param", "set", "PTZ.Plain", "visible"], self.folder)
        text = self.report()
        self.assertNotIn("hunter2", text)
        self.assertEqual(text.count("(hidden)"), 4)
        self.assertRegex(text, r"root.PTZ.Plain +visible")
        self.assertEqual(self.report("--full").count("hunter2"), 4)

    def test_have_the_lines_of_the_journal(self):
        extra = report_pages.journal(self.folder, 'echo "asked for $*"\n')
        with Driver(self.folder) as driver:
            self.assertRegex(self.report(extra=extra), f"asked for .*_PID={driver.process.pid}\n")

    def test_say_when_the_journal_fails(self):
        extra = report_pages.journal(self.folder, "echo no such thing >&2\nexit 1\n")
        with Driver(self.folder):
            self.assertIn("The journal could not be read:\n", self.report(extra=extra))


class Troubles(WithFolder):
    def test_stopped_driver_costs_its_own_parts_only(self):
        with Driver(self.folder), Driver(self.folder, instance=2) as stopped:
            stopped.process.send_signal(signal.SIGSTOP)
            start = time.monotonic()
            text = self.report("--timeout", "300")
            took = time.monotonic() - start
            stopped.process.send_signal(signal.SIGCONT)
        self.assertRegex(text, r"fault: sim-driver:2: Process \d+ is stopped")
        self.assertIn("sim-driver:2 gave no figures: ", text)
        self.assertRegex(text, r"\n  sim-driver:1 +0\.1\.0")
        self.assertLess(took, 30)

    def test_stopped_drivers_share_one_timeout(self):
        with contextlib.ExitStack() as stack:
            drivers = [stack.enter_context(Driver(self.folder, instance=i)) for i in range(1, 6)]
            for driver in drivers:
                driver.process.send_signal(signal.SIGSTOP)
            start = time.monotonic()
            text = self.report("--timeout", "1500")
            took = time.monotonic() - start
        self.assertEqual(text.count(" gave no figures: "), 5)
        self.assertLess(took, 5)

    def test_dead_driver_is_told(self):
        with Driver(self.folder) as driver:
            driver.process.kill()
            driver.process.wait()
            text = self.report()
        self.assertRegex(text, r"sim-driver +1  dead +dead ")
        self.assertIn("sim-driver:1 gave no figures: the driver is dead", text)

    def test_journal_that_hangs_is_given_up(self):
        extra = report_pages.journal(self.folder, "exec sleep 100\n")
        start = time.monotonic()
        with Driver(self.folder):
            text = self.report("--timeout", "200", extra=extra)
        self.assertIn("The journal did not answer within 200 ms.", text)
        self.assertLess(time.monotonic() - start, 50)

    def test_damaged_parameters_are_left_as_they_are(self):
        tree = os.path.join(self.folder, "params.db")
        with open(tree, "wb") as file:
            file.write(b"x" * 5000)
        self.assertIn("The tree is damaged and was not opened.", self.report())
        self.assertEqual(contents(tree), "x" * 5000)
        self.assertEqual(os.listdir(self.folder), ["params.db"])

    def test_markup_and_controls_stay_text(self):
        page, result = report_pages.hostile_report(self.folder)
        self.assertEqual(result.returncode, 0, text_of(result))
        with open(page, "rb") as file:
            html = file.read()
        html.decode()
        self.assertNotRegex(html, rb"[\x00-\x09\x0b-\x1f\x7f]")
        self.assertNotIn("\u202e".encode(), html)
        self.assertNotRegex(html, rb"<(script|b|i)\b")
        shown = b"&lt;script&gt;alert(1)&lt;/script&gt;&#39;&quot;&amp;amp;&lt;b&gt;"
        pattern = re.escape(shown)
        self.assertIn(b"Nov 22 " + shown + rb"\x1b[31m\xff\xc3(\u202e", html)  # the log
        self.assertRegex(html, rb'(?s)<section id="drivers">.*' + pattern + b".*</section>")
        self.assertRegex(html, rb'(?s)<section id="parameters">.*' + pattern + b".*</section>")
        self.assertRegex(html, rb'(?s)<section id="wire">.*&lt;script&gt;.*<section id="timings">')
        self.assertNotIn(b"hunter2", html)
        self.expect_valid(page)


class CompliancePage(WithFolder):
    def test_has_the_verdicts_beside_the_text_on_the_terminal(self):
        page, result = report_pages.compliance_page(self.folder, "--only", "move.*", "--only", "framing.empty-body")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stdout.decode(), r"\nfailed +move\.absolute-arrives: ")
        html = contents(page)
        self.assertRegex(html, r'(?s)id="failed".*move.absolute-arrives: an axis.*is idle at.*client 1 sent')
        self.assertRegex(html, r'(?s)id="passed".*framing.empty-body')
        self.assertIn("move.absolute-arrives (failed): pan", html)
        self.expect_valid(page)

    def test_goes_with_json(self):
        page, result = report_pages.compliance_page(self.folder, "--only", "move.home", "--json", fault="none")
        self.assertEqual(result.returncode, 0)
        self.assertTrue(result.stdout.startswith(b"{"))
        self.assertIn("<!DOCTYPE html>", contents(page))

    def test_tells_overshoot_and_time_to_rest(self):
        page, _ = report_pages.compliance_page(self.folder, "--only", "move.absolute-arrives")
        row = re.search(r"(?s)<td [^>]*>move.absolute-arrives</td>(.*?)</tr>", contents(page)).group(1)
        cells = re.findall(r"<td class=\"([^\"]*)\"[^>]*>([^<]*)</td>", row)
        self.assertEqual(cells[5], ("number warning", "0.07 °"))
        self.assertRegex(cells[6][1], r"^[\d.]+ m?s$")

    def test_of_a_bad_path_is_told_before_the_driver_is_started(self):
        result = report_pages.run([report_pages.PTZ_COMPLIANCE, "--html", self.folder, "--", "false", "{socket}"], self.folder)
        self.assertEqual(result.returncode, 2)
        self.assertIn("it is no regular file", text_of(result))

    def test_replaces_the_page_of_the_last_run(self):
        for _ in range(2):
            page, result = report_pages.compliance_page(self.folder, "--only", "socket.permissions", fault="none")
            self.assertEqual(result.returncode, 0, text_of(result))
        self.assertEqual(contents(page).count("<!DOCTYPE html>"), 1)


if __name__ == "__main__":
    unittest.main(verbosity=2)
