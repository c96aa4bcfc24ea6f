"""Packs the wheel: a zip of the package and three short texts. It replaces a build tool, which pip would download.

With the settings `libraries`, a folder, and `platform`, the wheel carries what is in that folder, and its licences.

Name and version stand in pyproject.toml as well; a test compares them.
"""

import base64
import hashlib
import tarfile
import zipfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
STEM = "wrapper_audio-1.0.0"
INFO = STEM + ".dist-info"
METADATA = """\
Metadata-Version: 2.1
Name: wrapper-audio
Version: 1.0.0
Summary: Microphone capture with neural noise suppression: the binding of the library wrapper_audio
Requires-Python: >=3.9
Provides-Extra: numpy
Requires-Dist: numpy; extra == "numpy"
"""
WHEEL = "Wheel-Version: 1.0\nGenerator: wrapper_audio\nRoot-Is-Purelib: {pure}\nTag: {tag}\n"


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    sources = sorted([*HERE.glob("wrapper_audio/*.py"), HERE / "wrapper_audio/py.typed"])
    files = {str(source.relative_to(HERE)): source.read_bytes() for source in sources}
    settings = config_settings or {}
    if "libraries" in settings:
        libraries = Path(settings["libraries"])
        for library in sorted(libraries.glob("*.so.*")):
            files[f"wrapper_audio/{library.name}"] = library.read_bytes()
        for licence in sorted(libraries.glob("licences/*")):
            files[f"{INFO}/licenses/{licence.name}"] = licence.read_bytes()
    tag = "py3-none-" + settings.get("platform", "any")
    files[INFO + "/METADATA"] = METADATA.encode()
    files[INFO + "/WHEEL"] = WHEEL.format(tag=tag, pure="false" if "libraries" in settings else "true").encode()
    record = ""
    for path, content in files.items():
        digest = base64.urlsafe_b64encode(hashlib.sha256(content).digest()).rstrip(b"=").decode()
        record += f"{path},sha256={digest},{len(content)}\n"
    files[INFO + "/RECORD"] = (record + INFO + "/RECORD,,\n").encode()
    name = f"{STEM}-{tag}.whl"
    with zipfile.ZipFile(Path(wheel_directory, name), "w") as wheel:
        for path, content in files.items():
            wheel.writestr(zipfile.ZipInfo(path), content, zipfile.ZIP_DEFLATED)
    return name


def build_sdist(sdist_directory, config_settings=None):
    name = STEM + ".tar.gz"
    with tarfile.open(Path(sdist_directory, name), "w:gz") as archive:
        for part in ["pyproject.toml", "build_wheel.py", "README.md", *HERE.glob("wrapper_audio/*.*")]:
            archive.add(HERE / part, Path(STEM, (HERE / part).relative_to(HERE)))
    return name
