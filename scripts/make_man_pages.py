#!/usr/bin/env python3
"""Generates the library's manual from the comments of its header.

usage: make_man_pages.py HEADER EXPORTS DIRECTORY [RECORDS_HEADER]

HEADER is scclib.h, EXPORTS the linker's version script. DIRECTORY gets man3/NAME.3 for every exported
name, man7/scclib.7 and man7/scclib-handlers.7; with RECORDS_HEADER, which is scc_records.h, also man3/NAME.3
for each of its functions and man7/scc_records.7. This program relies on the form of the header's comments: a
section begins with a comment of dashes; a function's comment directly precedes it; "Returns" begins the
sentence of the return values, which are separated by semicolons; "Handler:" names the handlers that get a
request's result; "Threads:" begins a comment's last part, which says who may call the function. That part
stands in the comment of the function, or of its section for all others, and may begin with the name of one
of the contracts in the list "Threads" of the head comment.
"""
import pathlib
import re
import sys

sys.dont_write_bytecode = True  # the build must not write to the source tree
from roff_page import Page, broken_prototype, capital, wrapped  # noqa: E402

ERRNO_NAMES = {"0": "Success", "2": "ENOENT", "5": "EIO", "12": "ENOMEM", "20": "ENOTDIR", "22": "EINVAL", "28": "ENOSPC",
               "32": "EPIPE"}  # fmt: skip

QUERIES = {
    "scc_mac_query", "scc_sp_port_addr_num", "scc_nac_user_get", "scc_nac_span_dport_set",
    "scc_is_arp_check_enabled", "scc_arp_check_user_count_get", "scc_arp_check_user_data_get",
    "scc_acl_get_filter_counter", "scc_acl_get_counter", "scc_ace_get_counter",
}  # fmt: skip


class Function:
    """A function or variable of the header, with the contents of its page."""

    def __init__(self, name, prototype, comment, section):
        self.name = name
        self.prototype = prototype
        self.section = section
        comment, self.threads = split_threads(comment)
        self.paragraphs, self.returns = split_returns(comment)
        inside = prototype[prototype.index("(") + 1 : prototype.rindex(")")] if "(" in prototype else ""
        self.parameters = [] if "(*" in inside else [p.strip() for p in inside.split(",") if p.strip() not in ("", "void")]
        self.handlers = handlers_named(comment)
        self.is_variable = "(" not in prototype
        self.is_void = prototype.startswith("void ")

    def summary(self):
        first = self.paragraphs[0]
        sentence = re.split(r"[.;:](?:\s|$)", first, maxsplit=1)[0]
        sentence = re.split(r", (?=with|for|as|which|the last)", sentence, maxsplit=1)[0]
        word = sentence.split(" ", 1)[0]
        return sentence if word.isupper() else sentence[0].lower() + sentence[1:]


def fail(text):
    sys.exit(f"make_man_pages: {text}")


def split_threads(comment):
    """Separates the part that begins with "Threads:"."""
    kept = []
    for index, paragraph in enumerate(comment):
        words, mark, threads = paragraph.partition("Threads: ")
        if words.strip():
            kept.append(words.strip())
        if mark:
            return kept, " ".join([threads] + comment[index + 1 :])
    return kept, ""


def split_returns(comment):
    """Separates the sentences that begin with "Returns" from a comment's paragraphs."""
    paragraphs, returns = [], []
    for paragraph in comment:
        kept = []
        for sentence in sentences(paragraph):
            (returns if sentence.startswith("Returns ") else kept).append(sentence)
        if kept:
            paragraphs.append(" ".join(kept))
    return paragraphs, " ".join(returns)


def sentences(paragraph):
    return re.split(r"(?<=[.])\s+(?=[A-Z*\"][A-Za-z\"* ])", paragraph)


def handlers_named(comment):
    found = re.search(r"Handlers?: ([a-z0-9_, ]+)\.", " ".join(comment))
    return [name.strip() for name in found.group(1).split(",")] if found else []


def paragraphs_of(raw):
    """The paragraphs of a comment, each as one line; list items begin with "- "."""
    lines = [re.sub(r"^\s*\*? ?", "", line).rstrip() for line in raw.strip().removeprefix("/*").removesuffix("*/").split("\n")]
    paragraphs, current = [], []
    for line in lines + [""]:
        text = line.strip()
        if (not text or text.startswith("- ")) and current:
            paragraphs.append(" ".join(current))
            current = []
        if text:
            current.append(text)
    return paragraphs


class Header:
    """The parsed header."""

    def __init__(self, text):
        self.head = paragraphs_of(text[: text.index("*/") + 2])
        self.functions, self.structs, self.codes, self.sections = {}, {}, [], {}
        self.section_threads = {}
        self.arguments = self.definitions("Arguments that")
        self.contracts = self.definitions("Threads")
        body = text[text.index('extern "C" {') :].split("pragma GCC visibility pop")[0]
        self.read(body)

    def head_part(self, title):
        """The list items after the paragraph of the head comment that begins with `title`."""
        index = next((i for i, p in enumerate(self.head) if p.startswith(title)), None)
        if index is None:
            fail(f"the head comment has no paragraph {title!r}")
        items = []
        for paragraph in self.head[index + 1 :]:
            if not paragraph.startswith("- "):
                break
            items.append(paragraph)
        return items

    def is_environment(self, paragraph):
        return "Environment" in self.head and paragraph in self.head_part("Environment")

    def definitions(self, title):
        """The list items "- name: words" after that paragraph, by name."""
        found = (re.match(r"- ([a-z_]+): (.*)", paragraph) for paragraph in self.head_part(title))
        return dict(match.groups() for match in found if match)

    def threads_of(self, function):
        """Who may call a function: its own comment's words or its section's, with the named contract in full."""
        words = function.threads or self.section_threads.get(function.section)
        if not words:
            fail(f"nothing says which threads may call {function.name}")
        name, _, rest = words.partition(".")
        if name in self.contracts:
            words = self.contracts[name] + rest
        return capital(words.replace("struct scc_ss_reg_info", "scclib-handlers(7)"))

    def result_list(self, title):
        text = next(p for p in self.head if p.startswith(title))
        return text.split(": ", 1)[1]

    def read(self, body):
        section, comment = "", []
        at = 0
        tokens = re.compile(
            r"/\*.*?\*/|#define [^\n]*(?:\\\n[^\n]*)*|(?:struct \w+ \{.*?\n\};)|[^;{}#/]+?;(?:[ \t]*/\*[^\n]*\*/)?|\S", re.S)
        while match := tokens.search(body, at):
            at = match.end()
            token = match.group(0).strip()
            banner = re.match(r"/\* ---- (.*?) -+ \*/", token)
            if banner:
                section, comment = banner.group(1), []
                self.sections[section] = []
            elif token.startswith("/*"):
                standalone = body[at : at + 2] == "\n\n"
                comment = paragraphs_of(token)
                if standalone:
                    if comment[0].startswith("Each function that shows an address"):
                        section = "addresses as text"
                    elif "answer may be given" in comment[0] or comment[0].startswith("A report"):
                        section = "the security service"
                    self.sections[section], threads = split_threads(comment)
                    self.section_threads[section] = threads or self.section_threads.get(section)
                    comment = []
            elif token.startswith("#define"):
                self.read_define(token)
            elif token.startswith("struct") and "{" in token:
                name = re.match(r"struct (\w+)", token).group(1)
                self.structs[name] = (comment, token)
                comment = []
            elif token.endswith(";") or token.endswith("*/"):
                self.read_declaration(token, comment, section)
                # A comment belongs to the declarations directly below it.
                if body[at : at + 2] == "\n\n":
                    comment = []

    def read_define(self, token):
        match = re.match(r"#define (SCC_E_\w+) (\d+)u\s*/\* (.*) \*/", token)
        if match:
            self.codes.append(match.groups())

    def read_declaration(self, token, comment, section):
        variable = re.match(r"extern (.*?(\w+)(?:\[\w+\])?;)\s*(?:/\* (.*) \*/)?$", token, re.S)
        if variable and "(" not in token:
            text = [capital(variable.group(3)) + "."] if variable.group(3) else []
            self.functions[variable.group(2)] = Function(variable.group(2), "extern " + variable.group(1), text, section)
            return
        match = re.match(r"[\w\s*]*?\b\*?(\w+)\(", token)
        if match and not token.startswith(("typedef", "extern")):
            function = Function(match.group(1), re.sub(r"\s+", " ", token), comment, section)
            function.notes = list(self.sections.get(section, []))
            self.functions[match.group(1)] = function


def read_table(definition):
    """The handlers of a table: (position, name, declaration, text)."""
    body = definition[definition.index("{") + 1 : definition.rindex("}")]
    rows, pending = [], None
    for match in re.finditer(r"(/\*.*?\*/)|([^;/]+?\(\*(\w+)\)\([^;]*\);)([ \t]*/\*[^\n]*\*/)?", body, re.S):
        if match.group(1):
            pending = match.group(1)
            continue
        text = " ".join(paragraphs_of(match.group(4) or pending or ""))
        position, _, words = text.partition(":")
        if not position.strip().isdigit():
            fail(f"handler {match.group(3)} has no position")
        rows.append((int(position), match.group(3), re.sub(r"\s+", " ", match.group(2)).strip(), words.strip()))
        pending = None
    return rows


def parameter_name(parameter):
    return re.search(r"(\w+)(?:\[\d*\])?$", parameter).group(1)


WIDTHS = {
    "char": "Text",
    "uint8_t": "A number of 8 bits",
    "uint16_t": "A number of 16 bits",
    "uint32_t": "A number of 32 bits",
    "uint64_t": "A number of 64 bits",
    "int": "A signed number of 32 bits",
    "int32_t": "A signed number of 32 bits",
}


def describe_parameter(header, function, parameter):
    """The common description of the parameter's name, else that of its record, else its width."""
    name = parameter_name(parameter)
    struct = re.search(r"struct (scc_\w+) \*", parameter)
    if name.startswith("unused_"):
        return "The service's own; not sent."
    if name in header.arguments and (name != "key" or (struct and function.name != "scc_user_acl_delete_vmsup")):
        return header.arguments[name]
    if struct and struct.group(1) in header.structs:
        return f"Points to a struct {struct.group(1)}. " + " ".join(header.structs[struct.group(1)][0])
    pointee = parameter[: -len(name)].replace("const", "").replace("*", "").strip()
    if "*" in parameter and "const" in parameter:
        return "Belongs to the caller and is read before the call returns."
    if name == "master":
        return "The event loop. Belongs to the caller."
    if "*" in parameter:
        return f"Belongs to the caller and is written before the call returns. {WIDTHS.get(pointee, 'Bytes')}."
    if "in6_addr" in parameter:
        return "16 bytes in network byte order, by value."
    network = name in ("ip", "mask") and "network order" in " ".join(function.paragraphs)
    return f"{WIDTHS[pointee]} in {'network' if network else 'host'} byte order."


def return_items(text):
    """Splits "Returns A; B when ...; C" into (tag, explanation)."""
    items = []
    for part in re.split(r";\s+", text.removeprefix("Returns ").rstrip(".")):
        found = re.match(r"(\d+|SCC_E_\w+)(?:,?\s+(.*))?$", part)
        tag, words = (found.group(1), found.group(2)) if found else ("other", part)
        items.append((tag, words))
    return items


class Manual:
    include = "scclib.h"

    def __init__(self, header, directory):
        self.header, self.directory = header, directory
        self.table = read_table(header.structs["scc_handlers"][1])
        self.service_table = read_table(header.structs["scc_ss_reg_info"][1])
        self.code_texts = {name: text for name, _, text in header.codes}

    def page(self, name):
        function = self.header.functions[name]
        page = Page(name, 3, self.header)
        page.heading("NAME")
        page.name_line(function.summary())
        page.heading("SYNOPSIS")
        page.lines += [f".B #include <{self.include}>", ".PP"]
        page.fresh = True
        page.code(broken_prototype(function.prototype))
        page.heading("DESCRIPTION")
        for paragraph in function.paragraphs:
            page.text(paragraph)
        if function.is_variable:
            self.describe_variable(page, function)
        for parameter in function.parameters:
            page.item(parameter_name(parameter), capital(describe_parameter(self.header, function, parameter)))
        self.describe_handlers(page, function)
        if not function.is_variable:
            page.heading("RETURN VALUE")
            self.return_value(page, function)
        page.heading('"THREAD SAFETY AND HANDLERS"')
        page.text(self.threads(function))
        if getattr(function, "notes", None) and self.in_family(function):
            page.heading("NOTES")
            for paragraph in function.notes:
                page.text(paragraph)
        page.heading('"SEE ALSO"')
        self.see_also(page, function)
        page.write(self.directory / "man3" / f"{name}.3")

    def describe_variable(self, page, function):
        if "struct scc_perf_entry" in function.prototype:
            comment, definition = self.header.structs["scc_perf_entry"]
            for paragraph in comment:
                page.text(paragraph)
            page.code(definition)

    def describe_handlers(self, page, function):
        for name in function.handlers:
            row = next((row for row in self.table if row[1] == name), None)
            if row is None:
                fail(f"{function.name} names the handler {name}, which is not in the table")
            if name == "server_status":
                page.text("The server_status handler gets 0 when the daemon is lost, 1 when it is registered (again).")
                continue
            page.text(f"The result arrives as a call of the handler {name}, position {row[0]} of the table, with the "
                      "operation's result code, the request's call id and the request's own arguments:")
            page.code(broken_prototype(row[2]))

    def return_value(self, page, function):
        returns = function.returns
        if function.is_void:
            page.text("This function returns nothing.")
            return
        if not returns:
            title = "synchronous" if function.name in QUERIES else "asynchronous"
            if title == "asynchronous" and not function.handlers:
                fail(f"the comment of {function.name} does not say what it returns")
            returns = "Returns " + self.header.result_list(f"Result codes of every {title}")
            if title == "asynchronous":
                page.text("These codes say whether the request was accepted; its result is passed to the handler.")
        if not function.prototype.startswith("uint32_t") or not re.search(r"; |SCC_E_", returns):
            page.text(returns)
            return
        for tag, words in return_items(returns):
            meaning = ERRNO_NAMES.get(tag) or ("" if words else self.code_texts.get(tag, ""))
            page.item(tag, capital(", ".join(part for part in (meaning, words) if part)) + ".")

    def threads(self, function):
        if function.is_variable:
            return capital(self.header.contracts["variable"])
        return self.header.threads_of(function)

    def family_of(self, function):
        """The pages of section 7 that end every list of related pages."""
        return [".BR scclib (7),", ".BR scclib\\-handlers (7)"]

    @staticmethod
    def in_family(function):
        """Whether the notes of the section apply to this function."""
        if function.section == "configuration requests":
            return bool(function.handlers)
        if function.section == "synchronous queries":
            return function.name in QUERIES
        if function.section == "the security service":
            return function.name not in ("scc_ss_reg", "scc_ss_fetch_func", "scc_ssc_appmng_get_callback")
        return function.section in ("ACL management", "addresses as text") and function.name not in (
            "scc_data_recover", "ip_set", "mask_count")

    def see_also(self, page, function):
        said = " ".join(function.paragraphs)
        named = [n for n in self.header.functions if n != function.name and re.search(rf"\b{n}\b", said)]
        family = [n for n, f in self.header.functions.items() if f.section == function.section]
        at = family.index(function.name)
        beside = [n for n in family[max(0, at - 2) : at + 3] if n != function.name]
        names = sorted(set(named) | set(beside) | ({"scc_strerror"} - {function.name}), key=lambda n: n.lstrip("_"))
        pages = [f".BR {n} (3)," for n in names] + self.family_of(function)
        page.lines += pages

    # ---- section 7 --------------------------------------------------------------------------------

    def begin_overview(self, summary, said):
        name = self.include.removesuffix(".h")
        page = Page(name, 7, self.header)
        page.heading("NAME")
        page.name_line(summary)
        page.heading("SYNOPSIS")
        page.lines.append(f".B #include <{self.include}>")
        page.lines += [".PP", f"cc \\fIfile.c\\fP $(pkg\\-config \\-\\-cflags \\-\\-libs {name})"]
        page.heading("DESCRIPTION")
        page.text(said)
        return page

    def overview(self):
        page = self.begin_overview("the client library of the security-control daemon",
                                   re.sub(r"^scclib: ", "This is ", self.header.head[0]))
        for paragraph in self.header.head[1:]:
            self.head_paragraph(page, paragraph)
        self.codes(page)
        self.function_list(page)
        self.records(page)
        self.files(page)
        page.heading('"SEE ALSO"')
        page.lines += [".BR scclib\\-handlers (7),", ".BR scc_svr_reg (3),", ".BR scc_agent_init (3),",
                       ".BR scc_ss_reg (3),", ".BR sccctl (1),", ".BR sccd\\-dev (1),", ".BR scc\\-ss\\-dev (1)"]
        page.write(self.directory / "man7" / "scclib.7")

    def head_paragraph(self, page, paragraph):
        if paragraph == "Environment" or self.header.is_environment(paragraph):
            return
        if paragraph in ("Conventions", "Threads") or paragraph.startswith("Arguments that"):
            page.subheading(paragraph)
        elif paragraph.startswith("- ") and re.match(r"- [a-z_]+: ", paragraph):
            name, words = paragraph[2:].split(": ", 1)
            page.item(name, capital(words))
        elif paragraph.startswith("- "):
            page.lines += [".IP \\(bu 3"]
            page.fresh = False
            page.lines += wrapped(page.inline(paragraph[2:]))
        else:
            page.text(paragraph)

    def codes(self, page):
        page.heading('"RESULT CODES"')
        page.text("In addition to 0, errno numbers and 32 (the daemon closed the connection):")
        for name, number, text in self.header.codes:
            page.item(f"{name} ({number})", capital(text) + ".")

    def function_list(self, page):
        page.heading("FUNCTIONS")
        section = None
        for function in self.header.functions.values():
            if function.section != section:
                section = function.section
                page.subheading(capital(section))
            page.lines += [".TP", f".BR {function.name} (3)"]
            page.fresh = False
            page.lines += wrapped(page.inline(capital(function.summary()) + "."))

    def records(self, page):
        page.heading("RECORDS")
        for name, (comment, definition) in self.header.structs.items():
            if name in ("scc_handlers", "scc_ss_reg_info"):
                continue
            page.subheading(f"struct {name}")
            for paragraph in comment:
                page.text(paragraph)
            page.code(definition)

    def files(self, page):
        page.heading("ENVIRONMENT")
        for paragraph in self.header.head_part("Environment"):
            name, words = paragraph[2:].split(": ", 1)
            page.item(name, capital(words))
        page.heading("FILES")
        page.item("$TMPDIR/security/scc/.sccd_sd_", "The socket on which the daemon listens.")
        page.item("$TMPDIR/security/scc/.sccl_sd1_PID, .sccl_sd2_PID",
                  "The synchronous and the asynchronous socket of the registered process PID.")
        page.item("$DATA_QXOS_DIR/security/scc/scclib_dbg.txt", "The debug switch file.")

    def handlers(self):
        page = Page("scclib-handlers", 7, self.header)
        page.heading("NAME")
        page.name_line("the handlers of applications and of the security service")
        page.heading("SYNOPSIS")
        page.lines.append(".B #include <scclib.h>")
        page.heading("DESCRIPTION")
        page.text("An application gives its handlers to scc_svr_reg or scc_agent_init, the security service its own to "
                  "scc_ss_reg. The tables are read once; unused slots are null.")
        page.heading('"HANDLERS OF AN APPLICATION"')
        for paragraph in self.header.structs["scc_handlers"][0]:
            page.text(paragraph)
        self.rows(page, self.table)
        page.heading('"HANDLERS OF THE SECURITY SERVICE"')
        for paragraph in self.header.structs["scc_ss_reg_info"][0]:
            page.text(paragraph)
        self.rows(page, self.service_table)
        page.heading('"OPERATION RECORDS"')
        for paragraph in self.header.operation_notes:
            page.text(paragraph)
        page.text("Every operation record begins with:")
        page.code(self.header.operation_head)
        page.text("The records themselves are shown in scclib(7).")
        page.heading('"SEE ALSO"')
        page.lines += [".BR scclib (7),", ".BR scc_svr_reg (3),", ".BR scc_agent_init (3),", ".BR scc_ss_reg (3)"]
        page.write(self.directory / "man7" / "scclib-handlers.7")

    def rows(self, page, table):
        if [row[0] for row in table] != list(range(len(table))):
            fail("the positions of a handler table are not consecutive")
        for position, name, declaration, text in table:
            page.subheading(f"{position}: {name}")
            page.text((capital(text) + ".").replace("..", ".") if text else
                      "0 when the daemon is lost, 1 when the service is registered (again).")
            page.code(broken_prototype(declaration))


class RecordsManual(Manual):
    """The pages of scc_records.h: no handlers, no result codes of its own."""

    include = "scc_records.h"

    def __init__(self, header, directory):
        self.header, self.directory = header, directory
        self.table, self.code_texts = [], {}

    def family_of(self, function):
        return [".BR scc_records (7),", ".BR scclib (7)"]

    def overview(self):
        page = self.begin_overview("the contents of the records that scclib passes on unread",
                                   re.sub(r"^scc_records: ", "These are ", self.header.head[0]))
        for paragraph in self.header.head[1:]:
            if paragraph == "The text of an ACE":
                page.subheading(paragraph)
            else:
                self.head_paragraph(page, paragraph)
        self.function_list(page)
        self.records(page)
        page.heading('"SEE ALSO"')
        page.lines += [".BR scclib (7),", ".BR scc_acl_add_ace (3),", ".BR sccctl (1),", ".BR services (5)"]
        page.write(self.directory / "man7" / "scc_records.7")


def exported(text):
    return re.findall(r"^    ([A-Za-z_]\w*);$", text, re.M)


def make_records_pages(path, directory):
    manual = RecordsManual(Header(path.read_text(encoding="utf-8")), directory)
    for name in manual.header.functions:
        manual.page(name)
    manual.overview()


def main():
    if len(sys.argv) not in (4, 5):
        sys.exit(__doc__)
    text = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")
    header = Header(text)
    head = re.search(r"#define SCC_SS_OPERATION_HEAD(.*?[^\\])\n", text, re.S).group(1)
    header.operation_head = "\n".join(line.rstrip(" \\").strip() for line in head.split("\n") if line.strip(" \\"))
    notes = re.search(r"/\* (An operation record .*?) \*/", text, re.S).group(1)
    header.operation_notes = paragraphs_of(notes)
    manual = Manual(header, pathlib.Path(sys.argv[3]))
    names = exported(pathlib.Path(sys.argv[2]).read_text(encoding="utf-8"))
    missing = [name for name in names if name not in header.functions]
    if missing:
        fail("not declared with a comment: " + " ".join(missing))
    for name in names:
        manual.page(name)
    manual.overview()
    manual.handlers()
    if len(sys.argv) == 5:
        make_records_pages(pathlib.Path(sys.argv[4]), pathlib.Path(sys.argv[3]))


if __name__ == "__main__":
    main()
