#!/usr/bin/env python3
"""Tests that no layer of the house knows of a later one.

usage: test_layers.py <top of the tree> <folder of the layers' descriptions>

The build writes a description of each layer: the layers that it stands on, its files, and the
folders in which its includes are looked for. The compiler keeps the rule for most files; for
those that share a folder with a later layer's it finds any header, so includes are read, too.
"""

import json
import pathlib
import re
import sys
import tempfile
import unittest

INCLUDE = re.compile(r'^\s*#\s*include\s*["<]([^">]+)[">]', re.MULTILINE)
# The tool that builds lines is for the renderer; others may ask it about characters.
LINE_MAKING = re.compile(r"\bHostLine(?!::(?:onOneLine|breaksLine)\b|\.h\b)")
# These get their options handed, so that two runs in one process can differ in theirs.
NOT_ASKING = ("net", "discovery", "engine", "webkit", "engines", "transfer", "streams",
              "media", "dash", "hls", "adobedownloader", "run")
# What a layer that a build may leave out consists of.
LEFT_OUT = {"webkit": ("src/engine/webkit/*", "src/FlashVersion.*", "src/NetworkReplyProxy.*",
                       "src/QWebPageProxy.*")}
ASKING = re.compile(r"\bCVideoPreference::instance\b")


class House:
    """The layers as the build describes them."""

    def __init__(self, folder):
        self.on, self.files, self.folders = {}, {}, {}
        for path in sorted(pathlib.Path(folder).glob("*.json")):
            layer = json.loads(path.read_text())
            lists = {key: list(filter(None, value.split(";"))) for key, value in layer.items()}
            self.on[path.stem] = lists["on"]
            self.folders[path.stem] = [pathlib.Path(folder) for folder in lists["folders"]]
            self.files[path.stem] = [pathlib.Path(layer["home"], file) for file in lists["files"]
                                     if file.endswith((".h", ".cpp"))
                                     and "_autogen/" not in file]

    def layer_of_header(self):
        return {file.name: layer for layer, files in self.files.items()
                for file in files if file.suffix == ".h"}

    def below(self, layer, path=()):
        """The layer and all that it stands on. A circle is an error."""
        if layer in path:
            raise ValueError("layers stand on each other: " + " on ".join((*path, layer)))
        return {layer}.union(*(self.below(lower, (*path, layer)) for lower in self.on[layer]))

    def forbidden_includes(self):
        """Includes, by line, of headers that the file's layer does not stand on."""
        home = self.layer_of_header()
        return [f"{file}: {header} belongs to {home[header]}, above {layer}"
                for layer, files in self.files.items() for file in files
                for header in INCLUDE.findall(file.read_text())
                if header in home and home[header] not in self.below(layer)]

    def asking(self, layers):
        """Files of the layers that look options up."""
        return [file for layer in layers for file in self.files.get(layer, ())
                if ASKING.search(file.read_text())]

    def visible_headers(self):
        """Headers that the compiler would find for a layer that does not stand on theirs."""
        home = self.layer_of_header()
        return [f"{layer} sees {folder / header} of {home[header]}"
                for layer, folders in self.folders.items() for folder in folders
                for header in home
                if home[header] not in self.below(layer) and (folder / header).exists()]


class TheHouse(unittest.TestCase):
    top = house = None

    def sources(self, *patterns):
        return sorted(file for pattern in patterns for file in self.top.glob(pattern)
                      if file.suffix in (".h", ".cpp"))

    def test_includes_point_downwards(self):
        self.assertEqual(self.house.forbidden_includes(), [])

    def test_the_compiler_finds_no_header_of_a_later_layer(self):
        self.assertEqual(self.house.visible_headers(), [])

    def test_every_source_has_a_layer(self):
        apart = {self.top / name for name in ("src/main.cpp", "src/container/module.cpp",
                                              "src/get/main.cpp", "src/run/program.h",
                                              "src/run/program.cpp")}
        homed = {file for files in self.house.files.values() for file in files}
        for layer, patterns in LEFT_OUT.items():
            if layer not in self.house.files:
                homed.update(self.sources(*patterns))
        found = set(self.sources("src/**/*", "AdobeDownloader/src/**/*"))
        self.assertEqual(found - homed, apart)

    def test_headers_differ_in_their_names(self):
        headers = [file.name for files in self.house.files.values() for file in files
                   if file.suffix == ".h"]
        self.assertEqual(len(headers), len(set(headers)))

    def test_lower_layers_ask_for_no_options(self):
        self.assertEqual(self.house.asking(NOT_ASKING), [])

    def test_only_the_renderer_makes_lines(self):
        makers = [file for file in self.sources("src/**/*", "AdobeDownloader/src/**/*")
                  if file.parent.name != "host" and LINE_MAKING.search(file.read_text())]
        self.assertEqual(makers, [])


class TheTestItself(unittest.TestCase):
    """Finds what it shall find, in a house of two layers."""

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.path = pathlib.Path(self.folder.name)

    def layer(self, name, on="", text="", folders=()):
        file = self.path / name / f"{name}.h"
        file.parent.mkdir()
        file.write_text(text)
        (self.path / f"{name}.json").write_text(json.dumps({
            "on": on, "home": str(self.path), "files": str(file),
            "folders": ";".join(str(self.path / folder) for folder in (name, *folders))}))

    def test_downwards(self):
        self.layer("lower")
        self.layer("upper", on="lower", text='#include "lower.h"\n', folders=["lower"])
        self.assertEqual(House(self.path).forbidden_includes(), [])
        self.assertEqual(House(self.path).visible_headers(), [])

    def test_upwards(self):
        self.layer("lower", text='#pragma once\n#  include "upper.h"\n')
        self.layer("upper", on="lower")
        self.assertEqual(len(House(self.path).forbidden_includes()), 1)
        self.assertEqual(House(self.path).visible_headers(), [])

    def test_visible(self):
        self.layer("lower", folders=["upper"])
        self.layer("upper", on="lower")
        self.assertEqual(House(self.path).forbidden_includes(), [])
        self.assertEqual(len(House(self.path).visible_headers()), 1)

    def test_asking(self):
        self.layer("lower", text="CVideoPreference::instance()->GetLog();\n")
        self.layer("upper", text="CVideoPreference::AnyFormat;\n")
        self.assertEqual(len(House(self.path).asking(["lower", "upper"])), 1)

    def test_circle(self):
        self.layer("lower", on="upper")
        self.layer("upper", on="lower")
        with self.assertRaises(ValueError):
            House(self.path).below("lower")

    def test_line_making(self):
        for text in ('HostLine::sendText(a)', 'HostLine().text(a)', "HostLine line;"):
            self.assertTrue(LINE_MAKING.search(text), text)
        for text in ('#include "HostLine.h"', "HostLine::onOneLine(a)", "HostLine::breaksLine"):
            self.assertFalse(LINE_MAKING.search(text), text)


if __name__ == "__main__":
    TheHouse.top = pathlib.Path(sys.argv[1])
    TheHouse.house = House(sys.argv[2])
    unittest.main(argv=sys.argv[:1])
