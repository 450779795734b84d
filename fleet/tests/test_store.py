import hashlib
import json
import tempfile
import unittest
from pathlib import Path

from clipweir_fleet.store import RESULT, VIDEO, Store, StoreError


class StoreTest(unittest.TestCase):
    def setUp(self) -> None:
        self.root = Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.store = Store(self.root)
        self.store.prepare()
        self.store.prepare()

    def work(self, content: bytes) -> Path:
        folder = self.store.work_folder("k")
        self.store.video_path("k").write_bytes(content)
        return folder

    def test_what_an_earlier_run_left_is_there(self) -> None:
        (self.store.work_folder("k") / "video.mp4.part").write_bytes(b"half")
        self.assertEqual((self.store.work_folder("k") / "video.mp4.part").read_bytes(), b"half")

    def test_a_result_is_whole_or_not_there(self) -> None:
        self.assertIsNone(self.store.result("k"))
        folder = self.work(b"video")
        self.store.record_path("k").write_text("{}")
        result = self.store.publish("k", {"bytes": 5, "class": "complete"})
        self.assertEqual(list((self.root / "work").iterdir()), [])
        self.assertEqual(Path(result["path"]).read_bytes(), b"video")
        self.assertEqual(self.store.result("k"), result)
        placed = self.root / "results" / "k"
        self.assertEqual(sorted(p.name for p in placed.iterdir()), sorted([VIDEO, RESULT]))
        # The folder may be moved: what is in it names no place.
        self.assertNotIn("path", json.loads((placed / RESULT).read_text()))

    def test_the_first_result_stays(self) -> None:
        self.work(b"first")
        first = self.store.publish("k", {"bytes": 5, "sha256": "1"})
        folder = self.work(b"other")
        self.assertEqual(self.store.publish("k", {"bytes": 5, "sha256": "2"}), first)
        self.assertEqual(Path(first["path"]).read_bytes(), b"first")
        self.assertFalse(folder.exists())

    def test_a_video_of_another_length_is_no_result(self) -> None:
        self.work(b"video")
        for told in (4, 6, None):
            with self.assertRaises(StoreError):
                self.store.publish("k", {"bytes": told})
        self.assertIsNone(self.store.result("k"))

    def test_a_video_that_is_not_there_is_an_error(self) -> None:
        self.store.work_folder("k")
        with self.assertRaises(OSError):
            self.store.publish("k", {"bytes": 0})

    def test_what_is_left_of_a_page_is_removed(self) -> None:
        folder = self.work(b"video")
        self.store.record_path("k").write_text("{}")
        self.store.drop_work("k")
        self.store.drop_work("k")
        self.assertFalse(folder.exists())
        self.assertFalse(self.store.record_path("k").exists())

    def test_what_runs_left_is_told(self) -> None:
        self.work(b"video")
        self.assertEqual(self.store.left("k"), {VIDEO: 5})

    def test_a_video_is_known_by_length_and_sum(self) -> None:
        told = {"class": "complete", "bytes": 5, "sha256": hashlib.sha256(b"video").hexdigest()}
        calls: list[int] = []

        def meanwhile() -> None:
            calls.append(1)

        self.assertFalse(self.store.has_video("k", told, meanwhile))
        self.work(b"video")
        self.assertTrue(self.store.has_video("k", told, meanwhile))
        self.assertEqual(calls, [1])
        for other in ({"class": "brokenOff"}, {"bytes": 4}, {"sha256": None}, {"sha256": "0" * 64}):
            self.assertFalse(self.store.has_video("k", {**told, **other}, meanwhile), other)
        self.store.video_path("k").write_bytes(b"other")
        self.assertFalse(self.store.has_video("k", told, meanwhile))


if __name__ == "__main__":
    unittest.main()
