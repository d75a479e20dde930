#!/usr/bin/env python3
"""Finds the deepest chain of calls in a build of the service, with the bytes of each frame.

usage: stack.py FOLDER

FOLDER holds what GCC's -fcallgraph-info=su writes beside each object file: *.ci. Frames that are in
no such file, those of the C and C++ libraries, are not included.

A function that is reached again from itself is counted more than once, as often as the service's own
rules let it: see AGAIN. Prints "chain BYTES", the chain line by line, then the same of the signal
handler, then a line each of "functions", "dynamic", "indirect" and "recursive".
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


class Graph:
    def __init__(self, folder):
        self.frame, self.name, self.calls, self.dynamic = {}, {}, {}, set()
        for path in sorted(folder.rglob("*.ci")):
            text = path.read_text()
            for title, label, rest in NODE.findall(text):
                size = re.search(r"(\d+) bytes \(([a-z,]+)\)", label)
                if size is None:
                    continue  # of another file
                self.frame[title] = int(size[1])
                # Without what the compiler has made of it, and without its template's arguments.
                signature = re.sub(r" \[with .*", "", label.split("\\n")[0]).replace("{anonymous}::", "")
                self.name[title] = signature
                if size[2] == "dynamic":
                    self.dynamic.add(title)
            for source, target in EDGE.findall(text):
                self.calls.setdefault(source, set()).add(target)
        self.group = self.groups()

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
    print("dynamic", len(graph.dynamic), *(graph.name[title] for title in sorted(graph.dynamic)))
    indirect = sorted(graph.name[title] for title in graph.frame if INDIRECT in graph.calls.get(title, ()))
    print("indirect", len(indirect), ", ".join(indirect))
    recursive = sorted(graph.name[title] for title in graph.frame if graph.is_recursive(title))
    print("recursive", len(recursive), ", ".join(recursive))


if __name__ == "__main__":
    main()
