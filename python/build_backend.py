"""Makes the wheel of this folder, with the standard library alone: the hooks that pip calls.

The package is pure Python, so a wheel is an archive of its files and of three that describe it.
`requires = []` in pyproject.toml keeps pip from fetching anything.
"""

import base64
import hashlib
import tarfile
import tomllib
import zipfile
from pathlib import Path
from typing import Any

HERE = Path(__file__).resolve().parent
PACKAGE = "qj7mem00"
_Settings = dict[str, Any] | None


def _project() -> dict[str, Any]:
    with open(HERE / "pyproject.toml", "rb") as file:
        project: dict[str, Any] = tomllib.load(file)["project"]
    return project


def _files() -> list[Path]:
    return sorted(path for path in (HERE / PACKAGE).iterdir()
                  if path.suffix in (".py", ".json", ".typed"))


def _described(project: dict[str, Any]) -> dict[str, str]:
    readme = (HERE / project["readme"]).read_text(encoding="utf-8")
    metadata = (f"Metadata-Version: 2.1\nName: {project['name']}\nVersion: {project['version']}\n"
                f"Summary: {project['description']}\n"
                f"Requires-Python: {project['requires-python']}\n"
                f"Description-Content-Type: text/markdown\n\n{readme}")
    wheel = ("Wheel-Version: 1.0\nGenerator: build_backend\nRoot-Is-Purelib: true\n"
             "Tag: py3-none-any\n")
    return {"METADATA": metadata, "WHEEL": wheel}


def _add(archive: zipfile.ZipFile, name: str, raw: bytes) -> str:
    """Adds a file and returns its row of RECORD. All have one date, so that wheels are equal."""
    entry = zipfile.ZipInfo(name, (2026, 1, 1, 0, 0, 0))
    entry.external_attr = 0o644 << 16
    archive.writestr(entry, raw, zipfile.ZIP_DEFLATED)
    digest = base64.urlsafe_b64encode(hashlib.sha256(raw).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(raw)}\n"


def build_wheel(wheel_directory: str, config_settings: _Settings = None,
                metadata_directory: str | None = None) -> str:
    project = _project()
    stem = f"{project['name']}-{project['version']}"
    name = f"{stem}-py3-none-any.whl"
    with zipfile.ZipFile(Path(wheel_directory, name), "w") as archive:
        rows = [_add(archive, f"{PACKAGE}/{path.name}", path.read_bytes()) for path in _files()]
        rows += [_add(archive, f"{stem}.dist-info/{key}", text.encode())
                 for key, text in _described(project).items()]
        record = f"{stem}.dist-info/RECORD"
        _add(archive, record, ("".join(rows) + f"{record},,\n").encode())
    return name


def build_sdist(sdist_directory: str, config_settings: _Settings = None) -> str:
    project = _project()
    stem = f"{project['name']}-{project['version']}"
    with tarfile.open(Path(sdist_directory, f"{stem}.tar.gz"), "w:gz") as archive:
        for path in [HERE / "pyproject.toml", HERE / "README.md", HERE / "build_backend.py",
                     *_files()]:
            archive.add(path, f"{stem}/{path.relative_to(HERE)}")
    return f"{stem}.tar.gz"
