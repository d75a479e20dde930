#!/usr/bin/env python3
"""Plants faults into the service's source, one at a time, and sees whether its tests notice.

usage: mutants.py BUILD [--faults N] [--seed S] [--only FILE] [--again]

BUILD is a build tree of the tests without optimization (scripts/mutate makes it). The faults are
chosen by the seed, evenly over the lines: first one for each line, then a second one, until there are
N that compile to other code than before. A fault counts as noticed when a test fails twice in a row;
one that does not come to its end in time has twice the time when it is tried again, and is counted
apart. Before the first fault and after the last one all tests have to pass without a fault, or the
status is 2 and no result is written.

What no test notices has to stand in tests/survivors with the reason why that is so. Prints the
others as a diff and ends with 1 when there is one. BUILD/result is for scripts/evidence: the numbers
of faults, noticed, noticed by time only, explained and unexplained, then place, line before, line
after and reason of each that no test notices.
"""
import argparse
import concurrent.futures
import hashlib
import json
import os
import pathlib
import queue
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass

TESTS = pathlib.Path(__file__).resolve().parent.parent / "tests"
SOURCE = TESTS.parent / "source"
LATE = "no end in time"
BY_TIME = ", by time,"
LIMITS = ["prlimit", "--fsize=67108864", "--cpu=60", "--as=4294967296", "--core=0"]


# --- Which faults there are ---

@dataclass(frozen=True)
class Fault:
    file: str
    start: int
    end: int
    text: str  # in the place of what stands there

    def planted(self, source):
        return source[:self.start] + self.text + source[self.end:]

    def lines(self, source):
        """The statement's line before and after, blanks at both ends apart."""
        begin = source.rfind("\n", 0, self.start) + 1
        end = source.find("\n", max(self.end - 1, self.start))
        after = source[begin:self.start] + self.text + source[self.end:end]
        return tuple(" ".join(part.split()) for part in (source[begin:end], after))

    def place(self, source):
        """The file, and the function that it is in or behind."""
        names = re.findall(r"^(?![ /])[^\n;=]*?([~\w]+)\([^;]*$", source[:self.start + 1], re.M)
        return self.file + (" " + names[-1] if names else "")

    def key(self, source):
        return (self.place(source), *self.lines(source))

    def order(self, source, seed):
        return hashlib.sha256("\0".join((seed, *self.key(source))).encode()).hexdigest()


def masked(source):
    """The source with blanks for comments, preprocessor lines and the inside of literals."""
    pattern = r'//[^\n]*|/\*.*?\*/|^[ \t]*#(?:[^\n\\]|\\.)*|"(?:\\.|[^"\\\n])*"|' \
              r"'(?:\\.|[^'\\\n])'"

    def blanks(match):
        text = match.group()
        keep = text[0] if text[0] in "\"'" else ""
        inside = re.sub(r"[^\n]", " ", text[len(keep):len(text) - len(keep)])
        return keep + inside + keep

    return re.sub(pattern, blanks, source, flags=re.S | re.M)


def closing(mask, opening):
    depth = 0
    for position in range(opening, len(mask)):
        depth += {"(": 1, ")": -1}.get(mask[position], 0)
        if depth == 0:
            return position
    return None


OTHER = {
    " < ": (" <= ",), " <= ": (" < ",), " > ": (" >= ",), " >= ": (" > ",), " == ": (" != ",),
    " != ": (" == ",), " && ": (" || ",), " || ": (" && ",), " + ": (" - ",), " - ": (" + ",),
    " * ": (" + ",), " / ": (" * ",), " | ": (" & ",), " += ": (" = ",), "++": ("--",), "--": ("++",),
}
NAMES = [
    ("true", "false"), ("min", "max"), ("lower", "upper"), ("begin", "end"), ("first", "second"),
    ("ALERT_FAN_FAILED", "ALERT_FAN_WORKING"), ("ALERT_TEMP_HIGH", "ALERT_TEMP_CRITICAL"),
    ("ALERT_TEMP_NORMAL", "ALERT_UNKNOWN"), ("ALERT_MISSING_CONFIG", "ALERT_MISSING_CMD_TABLE"),
    ("FAN_FAILED_FLAG", "HIGH_TEMP_FLAG"), ("CRIT_TEMP_FLAG", "HIGH_TEMP_FLAG"),
    ("FAN_DRIVER_I2C", "FAN_DRIVER_GPIO"), ("FAN_PWM", "FAN_TARGET"), ("LOG_ERR", "LOG_INFO"),
    ("LOG_WARNING", "LOG_ERR"), ("m_currentTemp", "m_previousTemp"), ("SIGUSR1", "SIGUSR2"),
    ("m_lastTempAlert", "m_lastFanAlert"), ("EXIT_SUCCESS", "EXIT_FAILURE"),
]
for one, other in NAMES:
    OTHER[one] = OTHER.get(one, ()) + (other,)
    OTHER[other] = OTHER.get(other, ()) + (one,)
TOKEN = re.compile(r" (?:[<>=!]=|[<>]|&&|\|\||[-+*/|]|\+=) (?! )|\+\+|--|\b[A-Za-z_]\w*\b")
NUMBER = re.compile(r"(?<![\w.'])(?:0x[0-9A-Fa-f]+|\d+)\b(?!['.])")
STATEMENT = re.compile(r"(?<=[;{}:])\n(?:[ \t]*\n)*( +)(?=[\w(:*+-])(?!(?:return|case|default|else|"
                       r"using|class|struct|public|private|explicit|constexpr|static)\b)")


def faults_of(name, source):
    mask = masked(source)
    # Declarations in a header have no effect of their own; static_assert and using have none at all.
    for line in re.finditer(r"^(?:static_assert|using|template)\b[^;{]*", mask, re.M):
        mask = mask[:line.start()] + re.sub(r"[^\n]", " ", line.group()) + mask[line.end():]

    def fault(start, end, text):
        return Fault(name, start, end, text)

    for token in TOKEN.finditer(mask):
        for text in OTHER.get(token.group(), ()):
            yield fault(token.start(), token.end(), text)
        if re.fullmatch(r"O_[A-Z]+", token.group()) and mask[:token.start()].endswith(" | "):
            yield fault(token.start() - 3, token.end(), "")
    for token in NUMBER.finditer(mask):
        digits = token.group()
        base, form = (16, "0x%x") if "x" in digits else (8, "0%o") if re.match("0.", digits) \
            else (10, "%d")
        for near in (int(digits, base) + 1, int(digits, base) - 1):
            yield fault(token.start(), token.end(), form % near)
    for token in re.finditer(r"(?<=[(\s])!(?=[\w:*(])", mask):
        yield fault(token.start(), token.end(), "")
    for token in re.finditer(r"\b(?:if|while) \(", mask):
        end = closing(mask, token.end() - 1)
        if mask[token.end()] == "!" and "(" not in mask[token.end():end]:
            continue  # the same as without its !
        yield fault(token.end(), end, "!(" + source[token.end():end] + ")")
    for token in re.finditer(r"(?<== )([^;?={}]+?)(?= +\? )", mask):
        yield fault(token.start(), token.end(), "!(" + source[token.start():token.end()] + ")")
    for token in re.finditer(r"\breturn (?!(?:false|nullptr|0|\{\});)([^;{]+);", mask):
        yield fault(token.start(1), token.end(1), "{}")
    for token in re.finditer(r"\b(return|break|continue);", mask):
        yield fault(token.start(), token.end(), ";")
    for token in re.finditer(r'"[^"\n]*"', mask):
        yield fault(token.start() + 1, token.start() + 1, "~")
    for token in STATEMENT.finditer(mask if name.endswith(".cpp") else ""):
        statement = re.match(r"(?:[^;{}()]|\((?:[^()]|\((?:[^()]|\([^()]*\))*\))*\))*;", mask[token.end():])
        if statement:
            end = token.end() + statement.end()
            yield fault(token.end(), end, ";")


def choose(sources, seed, only):
    """All faults, in the order in which they are tried."""
    lines = {}
    for name, source in sources.items():
        if only and name != only:
            continue
        for fault in set(faults_of(name, source)):
            lines.setdefault((name, source.count("\n", 0, fault.start)), []).append(fault)
    rounds = []
    for faults in lines.values():
        faults.sort(key=lambda fault: fault.order(sources[fault.file], seed))
        for place, fault in enumerate(faults):
            rounds.append((place, fault.order(sources[fault.file], seed), fault))
    rounds.sort(key=lambda entry: entry[:2])
    return [entry[2] for entry in rounds]


# --- Building and testing one ---

class Tree:
    """What the build tree knows: how each source is compiled and both programs are linked."""

    def __init__(self, build, sources):
        self.build = build
        self.sources = sources
        self.compile = {}
        for entry in json.loads((build / "compile_commands.json").read_text()):
            path = pathlib.Path(entry["file"])
            if path.parent == SOURCE:
                self.compile[path.name] = (entry["directory"], shlex.split(entry["command"]))
        self.link = []
        self.stopping = False
        for target, folder in (("fan_controller_tests", TESTS), ("fan_controller", TESTS.parent)):
            place = build / folder.relative_to(ROOT)
            text = (place / f"CMakeFiles/{target}.dir/link.txt").read_text()
            self.link.append((place, shlex.split(text)))
        names = sorted(path.name[:-len("_test.cpp")] for path in TESTS.glob("*_test.cpp"))
        self.suites = [(name, 0) for name in names]

    def users(self, name):
        """The sources that a fault in this file changes."""
        if name.endswith(".cpp"):
            return [name]
        found, todo = set(), [name]
        while todo:
            header = todo.pop()
            for user, text in self.sources.items():
                if user not in found and f'#include "{header}"' in text:
                    found.add(user)
                    todo.append(user)
        return sorted(user for user in found if user.endswith(".cpp"))


class Desk:
    """A folder that one fault after the other is built and tested in."""

    def __init__(self, tree, number):
        self.tree = tree
        self.folder = tree.build / "desks" / str(number)
        self.source = self.folder / "source"
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.copytree(SOURCE, self.source)
        (self.folder / "libcorvane.so").symlink_to(tree.build / "libcorvane.so")
        self.temporary = tempfile.mkdtemp(prefix="fan-mutants-", dir="/dev/shm")

    def object_of(self, command):
        return command[command.index("-o") + 1]

    def build(self, names):
        """Compiles these sources and links both programs. Which of them have other code; None: one of
        them does not compile."""
        replaced, other = {}, []
        for name in names:
            directory, command = self.tree.compile[name]
            before = self.object_of(command)
            after = str(self.folder / (name + ".o"))
            replaced[os.path.normpath(os.path.join(directory, before))] = after
            words = [after if word == before else word.replace(str(SOURCE), str(self.source))
                     for word in command] + ["-w"]
            if subprocess.run(words, cwd=directory, capture_output=True).returncode != 0:
                return None
            old = pathlib.Path(directory, before).read_bytes()
            if pathlib.Path(after).read_bytes() != old:
                other.append(name)
        if not other:
            return other
        for directory, command in self.tree.link:
            words, mine = [], []
            for word in command:
                path = os.path.normpath(os.path.join(directory, word))
                if word == self.object_of(command):
                    words.append(str(self.folder / pathlib.Path(word).name))
                elif path in replaced:
                    mine.append(replaced[path])
                else:
                    words.append(word)
            # First, so that a header's functions are taken from them.
            words[1:1] = mine
            if subprocess.run(words, cwd=directory, capture_output=True).returncode != 0:
                return None
        return other

    def end_all(self):
        for link in pathlib.Path("/proc").glob("[0-9]*/exe"):
            try:
                if os.readlink(link).startswith(str(self.folder) + "/"):
                    os.kill(int(link.parent.name), signal.SIGKILL)
            except OSError:
                pass

    def fails(self, suite, patience, attempts=1):
        """What a suite says when it fails; nothing when it passes. LATE when an attempt came to no end;
        the next one has twice the time."""
        command = [*LIMITS, "./fan_controller_tests", f"--source-file=*/{suite}_test.cpp",
                   "--abort-after=1"]
        environment = {**os.environ, "TMPDIR": self.temporary}
        output, late = None, False
        for _ in range(attempts):
            if self.tree.stopping:
                return "stopped"
            run = subprocess.Popen(command, cwd=self.folder, env=environment, start_new_session=True,
                                   stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE)
            try:
                output = run.communicate(timeout=patience)[1].decode(errors="replace")
            except subprocess.TimeoutExpired:
                late = True
                patience *= 2
                self.end_all()
                run.kill()
                run.communicate()
                run.returncode = -1
            self.end_all()
            for entry in os.scandir(self.temporary):
                shutil.rmtree(entry.path, ignore_errors=True)
            if run.returncode == 0:
                return None
        return LATE if late else output

    def try_fault(self, fault):
        """(verdict, suite): "no code", "same code", "noticed" by the suite, or "survived"."""
        source = self.tree.sources[fault.file]
        (self.source / fault.file).write_text(fault.planted(source))
        try:
            other = self.build(self.tree.users(fault.file))
        finally:
            (self.source / fault.file).write_text(source)
        if other is None:
            return "no code", ""
        if not other:
            return "same code", ""
        for suite, seconds in self.tree.suites:
            # Others may be at work on this machine too.
            busy = max(1, os.getloadavg()[0] / len(os.sched_getaffinity(0)))
            output = self.fails(suite, (5 + 6 * seconds) * busy, attempts=2)
            if output is not None:
                return "noticed", suite if output != LATE else suite + BY_TIME
        return "survived", ""


# --- The run ---

def known_survivors():
    """(place, before, after) to the reason. An entry has the place, a colon and the reason, which may
    take several lines, then the line before and the line after."""
    known = {}
    text = (TESTS / "survivors").read_text() if (TESTS / "survivors").exists() else ""
    for entry in re.findall(r"^(\S+(?: \S+)?): (.*(?:\n(?![-+]).*\S.*)*)\n- (.*)\n\+ (.*)$", text, re.M):
        known[(entry[0], entry[2], entry[3])] = " ".join(entry[1].split())
    return known


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--faults", type=int, default=300)
    parser.add_argument("--seed", default="1")
    parser.add_argument("--only")
    parser.add_argument("--again", action="store_true")
    arguments = parser.parse_args()
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda number, _: sys.exit(128 + number))

    sources = {path.name: path.read_text() for path in sorted(SOURCE.glob("*.[ch]*"))}
    tree = Tree(arguments.build.resolve(), sources)
    began = time.monotonic()
    desks, free = [], queue.Queue()
    pool = concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 1)
    try:
        for number in range(os.cpu_count() or 1):
            desks.append(Desk(tree, number))
        # Without a fault they have to pass, all at once as they will run later.
        def passes(desk):
            if not link_again(desk):
                return "it cannot be built"
            times = []
            for suite, seconds in tree.suites:
                start = time.monotonic()
                output = desk.fails(suite, 120 + 6 * seconds)
                if output is not None:
                    return f"{suite} fails without a fault:\n{output[-2000:]}"
                times.append((suite, time.monotonic() - start))
            return times
        for result in pool.map(passes, desks):
            if isinstance(result, str):
                print(result, file=sys.stderr)
                return 2
            tree.suites = sorted(result, key=lambda entry: entry[1])
        print("Suites: " + ", ".join(f"{name} {seconds:.1f} s" for name, seconds in tree.suites),
              flush=True)
        for desk in desks:
            free.put(desk)

        def attempt(fault):
            desk = free.get()
            try:
                return fault, desk.try_fault(fault)
            finally:
                free.put(desk)

        chosen = choose(sources, arguments.seed, arguments.only)
        if arguments.again:
            last = {tuple(line.split("\t")[:3])
                    for line in (arguments.build / "result").read_text().splitlines()[1:]}
            chosen = [fault for fault in chosen if fault.key(sources[fault.file]) in last]
        faults = iter(chosen)
        results, counts, running = [], {}, set()
        while True:
            tried = sum(counts.get(verdict, 0) for verdict in ("noticed", "survived"))
            while len(running) < len(desks) and tried + len(running) < arguments.faults:
                fault = next(faults, None)
                if fault is None:
                    break
                running.add(pool.submit(attempt, fault))
            if not running:
                break
            done, running = concurrent.futures.wait(
                running, return_when=concurrent.futures.FIRST_COMPLETED)
            for future in done:
                fault, (verdict, suite) = future.result()
                counts[verdict] = counts.get(verdict, 0) + 1
                results.append((fault, verdict, suite))
                if verdict == "survived":
                    print("  survives: {}\n- {}\n+ {}".format(*fault.key(sources[fault.file])), flush=True)
                tried = counts.get("noticed", 0) + counts.get("survived", 0)
                if verdict in ("noticed", "survived") and tried % 25 == 0:
                    print(f"{tried} of {arguments.faults} faults, {time.monotonic() - began:.0f} s",
                          flush=True)
        # If the machine broke on the way, each fault since then was "noticed".
        for result in pool.map(passes, desks):
            if isinstance(result, str):
                print("After the last fault: " + result, file=sys.stderr)
                return 2
    finally:
        tree.stopping = True
        pool.shutdown(wait=False, cancel_futures=True)
        for desk in desks:
            desk.end_all()
            shutil.rmtree(desk.temporary, ignore_errors=True)
    return conclude(arguments, sources, results, counts, time.monotonic() - began)


def link_again(desk):
    """Both programs without a fault: what build() leaves out when no code is other."""
    for directory, command in desk.tree.link:
        words = [str(desk.folder / pathlib.Path(word).name) if word == desk.object_of(command) else word
                 for word in command]
        if subprocess.run(words, cwd=directory, capture_output=True).returncode != 0:
            return False
    return True


def conclude(arguments, sources, results, counts, seconds):
    known = known_survivors()
    survivors, unexplained = [], []
    for fault, verdict, _ in results:
        if verdict != "survived":
            continue
        key = fault.key(sources[fault.file])
        reason = known.get(key)
        survivors.append((*key, reason))
        if reason is None:
            unexplained.append(key)
    noticed = counts.get("noticed", 0)
    tried = noticed + len(survivors)
    late = sum(suite.endswith(BY_TIME) for _, verdict, suite in results if verdict == "noticed")
    by_suite = {}
    for _, verdict, suite in results:
        if verdict == "noticed":
            by_suite[suite] = by_suite.get(suite, 0) + 1
    for place, before, after in sorted(unexplained):
        print(f"\n{place}: no test notices, and tests/survivors does not say why\n"
              f"- {before}\n+ {after}")
    score = 100 * noticed / tried if tried else 0
    summary = (f"{tried} faults: {noticed} noticed ({score:.1f} %), {late} of them by time"
               f" only, {len(survivors) - len(unexplained)}"
               f" explained, {len(unexplained)} unexplained")
    print("\n" + ", ".join(f"{suite} noticed {count}" for suite, count in by_suite.items()) +
          f"; {counts.get('no code', 0)} more do not compile, {counts.get('same code', 0)} compile to "
          f"the same; seed {arguments.seed}, {seconds:.0f} s\n" + summary)
    rows = [(tried, noticed, late, len(survivors) - len(unexplained), len(unexplained))]
    rows += sorted((*key, reason or "") for *key, reason in survivors)
    (arguments.build / "result").write_text(
        "".join("\t".join(map(str, row)) + "\n" for row in rows))
    return 1 if unexplained or tried == 0 else 0


ROOT = TESTS.parents[3]
if __name__ == "__main__":
    sys.exit(main())
