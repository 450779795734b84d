import threading
import unittest
import urllib.error
import urllib.request

from clipweir_fleet.metrics import MetricsServer, render
from redis import ConnectionError as NoServer

LINE = r'^(# (HELP|TYPE) \w+ .+|\w+(\{\w+="\w+"\})? \d+)$'


class KnownBook:
    """Answers as a book; fails when told so."""

    broken = False

    def counts(self) -> dict[str, int]:
        if self.broken:
            raise NoServer
        return {"queued": 3, "running": 1}

    def totals(self) -> dict[str, int]:
        return {"ended:complete": 5, "ended:refused": 2, "losses": 1}

    def ended_within(self, seconds: float) -> int:
        return 4


class MetricsTest(unittest.TestCase):
    def test_the_text_is_what_prometheus_reads(self) -> None:
        book = KnownBook()
        text = render(book.counts(), book.totals(), 4)
        for line in text.splitlines():
            self.assertRegex(line, LINE)
        for line in (
            'clipweir_fleet_pages{state="queued"} 3',
            'clipweir_fleet_ended_total{class="refused"} 2',
            "clipweir_fleet_losses_total 1",
            "clipweir_fleet_retries_total 0",
            "clipweir_fleet_ended_last_minute 4",
        ):
            self.assertIn(line, text.splitlines())
        self.assertTrue(text.endswith("\n"))

    def test_it_is_served(self) -> None:
        book = KnownBook()
        with MetricsServer(("127.0.0.1", 0), book) as server:  # type: ignore[arg-type]
            threading.Thread(target=server.serve_forever, daemon=True).start()
            self.addCleanup(server.shutdown)
            address = f"http://127.0.0.1:{server.server_address[1]}"
            with urllib.request.urlopen(address + "/metrics", timeout=20) as answer:
                self.assertIn("text/plain; version=0.0.4", answer.headers["Content-Type"])
                self.assertIn(b'{state="running"} 1', answer.read())
            for path, broken, code in (("/", False, 404), ("/metrics", True, 503)):
                book.broken = broken
                with self.assertRaises(urllib.error.HTTPError) as caught:
                    urllib.request.urlopen(address + path, timeout=20)
                self.assertEqual(caught.exception.code, code)
                caught.exception.close()
            server.shutdown()


if __name__ == "__main__":
    unittest.main()
