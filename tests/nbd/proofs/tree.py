"""A tree of real files: this project's own sources, which every checkout has, and what a user does to it."""
import hashlib
import os
import pathlib
import shutil

SOURCES = pathlib.Path(__file__).resolve().parents[3]
FIRST = ("swap", "redirect", "docs", "platform")
SECOND = ("driver", "control", "config", "machine")
OF_THE_SYSTEM = {"lost+found", "System Volume Information"}


def plant(folder, names, program):
    """Copies the folders `names` and a program of some size."""
    for name in names:
        shutil.copytree(SOURCES / name, folder / name, copy_function=shutil.copyfile)
    shutil.copyfile(program, folder / f"program-of-{names[0]}")


def work_on(folder, program):
    """Needs what plant() put there with FIRST: adds, overwrites in place, lengthens, cuts, renames and removes."""
    plant(folder, SECOND, program)
    shutil.rmtree(folder / FIRST[1])
    os.rename(folder / FIRST[2], folder / SECOND[0] / "moved")
    files = sorted(path for path in (folder / FIRST[0]).iterdir() if path.is_file())
    os.unlink(files[0])
    os.truncate(files[1], 100)
    with open(files[2], "ab") as file:
        file.write(b"more\n" * 5000)
    with open(folder / f"program-of-{FIRST[0]}", "r+b") as file:
        file.seek(1000)
        file.write(bytes(range(256)) * 300)


def hashes(folder):
    """Each file's hash and each folder, by path; without the storage files and the system's own."""
    found = {}
    for place, folders, files in os.walk(folder):
        folders[:] = [name for name in folders if name not in OF_THE_SYSTEM]
        for name in folders:
            found[os.path.relpath(os.path.join(place, name), folder)] = "folder"
        for name in files:
            if not name.lower().startswith("kvr."):
                path = pathlib.Path(place, name)
                found[str(path.relative_to(folder))] = hashlib.sha256(path.read_bytes()).hexdigest()
    return found


def difference(expected, got):
    names = sorted(name for name in expected.keys() | got.keys() if expected.get(name) != got.get(name))
    return f"{len(names)} files differ, such as {names[:5]}" if names else ""
