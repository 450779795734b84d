import os
import re
import unittest
from pathlib import Path

import support
from clipweir_fleet.classes import CLASS_OF_CODE, RETRIED, Verdict, class_of_exit, pause_before, verdict_of

SOURCE = Path(os.environ.get("CLIPWEIR_SOURCE", support.FLEET.parent))


class ClassesTest(unittest.TestCase):
    def test_the_codes_are_those_of_the_host_guide(self) -> None:
        guide = (SOURCE / "docs" / "host-guide.md").read_text(encoding="utf-8")
        rows = re.findall(r"^\| `(\w+)` \| (\d+) \|", guide, re.MULTILINE)
        self.assertEqual({int(code): name for name, code in rows}, CLASS_OF_CODE)

    def test_what_may_pass_is_tried_again_and_nothing_else(self) -> None:
        for name in ("brokenOff", "pageUnreached", "engineLost", "disk", "busy"):
            self.assertIs(verdict_of(name), Verdict.RETRY, name)
        for name in ("refused", "protected", "nothingFound", "unsupported", "deadline", "noSuchClass"):
            self.assertIs(verdict_of(name), Verdict.FAILED, name)
        self.assertIs(verdict_of("complete"), Verdict.DONE)
        self.assertLessEqual(RETRIED, set(CLASS_OF_CODE.values()))

    def test_a_run_without_a_result_is_known_by_its_code(self) -> None:
        self.assertEqual(class_of_exit(13), "noOutputFolder")
        for code in (-9, -6, 1, 0, 255):
            self.assertEqual(class_of_exit(code), "engineLost", code)

    def test_pauses_grow_up_to_their_limit(self) -> None:
        self.assertEqual([pause_before(n, 15, 100) for n in (1, 2, 3, 4, 5)], [15, 30, 60, 100, 100])
        self.assertEqual(pause_before(10**6, 15, 100), 100)


if __name__ == "__main__":
    unittest.main()
