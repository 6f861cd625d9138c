"""--audit-log: every write a client attempts, kept line by line in a file of
its own, while the daemon's log summarises repeated writes."""
import os
import re
import shutil
import tempfile
import unittest

from harness import Daemon, poll_until, running_ups
from test_logging import string_registers

LABEL = 60  # config.label, an 8-register string kept in a channel
RECORD = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ write ")


class AuditTrailTest(unittest.TestCase):
    """--audit-log keeps every write, where the log summarises."""

    def setUp(self):
        self.directory = tempfile.TemporaryDirectory(prefix="tarsel-audit-")
        self.trail = os.path.join(self.directory.name, "audit.log")
        self.daemon = None
        self.client = None

    def start(self, *args):
        self.daemon = Daemon(None, running_ups(), args=["--audit-log", self.trail, *args])
        self.client = self.daemon.client()

    def tearDown(self):
        if self.client is not None:
            self.client.close()
        if self.daemon is not None and self.daemon.alive():
            self.daemon.stop()
        self.directory.cleanup()

    def write_label(self, text):
        return self.client.write_registers(LABEL, string_registers(text, 8), slave=1)

    def lines_of(self, path):
        with open(path, "rb") as trail:
            return trail.read().decode("utf-8").split("\n")[:-1]

    def test_every_write_is_in_the_audit_trail_while_the_log_summarises_them(self):
        self.start()
        for i in range(50):
            response = self.write_label(b"Label %d" % i)
            self.assertFalse(response.isError(), "write %d: %s" % (i, response))
        _, log = self.daemon.stop()
        with open(self.trail, encoding="utf-8") as trail:
            lines = trail.read().splitlines()
        written = [l for l in lines
                   if ' "config.label" holding-registers 60: ' in l and ": written; " in l]
        self.assertEqual(len(written), 50, "\n".join(lines))
        self.assertIn('-> "Label 49": written; client=127.0.0.1:', written[-1])
        self.assertRegex(written[0], RECORD)
        in_log = [l for l in log.splitlines() if ' "config.label" holding-registers 60: ' in l]
        self.assertLessEqual(len(in_log), 10)

    def test_writes_refused_before_the_map_is_consulted_are_each_in_the_trail(self):
        self.start("--allow-write", "127.0.0.2")
        for i in range(20):
            response = self.write_label(b"Label %d" % i)
            self.assertTrue(response.isError())
            self.assertEqual(response.exception_code, 1)
        _, log = self.daemon.stop()
        lines = self.lines_of(self.trail)
        self.assertEqual(len(lines), 20, "\n".join(lines))
        for line in lines:
            self.assertRegex(line, RECORD)
            self.assertIn(" write to holding-registers 60: refused (not allowed for this client); "
                          "client=127.0.0.1:", line)
        self.assertLessEqual(log.count("write to holding-registers 60: refused"), 11, log)

    def test_writes_rejected_before_any_entry_is_asked_are_each_in_the_trail(self):
        # What a scan of the address space sends: writes where no entry is.
        self.start()
        for address in range(9000, 9020):
            response = self.client.write_register(address, 1, slave=1)
            self.assertTrue(response.isError())
            self.assertEqual(response.exception_code, 2)
        _, log = self.daemon.stop()
        lines = self.lines_of(self.trail)
        self.assertEqual(len(lines), 20, "\n".join(lines))
        for address, line in zip(range(9000, 9020), lines):
            self.assertRegex(line, RECORD)
            self.assertIn(" write to holding-registers %d: rejected (no whole entries at those "
                          "addresses): answered 0x02; client=127.0.0.1:" % address, line)
        self.assertLessEqual(log.count("rejected (no whole entries at those addresses)"), 11, log)

    def test_a_string_a_client_writes_cannot_forge_a_second_record(self):
        self.start()
        forged = b"\nZ write\xe2\x80\xa8\xc2\x85"  # 13 of the label's 16 bytes
        self.assertFalse(self.write_label(forged).isError())
        self.daemon.stop()
        lines = self.lines_of(self.trail)
        self.assertEqual(len(lines), 1, lines)
        # Line separators of Unicode too: readers that split on them see one record.
        self.assertEqual(len("\n".join(lines).splitlines()), 1, lines)
        self.assertIn('-> "\\nZ write\\xE2\\x80\\xA8\\xC2\\x85": written', lines[0])

    def test_a_trail_rotated_by_renaming_it_is_created_afresh_for_the_next_write(self):
        self.start()
        self.assertFalse(self.write_label(b"Before").isError())
        os.rename(self.trail, self.trail + ".1")
        self.assertFalse(self.write_label(b"After").isError())
        self.assertTrue(self.daemon.wait_for_log("was moved or removed; recording in a new one"))
        self.daemon.stop()
        rotated = self.lines_of(self.trail + ".1")
        self.assertEqual(len(rotated), 1, rotated)
        self.assertIn('-> "Before": written', rotated[0])
        current = self.lines_of(self.trail)
        self.assertEqual(len(current), 1, current)
        self.assertIn('-> "After": written', current[0])

    def test_a_trail_rotated_by_copying_and_truncating_it_goes_on_from_its_new_start(self):
        self.start()
        self.assertFalse(self.write_label(b"Before").isError())
        shutil.copyfile(self.trail, self.trail + ".1")
        os.truncate(self.trail, 0)
        self.assertFalse(self.write_label(b"After").isError())
        self.daemon.stop()
        current = self.lines_of(self.trail)
        self.assertEqual(len(current), 1, current)
        self.assertRegex(current[0], RECORD)  # no hole of NUL bytes before it
        self.assertIn('-> "After": written', current[0])

    def test_a_trail_removed_is_created_afresh_for_the_next_write(self):
        self.start()
        self.assertFalse(self.write_label(b"Before").isError())
        os.remove(self.trail)
        self.assertFalse(self.write_label(b"After").isError())
        self.assertTrue(poll_until(lambda: os.path.exists(self.trail)))
        self.daemon.stop()
        current = self.lines_of(self.trail)
        self.assertEqual(len(current), 1, current)
        self.assertIn('-> "After": written', current[0])


if __name__ == "__main__":
    unittest.main()
