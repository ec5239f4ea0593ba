"""The inputs of a fuzz target, kept as one archive. The same inputs make the same bytes, whoever packs them and when."""
import io
import os
import tarfile
from pathlib import Path

FOLDER = Path(__file__).resolve().parent / "corpus"


def archive_of(target, folder=FOLDER):
    return folder / f"{target}.tar.xz"


def targets(folder=FOLDER):
    return sorted(path.name.removesuffix(".tar.xz") for path in folder.glob("*.tar.xz"))


def read(target, folder=FOLDER):
    """Name and content of each input. An archive holds plain files side by side, and nothing else: ValueError if not."""
    inputs = {}
    with tarfile.open(archive_of(target, folder)) as archive:
        for member in archive:
            if not member.isfile() or not _is_plain(member.name):
                raise ValueError(f"{archive_of(target, folder)}: {member.name!r} is no file beside the others")
            inputs[member.name] = archive.extractfile(member).read()
    return inputs


def write(target, inputs, folder=FOLDER):
    """Replaces the archive in one step, or leaves it alone when it holds just these inputs. @return whether it was replaced."""
    for name in inputs:
        if not _is_plain(name):
            raise ValueError(f"{name!r} is no name for an input")
    path = archive_of(target, folder)
    if path.exists() and read(target, folder) == inputs:
        return False  # another release of the packer might make other bytes of it
    beside = path.with_suffix(".new")
    beside.write_bytes(_packed(inputs))
    os.replace(beside, path)
    return True


def _is_plain(name):
    return name not in ("", ".", "..") and "/" not in name


def _packed(inputs):
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w:xz", format=tarfile.USTAR_FORMAT, preset=9) as archive:
        for name in sorted(inputs):
            member = tarfile.TarInfo(name)  # no owner, no time, readable by all
            member.size = len(inputs[name])
            archive.addfile(member, io.BytesIO(inputs[name]))
    return buffer.getvalue()
