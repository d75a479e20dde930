#!/usr/bin/env python3
"""Finds the deepest chain of calls in a build of the service, with the bytes of each frame.

usage: stack.py FOLDER

FOLDER holds what GCC's -fcallgraph-info=su writes beside each object file: *.ci. Frames that are in
no such file, those of the C and C++ libraries, are not included.

The chain is an upper bound: every call that stands in the code counts, whether it can be made at that
point or not. A function that is reached again from itself is counted more than once, as often as the
service's own rules let it: see AGAIN. Prints "chain BYTES", the chain line by line, then the same of
the signal handler, then a line each of "functions", "dynamic" (frames whose size has no bound),
"bounded" (frames that grow within a known bound), "indirect" and "recursive". Status 1: a function of
the project is called and has no frame, or a function other than main calls through a pointer.
"""
import pathlib
import re
import sys

# How often a function can be in one chain. The alarm is read once again after the restart of a fan,
# and an alert within an alert leads to no third one. A tree is taken down level by level, and sorting
# halves again and again: 16 levels are all disks that there can be, 20 a thousand files in the
# driver's folder, 40 a million steps of a table.
TWICE = 2
AGAIN = [(re.compile(r"_Rb_treeINSt7__cxx1112basic_string.*_M_erase"), 16),
         (re.compile(r"__introsort_loop"), 20), (re.compile(r"_M_erase"), 40)]
NODE = re.compile(r'^node: \{ title: "(.*?)" label: "(.*?)"(.*)\}$', re.M)
EDGE = re.compile(r'^edge: \{ sourcename: "(.*?)" targetname: "(.*?)"', re.M)
INDIRECT = "__indirect_call"
# Of the C++ library, when no file has its frame.
LIBRARY = re.compile(r"_Z(?:NK?St|St|[nd][wal])")


class Graph:
    def __init__(self, folder):
        self.frame, self.name, self.calls, self.kind = {}, {}, {}, {}
        for path in sorted((folder / "components").rglob("*.ci")):
            text = path.read_text()
            for title, label, rest in NODE.findall(text):
                size = re.search(r"(\d+) bytes \(([a-z,]+)\)", label)
                if size is None:
                    continue  # of another file
                self.frame[title] = int(size[1])
                # Without what the compiler has made of it, and without its template's arguments.
                signature = re.sub(r" \[with .*", "", label.split("\\n")[0]).replace("{anonymous}::", "")
                self.name[title] = signature
                self.kind[title] = size[2]
            for source, target in EDGE.findall(text):
                self.calls.setdefault(source, set()).add(target)
        for source, targets in self.calls.items():
            self.calls[source] = {self.body(target) for target in targets}
        self.group = self.groups()

    def body(self, title):
        """The name that has the frame: a second name of a function has none of its own, and neither has
        a constructor or destructor of a complete object that is the same as that of a base."""
        plain = title.removesuffix(".localalias")
        for name in (title, plain, plain.rpartition(":")[2]):
            for same in (name, re.sub(r"([CD])1(?=E)", r"\g<1>2", name)):
                if same in self.frame:
                    return same
        return title

    def without_frame(self):
        """The project's functions that are called and have no frame."""
        targets = set().union(*self.calls.values()) - set(self.frame)
        return sorted(title for title in targets
                      if ":" in title or title.startswith("_Z") and not LIBRARY.match(title))

    def of_kind(self, kind):
        names = sorted(self.name[title] for title in self.frame if self.kind[title] == kind)
        return len(names), ", ".join(names)

    def callees(self, title):
        return [target for target in sorted(self.calls.get(title, ())) if target in self.frame]

    def groups(self):
        """The functions that reach each other have the same number (Tarjan)."""
        order, low, group, stack = {}, {}, {}, []

        def visit(title):
            order[title] = low[title] = len(order)
            stack.append(title)
            for target in self.callees(title):
                if target not in order:
                    visit(target)
                if target not in group:
                    low[title] = min(low[title], low[target])
            if low[title] == order[title]:
                while True:
                    member = stack.pop()
                    group[member] = order[title]
                    if member == title:
                        break

        for title in self.frame:
            if title not in order:
                visit(title)
        return group

    def is_recursive(self, title):
        return title in self.calls.get(title, ()) or \
            sum(group == self.group[title] for group in self.group.values()) > 1

    def limit(self, title):
        return next((times for pattern, times in AGAIN if pattern.search(title)), TWICE)

    def deepest(self, title, known=None):
        """(bytes, chain) from a function on."""
        known = {} if known is None else known
        if title in known:
            return known[title]
        best = (0, [])

        def walk(current, size, chain, times):
            """Within the group of functions that reach each other; known is for what lies behind."""
            nonlocal best
            times[current] = times.get(current, 0) + 1
            size += self.frame[current]
            chain = chain + [current]
            if size > best[0]:
                best = (size, chain)
            for target in self.callees(current):
                if self.group[target] != self.group[current]:
                    behind = self.deepest(target, known)
                    if size + behind[0] > best[0]:
                        best = (size + behind[0], chain + behind[1])
                elif times.get(target, 0) < self.limit(target):
                    walk(target, size, chain, times)
            times[current] -= 1

        walk(title, 0, [], {})
        known[title] = best
        return best


def show(graph, word, root):
    size, chain = graph.deepest(root)
    print(f"{word} {size}")
    while chain:
        times = next((n for n, title in enumerate(chain) if title != chain[0]), len(chain))
        print(f"{graph.frame[chain[0]]:6} " + (f"{times} x " if times > 1 else "") + graph.name[chain[0]])
        chain = chain[times:]


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: stack.py FOLDER")
    graph = Graph(pathlib.Path(sys.argv[1]))
    handler = [title for title in graph.frame if "signal_handler" in title]
    if "main" not in graph.frame or len(handler) != 1:
        sys.exit("stack.py: there is no main, or no signal handler, in " + sys.argv[1])
    show(graph, "chain", "main")
    show(graph, "handler", handler[0])
    print("functions", len(graph.frame))
    print("dynamic", *graph.of_kind("dynamic"))
    print("bounded", *graph.of_kind("dynamic,bounded"))
    indirect = sorted(graph.name[title] for title in graph.frame if INDIRECT in graph.calls.get(title, ()))
    print("indirect", len(indirect), ", ".join(indirect))
    recursive = sorted(graph.name[title] for title in graph.frame if graph.is_recursive(title))
    print("recursive", len(recursive), ", ".join(recursive))
    missing = graph.without_frame()
    if missing:
        sys.exit("stack.py: called, and no file has the frame: " + ", ".join(missing))
    if any(INDIRECT in targets for source, targets in graph.calls.items() if source != "main"):
        sys.exit("stack.py: a function other than main calls through a pointer")


if __name__ == "__main__":
    main()
