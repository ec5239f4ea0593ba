"""What the emulated board boots from: Debian's kernel, a device tree without the parts that are not emulated, a small
system in memory, and a memory card with the installation. Everything comes from the sysroot that scripts/cross-sysroot
makes, and from the program under test.
"""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from pathlib import Path

GUEST_INIT = Path(__file__).resolve().parents[1] / "guest" / "init"
TOOLS = ("qemu-system-arm", "fdtput", "cpio", "mke2fs", "debugfs", "depmod", "modprobe", "arm-linux-gnueabihf-readelf")
MODULES = ("gpio-mxc", "smsc", "fec", "sdhci-esdhc-imx", "crc32c_generic", "ext4")
CARD_MEGABYTES = 64

_SERIAL = "/soc/bus@2000000/spba-bus@2000000/serial@2020000"
_TIMER = "/soc/timer@a00600"
_CARD_SLOT = "/soc/bus@2100000/mmc@219c000"
_LIBRARY_FOLDERS = ("lib/arm-linux-gnueabihf", "usr/lib/arm-linux-gnueabihf", "lib")
_SEARCH = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"


def missing_tools() -> list[str]:
    """The programs that the image or the emulator need and this machine does not have."""
    return [tool for tool in TOOLS if shutil.which(tool, path=_SEARCH) is None]


class BoardImage:
    """Makes the files once per folder: `kernel`, `device_tree`, `initramfs`. `card` makes memory cards."""

    def __init__(self, sysroot: Path, program: Path, folder: Path, extra_programs: tuple[Path, ...] = ()):
        self._sysroot, self._program, self._folder, self._extra = sysroot, program, folder, extra_programs
        self.kernel = next((sysroot / "boot").glob("vmlinuz-*"))
        self._release = self.kernel.name.partition("-")[2]
        self.device_tree = self._make_device_tree()
        self.initramfs = self._make_initramfs()

    def card(self, path: Path, applications: Path) -> Path:
        """An ext4 file system whose root becomes /home/root, with `applications` as its Applications."""
        home = path.with_suffix(".home")
        shutil.copytree(applications, home / "Applications")
        place = home / "Applications/tessaroserver/tessaroserver"
        place.parent.mkdir(exist_ok=True)
        shutil.copy(self._program, place)
        place.chmod(0o755)
        _run("mke2fs", "-q", "-t", "ext4", "-d", home, path, f"{CARD_MEGABYTES}M")
        shutil.rmtree(home)
        return path

    @staticmethod
    def read_from_card(path: Path, file: str) -> bytes:
        """A file of a card that no board uses at the moment, read without the board's kernel."""
        return _run("debugfs", "-R", f"cat {file}", path)

    # --- the device tree -------------------------------------------------------------------------------------------

    def _make_device_tree(self) -> Path:
        source = next((self._sysroot / "usr/lib").glob("linux-image-*/imx6q-sabrelite.dtb"))
        tree = self._folder / "board.dtb"
        shutil.copy(source, tree)
        # The DMA engine is not emulated: with it the UART receives nothing. With the global timer others fire late.
        _run("fdtput", "-d", tree, _SERIAL, "dmas", "dma-names")
        _run("fdtput", "-r", tree, _TIMER)
        # The slot of the card: always a card in it, no detection line (it would take GPIO 38), no regulator.
        _run("fdtput", "-d", tree, _CARD_SLOT, "cd-gpios", "vmmc-supply")
        _run("fdtput", "-t", "s", tree, _CARD_SLOT, "status", "okay")
        _run("fdtput", tree, _CARD_SLOT, "non-removable")
        return tree

    # --- the system in memory --------------------------------------------------------------------------------------

    def _make_initramfs(self) -> Path:
        root = self._folder / "initramfs"
        for folder in ("bin", "proc", "sys", "dev", "lib", "usr/bin", "modules", "etc"):
            (root / folder).mkdir(parents=True)
        shutil.copy(GUEST_INIT, root / "init")
        (root / "init").chmod(0o755)
        shutil.copy(self._sysroot / "bin/busybox", root / "bin")
        tar = self._sysroot / "bin/tar"
        for program in (tar, *self._extra):
            shutil.copy(program, root / "usr/bin")
        for library in self._libraries(self._program, tar, *self._extra):
            shutil.copy(library, root / "lib")
        self._copy_modules(root / "modules")
        archive = self._folder / "initramfs.cpio"
        names = "\n".join(str(path.relative_to(root)) for path in sorted(root.rglob("*")))
        with open(archive, "wb") as file:
            subprocess.run(["cpio", "--quiet", "-o", "-H", "newc", "-R", "0:0"], cwd=root, input=names.encode(),
                           stdout=file, check=True)
        shutil.rmtree(root)
        return archive

    def _libraries(self, *programs: Path) -> set[Path]:
        """All shared libraries that the programs need, and those that these need, with the dynamic linker."""
        found: dict[str, Path] = {}
        waiting = [self._library("ld-linux-armhf.so.3"), *programs]
        found["ld-linux-armhf.so.3"] = waiting[0]
        while waiting:
            for name in _needed(waiting.pop()):
                if name not in found:
                    found[name] = self._library(name)
                    waiting.append(found[name])
        return set(found.values())

    def _library(self, name: str) -> Path:
        for folder in _LIBRARY_FOLDERS:
            if (self._sysroot / folder / name).exists():
                return self._sysroot / folder / name
        raise FileNotFoundError(f"the sysroot has no library {name}")

    def _copy_modules(self, folder: Path) -> None:
        """The drivers, and in the file `order` the order in which they are to be inserted."""
        if not (self._sysroot / f"lib/modules/{self._release}/modules.dep").exists():
            _run("depmod", "-b", self._sysroot, self._release)
        order: list[str] = []
        for module in MODULES:
            shown = _run("modprobe", "-d", self._sysroot, "-S", self._release, "--show-depends", module).decode()
            for path in map(Path, re.findall(r"^insmod (\S+)", shown, re.MULTILINE)):
                if path.name not in order:
                    order.append(path.name)
                    shutil.copy(path, folder)
        (folder / "order").write_text("".join(f"{name}\n" for name in order))


def _needed(program: Path) -> list[str]:
    shown = _run("arm-linux-gnueabihf-readelf", "-d", program).decode()
    return re.findall(r"\(NEEDED\).*\[(.+)\]", shown)


def _run(program: str, *arguments: object) -> bytes:
    path = shutil.which(program, path=_SEARCH)
    if path is None:
        raise FileNotFoundError(f"the program '{program}' is missing")
    done = subprocess.run([path, *map(str, arguments)], capture_output=True, check=False)
    if done.returncode:
        raise OSError(f"{program}: {done.stderr.decode(errors='replace').strip()}")
    return done.stdout
