"""The system under test: router and ports service of a build, on private paths.

Their programs are named by TAVRIX_ROUTERD and TAVRIX_PORTSD; TAVRIX_EMULATOR runs those of another machine.
"""

import os
import pathlib
import sqlite3
import subprocess
import tempfile
import time

SOURCE = pathlib.Path(__file__).resolve().parents[3]
PATIENCE = 60.0  # for whatever happens at once unless the machine is busy with other things


class System:
    def __init__(self):
        self._folder = tempfile.TemporaryDirectory()
        self.folder = pathlib.Path(self._folder.name)
        self.session = str(self.folder / "session.sock")
        self._daemons = []
        levels = "".join(f"{name}=info\n" for name in ("routerd", "portsd", "eventsd"))
        (self.folder / "tavrix_lsyslog.conf").write_text("[logging_levels]\n" + levels)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for daemon in reversed(self._daemons):
            daemon.kill()
            daemon.wait()
        self._folder.cleanup()

    def start_router(self, *more):
        bus = f"ipc://{self.folder}/bus/router"
        words = ("--socket", "router.sock", "--session", "session.sock", "--publish", bus, *more)
        return self._start("TAVRIX_ROUTERD", "routerd", *words)

    def start_ports(self):
        with sqlite3.connect(self.folder / "fleet.db") as database:
            for name in ("schema.sql", "fleet.sql"):
                database.executescript((SOURCE / "daemons/ports" / name).read_text())
        database.close()
        return self._start("TAVRIX_PORTSD", "portsd", "--session", "session.sock", "--database", "fleet.db")

    def _start(self, program, name, *words):
        command = [*os.environ.get("TAVRIX_EMULATOR", "").split(), os.environ[program], *words]
        with (self.folder / f"{name}.log").open("wb") as log:
            daemon = subprocess.Popen(command, cwd=self.folder, stderr=log)
        self._daemons.append(daemon)
        wait_until(lambda: f"{name} ready" in self.log(name) or daemon.poll() is not None)
        if daemon.poll() is not None:
            raise RuntimeError(f"{name} does not start: {self.log(name)}")
        return daemon

    def log(self, name):
        return (self.folder / f"{name}.log").read_text(errors="replace")


def wait_until(condition):
    end = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("what was waited for did not come")
        time.sleep(0.01)
