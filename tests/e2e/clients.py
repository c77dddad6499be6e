"""The client libraries of the build, installed for one test: programs are compiled with them as
their users do."""
import os
import pathlib
import subprocess

from harness import BUILD, ROOT


class Clients:
    EXAMPLES = ROOT / "clients/examples"

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        for component in ("library", "development", "python"):
            subprocess.run(["cmake", "--install", str(BUILD), "--prefix", str(self.folder),
                            "--component", component], check=True, stdout=subprocess.DEVNULL)
        settings = next(self.folder.glob("**/pkgconfig"))
        self.environment = {**os.environ, "PKG_CONFIG_PATH": str(settings),
                            "LD_LIBRARY_PATH": str(settings.parent),
                            "PYTHONPATH": str(self.folder / "lib/python3/dist-packages"),
                            "PYTHONDONTWRITEBYTECODE": "yes",
                            "PATH": f"{BUILD}/tools:{os.environ['PATH']}"}

    def shell(self, command, folder):
        """Runs a line of the documents in `folder`, which must succeed and complain of nothing."""
        done = subprocess.run(["/bin/sh", "-ec", command], cwd=folder, env=self.environment,
                              capture_output=True, text=True, timeout=60)
        if done.returncode != 0 or done.stderr:
            raise AssertionError(f"{command}\nended with {done.returncode}:\n{done.stderr}")
        return done.stdout

    def compiled(self, name):
        """The path of a program of the examples."""
        compiler = "cc -std=gnu99" if name.endswith(".c") else "c++ -std=c++17"
        self.shell(f"{compiler} -O2 -Wall -Wextra -Werror {self.EXAMPLES}/{name} -o {name}.out "
                   "$(pkg-config --cflags --libs kivevent)", self.folder)
        return str(self.folder / f"{name}.out")
