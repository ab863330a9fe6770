"""The README's listings as they stand, each a program whose output is the text below it."""

import os
import re
import subprocess
import sys
import unittest

from .system import PATIENCE, SOURCE, System

LISTING = re.compile(r"^```python\n(.*?)^```\n\n```text\n(.*?)^```$", re.MULTILINE | re.DOTALL)


class Readme(unittest.TestCase):
    def test_listings_print_what_it_says(self):
        folder = SOURCE / "bindings/python"
        page = (folder / "README.md").read_text()
        listings = LISTING.findall(page)
        self.assertEqual(len(listings), page.count("```python"), "a listing without its text")
        self.assertGreaterEqual(len(listings), 3)
        with System() as system:
            system.start_router()
            system.start_ports()
            environment = {**os.environ, "TAVRIX_SESSION": system.session, "PYTHONPATH": str(folder)}
            for program, text in listings:
                finished = subprocess.run(
                    [sys.executable, "-c", program], env=environment, capture_output=True, text=True, timeout=PATIENCE
                )
                self.assertEqual((finished.stdout, finished.returncode), (text, 0), finished.stderr)


if __name__ == "__main__":
    unittest.main()
