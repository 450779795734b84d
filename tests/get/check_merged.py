#!/usr/bin/env python3
"""Checks that standard input holds events of the command as the schema has them, one a line.

usage: check_merged.py schema < events
"""

import json
import sys

import jsonschema

with open(sys.argv[1], encoding="utf-8") as file:
    schema = json.load(file)
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
lines = sys.stdin.buffer.read().split(b"\n")
found = [f"{error.message}: {line!r}" for line in lines[:-1] for error in validator.iter_errors(json.loads(line))]
if lines[-1] or len(lines) < 2:
    found.append("there is no last line")
print("\n".join(found))
sys.exit(1 if found else 0)
