#!/usr/bin/env python3
"""documents.py SOURCE ZEVSHM VIEWER: what the documents name is there. Looks at every Markdown file of the tree: relative
links with their anchors, files and folders of the tree, environment variables, manual pages, and options of our programs and
scripts."""
import pathlib
import re
import subprocess
import sys

FOLDERS = "bench|cmake|docs|examples|include|platform|qml|scripts|src|tests|tools"
COMMANDS = "publish list info top snapshot record relay dump".split()
OPTION = re.compile(r"(?<![\w-])--[a-z][a-z-]+")


def options_of(text):
    return set(OPTION.findall(text))


def help_of(*command):
    return subprocess.run([str(part) for part in command] + ["--help"], stdout=subprocess.PIPE, text=True, check=True).stdout


def anchor_of(heading):
    text = re.sub(r"[`*]|\[([^]]*)\]\([^)]*\)", r"\1", heading).strip().lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def without_blocks(text):
    return re.sub(r"^ *```.*?^ *```", "", text, flags=re.M | re.S)


def anchors_of(path):
    return {anchor_of(line.lstrip("#")) for line in without_blocks(path.read_text()).splitlines() if re.match(r"#+ ", line)}


def spans_of(text):
    """What is set as code: lines of blocks (continued ones as one), and words between backticks."""
    blocks = re.findall(r"^ *```[^\n]*\n(.*?)^ *```", text, flags=re.M | re.S)
    lines = [line for block in blocks for line in re.sub(r"\\\n", " ", block).splitlines()]
    return lines + re.findall(r"`([^`]+)`", without_blocks(text))


class Checker:
    def __init__(self, source, zevshm, viewer):
        self.source = source
        self.problems = []
        commands = {command: options_of(help_of(zevshm, command)) for command in COMMANDS}
        self.zevshm = {**commands, "": options_of(help_of(zevshm)) | {"--version"}}
        self.viewer = options_of(help_of(viewer)) | {"--version"}
        scripts = [path for path in [*source.glob("scripts/*"), *source.glob("bench/run"), *source.glob("tests/soak"),
                                     *source.glob("tests/vm/*"), *source.glob("tests/integration/shm_*.cpp"), source / "run", source / "test"] if path.is_file()]
        self.known = set.union(self.viewer, *self.zevshm.values(), *(options_of(path.read_text(errors="replace"))
                                                                     for path in scripts))
        sources = [path for folder in FOLDERS.split("|") if folder != "docs" for path in source.glob(f"{folder}/**/*")
                   if path.is_file() and "corpus" not in path.parts and path.suffix != ".md"]
        code = "".join(path.read_text(errors="replace") for path in [*sources, source / "run", source / "CMakeLists.txt",
                                                                     source / "CMakePresets.json"])
        self.variables = set(re.findall(r"\bZEV_[A-Z0-9_]+\b", code))
        self.variables |= set(re.findall(r"\bZEV_SYSTEM_\w+", (source / "docs/architecture.md").read_text()))

    def complain(self, path, text):
        self.problems.append(f"{path.relative_to(self.source)}: {text}")

    def links(self, path, text):
        for target in re.findall(r"\]\(([^)\s]+)\)", without_blocks(text)):
            if re.match(r"[a-z]+:", target):
                continue
            file, _, anchor = target.partition("#")
            found = (path.parent / file).resolve() if file else path
            if not found.exists():
                self.complain(path, f"the link to {target} leads nowhere")
            elif anchor and found.suffix == ".md" and anchor not in anchors_of(found):
                self.complain(path, f"{target}: there is no such heading")

    def files(self, path, spans):
        for span in spans:
            for name in re.findall(rf"(?<![\w/.$-])(?:{FOLDERS})/[\w./*+-]*[\w*]", span):
                if "AREA" in name or "CLASS" in name or re.match(r"(tests|bench)/?$", name):
                    continue
                if not list(self.source.glob(name)) and not list(self.source.glob(name + "*")):
                    self.complain(path, f"{name} is not in the tree")

    def names(self, path, text):
        for variable in set(re.findall(r"\bZEV_[A-Z0-9_]+\b", text)) - self.variables:
            self.complain(path, f"nothing knows of {variable}")
        for page in re.findall(r"`man (?:docs/man/)?([\w-]+)", text):
            if not list(self.source.glob(f"docs/man/{page}.[0-9]")):
                self.complain(path, f"there is no manual page of {page}")

    def options(self, path, spans):
        for span in spans:
            named = options_of(span)
            tool = re.search(r"\bzevshm(?: (\w+))?(.*)", span)
            viewer = re.search(r"\bzevqt-viewer\b(.*)", span)
            if tool:
                known = self.zevshm.get(tool.group(1) or "", set.union(*self.zevshm.values()))
                if tool.group(1) and re.fullmatch(r"[a-z]+", tool.group(1)) and tool.group(1) not in self.zevshm:
                    self.complain(path, f"'{span}': zevshm has no such command")
                unknown = options_of(re.split(r"[|&;]", tool.group(0))[0]) - known
            elif viewer:
                unknown = options_of(viewer.group(1)) - self.viewer
            elif re.match(r"--", span):
                unknown = named - self.known
            else:
                continue  # another program's
            for option in sorted(unknown):
                self.complain(path, f"'{span}': there is no option {option}")


def main():
    source = pathlib.Path(sys.argv[1]).resolve()
    checker = Checker(source, *sys.argv[2:4])
    documents = [path for path in [*source.glob("*.md"), *source.glob("docs/*.md"), *source.glob("examples/**/*.md"),
                                   *source.glob("tests/*/*.md")]]
    if len(documents) < 10:
        sys.exit(f"only {len(documents)} documents")
    for path in documents:
        text = path.read_text()
        spans = spans_of(text)
        checker.links(path, text)
        checker.files(path, spans)
        checker.names(path, text)
        checker.options(path, spans)
    readme = (source / "README.md").read_text()
    for path in source.glob("docs/*.md"):
        if f"(docs/{path.name})" not in readme:
            checker.complain(path, "README.md does not lead here")
    if checker.problems:
        sys.exit("\n".join(checker.problems))


main()
