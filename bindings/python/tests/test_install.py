"""The package as pip installs it from the folder, without the network."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

from .system import PATIENCE, SOURCE


class Install(unittest.TestCase):
    def test_from_the_folder_needs_no_network(self):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            copy = folder / "python"  # setuptools writes beside what it builds
            shutil.copytree(SOURCE / "bindings/python", copy)
            pip = [sys.executable, "-m", "pip", "install", "--quiet", "--no-build-isolation", "--no-index", "--no-deps"]
            environment = {**os.environ, "PIP_ROOT_USER_ACTION": "ignore", "PIP_NO_CACHE_DIR": "1"}
            environment.pop("PYTHONPATH", None)
            finished = subprocess.run(
                [*pip, "--target", str(folder / "installed"), str(copy)],
                env=environment,
                capture_output=True,
                text=True,
                timeout=5 * PATIENCE,
            )
            self.assertEqual(finished.returncode, 0, finished.stderr)
            program = "import tavrix, sys; print(tavrix.__file__); print(*tavrix.__all__)"
            environment["PYTHONPATH"] = str(folder / "installed")
            said = subprocess.check_output([sys.executable, "-c", program], env=environment, cwd=folder, text=True)
            place, offered = said.splitlines()
            self.assertEqual(place, str(folder / "installed/tavrix/__init__.py"))
            self.assertIn("AsyncSession", offered)
            self.assertTrue((folder / "installed/tavrix/py.typed").exists())
            self.assertFalse((folder / "installed/tests").exists())


if __name__ == "__main__":
    unittest.main()
