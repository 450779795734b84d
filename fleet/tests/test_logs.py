import json
import logging
import sys
import unittest

from clipweir_fleet.logs import JsonFormatter


class LogsTest(unittest.TestCase):
    def line(self, message: str, **extra: object) -> dict[str, object]:
        record = logging.LogRecord("fleet", logging.INFO, "f", 1, message, (), None)
        vars(record).update(extra)
        text = JsonFormatter().format(record)
        self.assertNotIn("\n", text)
        return json.loads(text)

    def test_a_line_names_its_page(self) -> None:
        line = self.line("a run begins", page="k", seconds=1.5)
        self.assertEqual((line["message"], line["page"], line["seconds"]), ("a run begins", "k", 1.5))
        self.assertEqual(line["level"], "info")
        self.assertRegex(str(line["time"]), r"^\d{4}-\d\d-\d\dT.*\+00:00$")

    def test_a_line_stays_one(self) -> None:
        self.assertEqual(self.line('two\nlines "quoted"')["message"], 'two\nlines "quoted"')

    def test_an_exception_is_told(self) -> None:
        try:
            raise ValueError("why")
        except ValueError:
            self.assertIn("ValueError: why", str(self.line("x", exc_info=sys.exc_info())["exception"]))


if __name__ == "__main__":
    unittest.main()
