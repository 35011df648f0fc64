"""A manual page in the man(7) macros, built piece by piece. Used by make_man_pages.py."""
import re
import textwrap

# The date of the last change to the manual's layout, fixed so that builds are reproducible.
REVISED = "2026-11-21"
RELEASE = "scclib 1"
MANUAL = "scclib manual"


def capital(words):
    return words[:1].upper() + words[1:]


def wrapped(text):
    return textwrap.wrap(text, 100, break_long_words=False, break_on_hyphens=False)


def escape(text):
    text = text.replace("\\", "\\e")
    return re.sub(r"(?m)^([.'])", r"\\&\1", text)


class Page:
    """Names of the header's functions become references; names of records and codes become bold."""

    def __init__(self, name, section, header):
        self.header = header
        self.name = name
        self.lines = [
            '.\\" Made by make_man_pages.py from the header.',
            f'.TH "{name.upper()}" {section} "{REVISED}" "{RELEASE}" "{MANUAL}"',
        ]

    def heading(self, title):
        self.lines.append(f".SH {title}")
        self.fresh = True

    def subheading(self, title):
        self.lines.append(f'.SS "{title}"')
        self.fresh = True

    def text(self, words):
        if not self.fresh:
            self.lines.append(".PP")
        self.fresh = False
        self.lines += wrapped(self.inline(words))

    def inline(self, words):
        words = escape(re.sub(r"(\bscc_\w+)\(\)", r"\1", words))

        def mark(match):
            word = match.group(0)
            if word == self.name:
                return f"\\fB{word}\\fP"
            if word in self.header.functions:
                return f"\\fB{word}\\fP(3)"
            return f"\\fB{word}\\fP"

        return re.sub(r"\b(?:struct scc_\w+|SCC_[A-Z][A-Z_]+\*?|_?scc_\w+|_get_get_avail_svrid|g_scc_\w+|scclib(?:-handlers)?(?=\(7\)))", mark, words)

    def name_line(self, words):
        self.fresh = False
        self.lines += wrapped(self.name.replace("-", "\\-") + " \\- " + escape(words))

    def item(self, tag, words):
        self.lines += [".TP", f"\\fB{escape(tag)}\\fP"]
        self.fresh = False
        self.lines += wrapped(self.inline(words))

    def code(self, text):
        self.lines += [".PP", ".nf"] if not self.fresh else [".nf"]
        self.fresh = False
        # A hyphen would not work in a command that is pasted into a shell.
        self.lines += [escape(line).replace("-", "\\-") or "\\&" for line in text.split("\n")]
        self.lines.append(".fi")

    def write(self, path):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text("\n".join(self.lines) + "\n", encoding="utf-8")


def broken_prototype(prototype):
    """A prototype wrapped for a terminal, broken only after commas."""
    lines = [""]
    for part in re.split(r"(?<=,) ", prototype):
        if lines[-1] and len(lines[-1]) + len(part) > 72:
            lines.append("    " + part)
        else:
            lines[-1] += (" " if lines[-1] else "") + part
    return "\n".join(lines)
