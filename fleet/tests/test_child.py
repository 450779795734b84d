import signal
import sys
import tempfile
import unittest
from pathlib import Path

from clipweir_fleet.child import MAX_LINE, READ_BYTES, Child, EventLines, last_result


class EventLinesTest(unittest.TestCase):
    def test_events_come_whole_however_they_are_cut(self) -> None:
        text = b'{"event":"page"}\n{"event":"progress","done":1}\n'
        for cut in range(len(text) + 1):
            lines = EventLines()
            events = lines.feed(text[:cut]) + lines.feed(text[cut:])
            self.assertEqual([e["event"] for e in events], ["page", "progress"], cut)

    def test_what_is_no_event_is_left_out(self) -> None:
        for line in (b"", b"x", b"[]", b"1", b'"a"', b"\xff\xfe", b"{", b"[" * 100000):
            events = EventLines().feed(line + b'\n{"event":"page"}\n')
            self.assertEqual(events, [{"event": "page"}], line[:10])

    def test_a_line_too_long_is_skipped_and_takes_no_memory(self) -> None:
        lines = EventLines()
        for _ in range(3 * MAX_LINE // 65536):
            self.assertEqual(lines.feed(b"x" * 65536), [])
            self.assertLessEqual(len(lines._rest), MAX_LINE)
        self.assertEqual(lines.feed(b'\n{"event":"page"}\n'), [{"event": "page"}])


class ChildTest(unittest.TestCase):
    def setUp(self) -> None:
        self.record = Path(self.enterContext(tempfile.TemporaryDirectory())) / "run.events"

    def child(self, code: str) -> Child:
        return Child([sys.executable, "-c", code], "/", self.record)

    def events(self, child: Child) -> list[object]:
        events: list[object] = []
        while not child.at_end:
            events += child.read(10)
        return events

    def test_its_events_and_its_code_are_seen(self) -> None:
        child = self.child("print('{\"event\": 1}'); import sys; sys.exit(33)")
        self.assertEqual(self.events(child), [{"event": 1}])
        self.assertEqual(child.close(), 33)

    def test_reading_waits_no_longer_than_it_may(self) -> None:
        child = self.child("import time; time.sleep(60)")
        self.assertEqual(child.read(0.01), [])
        self.assertFalse(child.at_end)
        child.kill()
        self.assertEqual(self.events(child), [])
        self.assertEqual(child.close(), -signal.SIGKILL)

    def test_it_is_asked_to_stop_in_order(self) -> None:
        child = self.child(
            "import signal, sys, time; signal.signal(signal.SIGTERM, lambda *_: sys.exit(40));"
            "print('{}', flush=True); time.sleep(60)"
        )
        while not child.read(10):
            pass
        child.ask_to_stop()
        self.events(child)
        self.assertEqual(child.close(), 40)

    def test_all_that_it_told_is_read_after_its_end(self) -> None:
        count = 3 * READ_BYTES // 8
        child = self.child(f"print('{{}}\\n' * {count}, end='')")
        self.assertEqual(len(self.events(child)), count)
        child.close()

    def test_its_record_is_its_own(self) -> None:
        wait = "import sys, time; time.sleep(60)"
        first = self.child(f"print('{{}}', flush=True); {wait}")
        while not first.read(0.01):
            pass
        second = self.child("print('{\"event\": 2}')")
        self.assertEqual(self.events(second), [{"event": 2}])
        first.kill()
        self.assertEqual(self.events(first), [])
        first.close()
        second.close()

    def test_the_result_of_an_earlier_run_is_in_its_record(self) -> None:
        self.assertIsNone(last_result(self.record))
        for text, result in (
            ("", None),
            ('{"event":"page"}\n', None),
            ('{"event":"result","class":"disk"}\n', {"event": "result", "class": "disk"}),
            ('{"event":"result","class":"disk"}', None),  # it was cut off
            ("x" * 2 * READ_BYTES + '\n{"event":"result"}\n', {"event": "result"}),
        ):
            self.record.write_text(text)
            self.assertEqual(last_result(self.record), result, text[:40])

    def test_a_signal_to_one_that_has_ended_goes_nowhere(self) -> None:
        child = self.child("")
        self.events(child)
        child.close()
        child.ask_to_stop()
        child.kill()

    def test_a_program_that_is_not_there_is_an_error(self) -> None:
        with self.assertRaises(OSError):
            Child(["/nonexistent/program"], "/", self.record)


if __name__ == "__main__":
    unittest.main()
