"""``python3 -m clipweir_fleet`` is the command of the package."""

import sys

from clipweir_fleet.cli import main

sys.exit(main())
