"""Checks that standard input holds events as the schema has them, one a line and whole.

usage: check_events.py schema < events
"""

import json
import sys

import jsonschema


def constant(text):
    raise ValueError(f"{text} is no JSON")


def without_doubles(pairs):
    names = [name for name, _ in pairs]
    if len(names) != len(set(names)):
        raise ValueError(f"a name comes twice: {names}")
    return dict(pairs)


def problems(lines, schema):
    validator = jsonschema.Draft202012Validator(schema)
    kinds = {key[len("event-"):]: definition for key, definition in schema["$defs"].items() if key.startswith("event-")}
    elapsed = 0
    has_result = False
    for number, line in enumerate(lines, 1):
        try:
            event = json.loads(line.decode("utf-8"), parse_constant=constant, object_pairs_hook=without_doubles)
        except ValueError as error:
            yield f"line {number}: {error}: {line!r}"
            continue
        if has_result:
            yield f"line {number} follows the result: {line!r}"
        for error in validator.iter_errors(event):
            name = event.get("event") if isinstance(event, dict) else None
            part = validator.evolve(schema={**kinds[name], "$defs": schema["$defs"]}) if name in kinds else None
            reasons = [inner.message for inner in part.iter_errors(event)] if part else []
            yield f"line {number}: {reasons or error.message}: {line!r}"
        if isinstance(event, dict):
            has_result = event.get("event") == "result"
            if event.get("elapsedMs", 0) < elapsed:
                yield f"line {number} is before its time: {line!r}"
            elapsed = event.get("elapsedMs", 0)


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    content = sys.stdin.buffer.read()
    found = list(problems(content.split(b"\n")[:-1], schema))
    if content and not content.endswith(b"\n"):
        found.append("the last line has no end")
    print("\n".join(found))
    return 1 if found else 0


sys.exit(main())
