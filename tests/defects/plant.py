"""Plants the defects of defects.txt one at a time in a copy of the tree, and sees which test notices.

plant.py TREE BUILD [PATTERN]: TREE is the copy, BUILD its build tree, built and green. PATTERN, a
regular expression, chooses defects by title or file. Exits with 1 when a defect survives, can't be
planted or does not compile.

The form of defects.txt: see there.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
PARALLEL = str(2 * (os.cpu_count() or 1))
# These only show what a debugger or an analyser makes of the library's data, and need what is not
# built here: debug information.
LEFT_OUT = "^(GdbTest|Dissector)"
# The name that a defect gives instead of tests when it must not even compile.
COMPILER = "compiler"


class Defect:
    def __init__(self, title):
        self.title = title
        self.file = self.tests = ""
        self.build = "velahost"
        self.before = []
        self.after = []


def read_defects(path):
    """The defects of a file; ends the program where it can't be understood."""
    defects = []
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        key, _, value = line.partition(" ")
        if key == "defect:":
            defects.append(Defect(value.strip()))
        elif not defects:
            sys.exit(f"{path}:{number}: expected a line that begins with 'defect:'")
        elif key in ("file:", "tests:", "build:"):
            setattr(defects[-1], key[:-1], value.strip())
        elif key in ("-", "+"):
            (defects[-1].before if key == "-" else defects[-1].after).append(value)
        else:
            sys.exit(f"{path}:{number}: what is '{key}'?")
    titles = [defect.title for defect in defects]
    for defect in defects:
        if not (defect.file and defect.tests and defect.before):
            sys.exit(f"{path}: '{defect.title}' lacks a file, tests or a text to replace")
        if titles.count(defect.title) > 1:
            sys.exit(f"{path}: '{defect.title}' is there twice")
    return defects


def plant(tree, defect):
    """The file's text with the defect in it. ValueError when it fits nowhere or in many places."""
    before = "\n".join(defect.before)
    after = "\n".join(defect.after)
    try:
        text = (tree / defect.file).read_text()
    except OSError as error:
        raise ValueError(error.strerror) from error
    if text.count(before) != 1:
        raise ValueError(f"its text is in {defect.file} {text.count(before)} times, not once")
    if before == after:
        raise ValueError("it changes nothing")
    return text.replace(before, after)


class Snapshot:
    """What was built from the unbroken tree, to go back to without building."""

    def __init__(self, build, copy):
        self.build = build
        self.copy = copy
        shutil.rmtree(copy, ignore_errors=True)
        for file in self.files():
            kept = copy / file.relative_to(build)
            kept.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(file, kept)

    def files(self):
        for folder, _, names in os.walk(self.build):
            if "/Testing" in folder:
                continue
            for name in names:
                file = pathlib.Path(folder, name)
                if not file.is_symlink():
                    yield file

    def restore(self):
        for file in self.files():
            kept = self.copy / file.relative_to(self.build)
            if not kept.exists():
                file.unlink()
            elif kept.stat().st_mtime_ns != file.stat().st_mtime_ns:
                file.unlink()
                shutil.copy2(kept, file)


def run(*command):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", check=False)
    return done.returncode == 0, done.stdout


def build_targets(build, *targets):
    return run("cmake", "--build", str(build), "--target", *targets)


def first_failing_test(build, pattern):
    """None when all tests pass whose names match."""
    passed, output = run("ctest", "--test-dir", str(build), "--parallel", PARALLEL,
                         "--stop-on-failure", "--no-tests=error", "-R", pattern, "-E", LEFT_OUT)
    if passed:
        return None
    first = re.search(r"Test +#(\d+): .*\*\*\*", output)
    failed = first and re.search(rf"^\s*{first[1]} - (.+) \((.+)\)$", output, re.MULTILINE)
    if not failed:
        raise ValueError(f"ctest -R '{pattern}' failed, but no test did:\n{output[-3000:]}")
    return failed[1].partition("  # ")[0] + ("" if failed[2] == "Failed" else f" ({failed[2]})")


def try_defect(build, defect):
    """What noticed the defect, which is in the tree: empty when nothing did."""
    compiled, output = build_targets(build, "velahost", *defect.build.split())
    if defect.tests == COMPILER:
        return "" if compiled else COMPILER
    if not compiled:
        raise ValueError(f"it does not compile:\n{output[-3000:]}")
    test = first_failing_test(build, defect.tests)
    if test:
        return test
    if not build_targets(build, "all")[0]:
        return "elsewhere: " + COMPILER
    test = first_failing_test(build, ".")
    return f"elsewhere: {test}" if test else ""


def main(tree, build, pattern="."):
    tree, build = pathlib.Path(tree).resolve(), pathlib.Path(build).resolve()
    defects = read_defects(HERE / "defects.txt")
    misfits = 0
    for defect in defects:
        try:
            plant(tree, defect)
        except ValueError as error:
            print(f"{defect.title}: {error}")
            misfits += 1
    if misfits:
        sys.exit(f"{misfits} of {len(defects)} defects no longer fit the sources")

    snapshot = Snapshot(build, build.parent / (build.name + "-unbroken"))
    print(f"{'defect':<64} {'caught by':<72} seconds")
    survived = errors = 0
    chosen = [d for d in defects if re.search(pattern, f"{d.title} {d.file}")]
    begin = time.monotonic()
    for defect in chosen:
        started = time.monotonic()
        broken = tree / defect.file
        sound = build.parent / "sound-file"
        shutil.copy2(broken, sound)
        try:
            broken.write_text(plant(tree, defect))
            caught = try_defect(build, defect) or "NOTHING: it survived"
            survived += caught.startswith("NOTHING")
        except ValueError as error:
            caught = f"ERROR: {error}"
            errors += 1
        finally:
            shutil.copy2(sound, broken)
            snapshot.restore()
        print(f"{defect.title:<64} {caught:<72} {time.monotonic() - started:5.1f}", flush=True)

    touched = {defect.file for defect in defects}
    sources = {str(f.relative_to(tree)) for f in (tree / "src").rglob("*.cpp")}
    without = sorted(sources - touched)
    for file in without:
        print(f"No defect in {file}")
    print(f"{len(chosen)} defects, {survived} survived, {errors} errors, "
          f"{len(without)} sources without one, {time.monotonic() - begin:.0f} s")
    return 1 if survived or errors or without or not chosen else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
