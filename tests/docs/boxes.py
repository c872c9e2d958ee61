"""The boxes of commands in a page: what is between ```sh and ```.

What stands in a comment on the line before the fence says how a test runs them; readers do not see it:

    <!-- not run: REASON -->      needs root, another host or minutes; only the options are checked
    <!-- with: NAME... -->        scene.sh starts these before the box and ends them after it
    <!-- until: SECONDS -->       the box's one command runs on until it is interrupted after this time
"""

import dataclasses
import re
import shlex

MARK = re.compile(r"^<!-- (not run|with|until): (.*\S) -->$")
PROGRAM = re.compile(r"^pkgdist-[a-z]+$")


@dataclasses.dataclass
class Box:
    line: int  # of the fence
    commands: str
    marks: dict

    @property
    def runs(self):
        return "not run" not in self.marks

    def count(self):
        return len(lines_of_shell(self.commands))


def lines_of_shell(text):
    """Commands as they are typed: without comments, continued lines as one."""
    joined = text.replace("\\\n", " ")
    return [line for line in joined.splitlines() if line.strip() and not line.lstrip().startswith("#")]


def boxes(text):
    found, open_box, marks = [], None, {}
    for number, line in enumerate(text.splitlines(keepends=True), 1):
        if open_box is not None:
            if line.rstrip() == "```":
                found.append(open_box)
                open_box = None
            else:
                open_box.commands += line
        elif line.rstrip() == "```sh":
            open_box, marks = Box(number, "", marks), {}
        elif mark := MARK.match(line.rstrip()):
            marks[mark[1]] = mark[2]
        else:
            if marks:
                raise ValueError(f"line {number}: a mark that belongs to no box")
    if open_box is not None:
        raise ValueError(f"line {open_box.line}: the box has no end")
    return found


def links(text):
    """The files that a page links to, as it writes them, without the place in them."""
    prose = re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)
    return [link for link in re.findall(r"\]\(([^)#\s]+)[^)]*\)", prose) if "://" not in link]


def script(text, page):
    """The boxes of a page as one script for bash, in which scene.sh has been read."""
    parts = []
    for box in boxes(text):
        if not box.runs:
            continue
        parts.append(f"begin_box '{page}:{box.line}' {box.marks.get('with', '')}\n")
        if "until" in box.marks:
            command, = lines_of_shell(box.commands)
            parts.append(f"run_until {box.marks['until']} {shlex.quote(command)}\n")
        else:
            parts.append(box.commands)
        parts.append("end_box\n")
    return "".join(parts)


def calls(commands):
    """(program, words) of the calls of this system's programs in a box."""
    for line in lines_of_shell(commands):
        words = shlex.split(line, comments=True)
        for at, word in enumerate(words):
            if PROGRAM.match(word) and (at == 0 or words[at - 1] in ("|", "&&", ";", "sudo")):
                yield word, words[at + 1:]


def options(words):
    return {word.split("=")[0] for word in words if re.match(r"^--?[a-z]", word)}
