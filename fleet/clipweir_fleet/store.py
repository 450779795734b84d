"""Where pages are worked on, and where their results lie."""

from __future__ import annotations

import hashlib
import json
import os
import shutil
from collections.abc import Callable
from pathlib import Path
from typing import Any, BinaryIO

VIDEO = "video.mp4"
RESULT = "result.json"
HASH_BYTES = 1024 * 1024


class StoreError(OSError):
    """What a run says that it wrote is not what lies there."""


class Store:
    """Two folders in one file system, best one that all workers share.

    ``work/KEY`` is what a run of the page writes to, ``results/KEY`` what became of it. The one
    becomes the other by one rename: a result is there whole or not at all. ``work/KEY.events`` is
    what the last run told. Methods raise OSError.
    """

    def __init__(self, root: Path) -> None:
        self._work = root / "work"
        self._results = root / "results"

    def prepare(self) -> None:
        """Makes the folders."""
        self._work.mkdir(parents=True, exist_ok=True)
        self._results.mkdir(exist_ok=True)

    def work_folder(self, page_id: str) -> Path:
        """The folder for runs of the page, with what an earlier one left."""
        folder = self._work / page_id
        folder.mkdir(exist_ok=True)
        return folder

    def video_path(self, page_id: str) -> Path:
        """The file that a run of the page is to write."""
        return self._work / page_id / VIDEO

    def record_path(self, page_id: str) -> Path:
        """The file for what a run of the page tells."""
        return self._work / f"{page_id}.events"

    def left(self, page_id: str) -> dict[str, int]:
        """The files that runs of the page left in their folder, with their lengths."""
        with os.scandir(self._work / page_id) as entries:
            return {entry.name: entry.stat().st_size for entry in entries if entry.is_file()}

    def has_video(self, page_id: str, told: dict[str, Any], meanwhile: Callable[[], None]) -> bool:
        """Whether the video that a run of the page told of as whole lies in its folder.

        The video is read to see that; ``meanwhile`` is called after each piece.
        """
        if told.get("class") != "complete" or not told.get("sha256"):
            return False
        try:
            with open(self.video_path(page_id), "rb") as file:
                length = os.fstat(file.fileno()).st_size
                return length == told.get("bytes") and _sum(file, meanwhile) == told["sha256"]
        except FileNotFoundError:
            return False

    def result(self, page_id: str) -> dict[str, Any] | None:
        """What is known of the result that is in its place; None if there is none."""
        try:
            text = (self._results / page_id / RESULT).read_text(encoding="utf-8")
        except FileNotFoundError:
            return None
        result: dict[str, Any] = json.loads(text)
        result["path"] = str(self._results / page_id / VIDEO)
        return result

    def publish(self, page_id: str, result: dict[str, Any]) -> dict[str, Any]:
        """Moves what a run made into its place, with what is known of it, which it returns.

        A result that is there already stays. Raises StoreError if the video has another length than
        the run said.
        """
        there = self.result(page_id)
        if there is not None:
            self.drop_work(page_id)
            return there
        folder = self._work / page_id
        if (folder / VIDEO).stat().st_size != result["bytes"]:
            raise StoreError(f"{folder / VIDEO} has not the length that its run told")
        self._write(folder / RESULT, result)
        _sync(folder)
        os.rename(folder, self._results / page_id)
        _sync(self._results)
        self.drop_work(page_id)
        return {**result, "path": str(self._results / page_id / VIDEO)}

    def drop_work(self, page_id: str) -> None:
        """Removes what runs of a page left that has ended."""
        shutil.rmtree(self._work / page_id, ignore_errors=True)
        self.record_path(page_id).unlink(missing_ok=True)

    @staticmethod
    def _write(path: Path, result: dict[str, Any]) -> None:
        with open(path, "w", encoding="utf-8") as file:
            json.dump(result, file, sort_keys=True)
            file.write("\n")
            file.flush()
            os.fsync(file.fileno())


def _sum(file: BinaryIO, meanwhile: Callable[[], None]) -> str:
    digest = hashlib.sha256()
    while chunk := file.read(HASH_BYTES):
        digest.update(chunk)
        meanwhile()
    return digest.hexdigest()


def _sync(folder: Path) -> None:
    descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)
