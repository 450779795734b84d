import unittest
from pathlib import Path

from clipweir_fleet.settings import Settings, SettingsError


class SettingsTest(unittest.TestCase):
    def test_nothing_set_gives_the_defaults(self) -> None:
        self.assertEqual(Settings.from_environment({}), Settings())

    def test_every_type_is_read(self) -> None:
        settings = Settings.from_environment(
            {
                "CLIPWEIR_FLEET_STORE": "/srv/videos",
                "CLIPWEIR_FLEET_SLOTS": "7",
                "CLIPWEIR_FLEET_LEASE": "20.5",
                "CLIPWEIR_FLEET_PREFIX": "other:",
                "CLIPWEIR_OTHER": "x",
            }
        )
        self.assertEqual(settings, Settings(store=Path("/srv/videos"), slots=7, lease=20.5, prefix="other:"))

    def test_values_of_no_use_are_refused_by_name(self) -> None:
        for name, value in (("SLOTS", "many"), ("SLOTS", "0"), ("HOST_LIMIT", "-1"), ("DEADLINE", "0")):
            with self.subTest(name=name), self.assertRaisesRegex(SettingsError, "CLIPWEIR_FLEET_" + name):
                Settings.from_environment({"CLIPWEIR_FLEET_" + name: value})

    def test_a_lease_outlasts_its_beats(self) -> None:
        with self.assertRaises(SettingsError):
            Settings(lease=5, beat=2)


if __name__ == "__main__":
    unittest.main()
