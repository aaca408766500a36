#!/usr/bin/env python3
"""Holds who may include whom, room by room, and that no two headers include each other in a circle.

A file belongs to the room with the longest matching name. Arrows of the table go down only, so
there is no circle between rooms either.
"""

import pathlib
import re
import subprocess
import sys

# ROOM: headers of ours that its files may include besides the room's own, as path prefixes.
ROOMS = {
    "module": ["plugin/USBIPClientPlugin.h", "module/runtime/", "include/"],
    "plugin": ["client/IClient", "client/IUsbip", "client/USBIPClientLinux.h", "module/runtime/",
               "base/", "wire/", "include/"],
    "client": ["vhci/", "module/runtime/", "base/", "wire/", "include/"],
    "vhci": ["module/runtime/", "base/", "wire/", "include/"],
    "module/runtime": ["base/", "include/"],
    "base": ["include/xj-client-usbip/Reference.h"],
    "wire": [],
    "include": [],
    "kit": ["wire/", "include/"],
    "host": ["posix/", "wire/", "include/"],
    "remote": ["remote/", "posix/", "wire/"],
    "remote/channel": ["remote/device/", "remote/io/", "posix/", "wire/"],
    "remote/disk": ["remote/device/", "remote/io/", "posix/", "wire/"],
    "remote/bridge": ["remote/device/", "remote/io/", "posix/", "wire/"],
    "remote/device": ["remote/io/", "wire/"],
    "remote/io": ["posix/"],
    "posix": [],
    "vm/microphone": ["remote/", "posix/", "wire/"],
    "fakes": ["wire/", "include/"],
    "fuzz": ["fakes/", "kit/", "module/", "plugin/", "client/", "vhci/", "base/", "remote/", "posix/",
             "wire/", "include/"],
    "bench": ["fakes/", "host/", "posix/", "wire/", "include/"],
    "tests": ["fakes/", "module/", "plugin/", "client/", "vhci/", "base/", "kit/", "host/",
              "remote/", "posix/", "wire/", "include/"],
    "examples": ["include/"],
    "cmake": [],
}
# Files that host writers copy: they stand on what is installed alone.
MODELS = re.compile(r"host/(SocketStream|Module|PropertySet|Runtime)\.(h|cpp)")
MODEL_RULE = ["include/", "host/SocketStream.h", "host/Module.h", "host/PropertySet.h",
              "host/Runtime.h"]
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def sources() -> list[str]:
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "*.h", "*.cpp"],
                            check=True, capture_output=True, text=True).stdout.split()
    return [name for name in listed if pathlib.Path(name).exists()]


def find(header: str, includer: str) -> str | None:
    """The file that the compiler would take, among ours."""
    beside = str(pathlib.Path(includer).parent / header)
    for candidate in (header, f"include/{header}", beside, f"tests/{header}"):
        if pathlib.Path(candidate).is_file():
            return candidate
    return None


def room_of(name: str) -> str | None:
    rooms = [room for room in ROOMS if name.startswith(room + "/")]
    return max(rooms, key=len, default=None)


def circle(graph: dict[str, list[str]]) -> list[str]:
    done: set[str] = set()

    def visit(name: str, path: list[str]) -> list[str]:
        if name in path:
            return path[path.index(name):] + [name]
        if name in done:
            return []
        for header in graph.get(name, []):
            if found := visit(header, path + [name]):
                return found
        done.add(name)
        return []

    return next((found for name in graph if (found := visit(name, []))), [])


def main() -> int:
    complaints = []
    graph: dict[str, list[str]] = {}
    for name in sources():
        room = room_of(name)
        if room is None:
            complaints.append(f"{name} is in no room")
            continue
        allowed = MODEL_RULE if MODELS.fullmatch(name) else ROOMS[room]
        for header in INCLUDE.findall(pathlib.Path(name).read_text()):
            file = find(header, name)
            if file is None:
                complaints.append(f"{name} includes {header}, which is not there")
                continue
            if not file.endswith(".h"):
                complaints.append(f"{name} includes {header}, which is no header")
            graph.setdefault(name, []).append(file)
            own = room_of(file) == room and allowed is not MODEL_RULE
            if not own and not any(file.startswith(prefix) for prefix in allowed):
                complaints.append(f"{name} may not include {header}")
    if found := circle(graph):
        complaints.append("a circle of includes: " + " -> ".join(found))
    for complaint in complaints:
        print(f"lint: {complaint}", file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
