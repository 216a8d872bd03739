"""The wheel holds the package, and what pip has installed from this folder works."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile
from pathlib import Path

from support import ROOT, FIXTURES

FILES = sorted(path.name for path in (ROOT / "python" / "qj7mem00").iterdir()
               if path.suffix in (".py", ".json", ".typed"))
PROGRAM = """
import sys, qj7mem00
assert qj7mem00.__file__.startswith(sys.argv[1]), qj7mem00.__file__
with qj7mem00.Process() as process, process.heap() as heap:
    heap.allocate(10)
print(len(qj7mem00.read_chain(sys.argv[2], sys.argv[3])))
"""


class PackageTest(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.work = Path(folder.name)

    def expect_works(self, place: Path) -> None:
        definitions = ROOT / "python" / "examples" / "catalog.chain.json"
        run = subprocess.run(
            [sys.executable, "-c", PROGRAM, str(place), str(FIXTURES / "catalog-sample.chain"),
             str(definitions)], env=os.environ | {"PYTHONPATH": str(place)}, cwd=self.work,
            capture_output=True, text=True, check=False)
        self.assertEqual((run.stdout, run.stderr), ("26\n", ""))

    def test_wheel(self) -> None:
        subprocess.run([sys.executable, "-c", "import build_backend, sys\n"
                        "build_backend.build_wheel(sys.argv[1])\n"
                        "build_backend.build_sdist(sys.argv[1])", str(self.work)],
                       cwd=ROOT / "python", check=True)
        wheel = self.work / "qj7mem00-1.0.0-py3-none-any.whl"
        place = self.work / "unpacked"
        with zipfile.ZipFile(wheel) as archive:
            self.assertEqual(sorted(name.partition("/")[2] for name in archive.namelist()
                                    if name.startswith("qj7mem00/")), FILES)
            archive.extractall(place)
        self.assertTrue((self.work / "qj7mem00-1.0.0.tar.gz").exists())
        self.expect_works(place)

    def test_pip(self) -> None:
        has_pip = subprocess.run([sys.executable, "-m", "pip", "--version"], capture_output=True,
                                 check=False).returncode == 0
        if not has_pip:
            self.skipTest("this Python has no pip")
        place = self.work / "installed"
        subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--no-index",
                        "--disable-pip-version-check", "--root-user-action", "ignore",
                        "--target", str(place), str(ROOT / "python")], check=True)
        self.expect_works(place)

    def test_debian_package(self) -> None:
        made = subprocess.run([ROOT / "cmake" / "python-package.sh", str(self.work), "A <a@b.org>"],
                              capture_output=True, text=True, check=True).stdout.strip()
        place = self.work / "content"
        subprocess.run(["dpkg-deb", "--extract", made, str(place)], check=True)
        fields = subprocess.run(["dpkg-deb", "--field", made, "Package", "Depends", "Maintainer"],
                                capture_output=True, text=True, check=True).stdout
        self.assertEqual(fields, "Package: python3-qj7mem00\n"
                         "Depends: python3 (>= 3.11), qj7mem00 (>= 1.0.0)\n"
                         "Maintainer: A <a@b.org>\n")
        if shutil.which("lintian"):
            judged = subprocess.run(["lintian", "--allow-root", "--display-level", ">=warning", made],
                                    capture_output=True, text=True, check=False)
            self.assertEqual(judged.stdout + judged.stderr, "")
        self.expect_works(place / "usr" / "lib" / "python3" / "dist-packages")


if __name__ == "__main__":
    unittest.main()
