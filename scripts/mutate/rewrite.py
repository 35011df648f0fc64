"""Rewrites C++ sources so that every mutant is chosen at run time.

`rewrite(path, ...)` parses one file with libclang and returns its text with calls of mutate.h inserted, and the list of
mutants. No line moves, so an error of the compiler names the line of the original.
"""

import hashlib
import re
from dataclasses import dataclass, field
from pathlib import Path

from clang import cindex
from clang.cindex import CursorKind as Kind
from clang.cindex import TypeKind

COMPARISONS = {
    "<": ("less", ["<=", ">="]),
    "<=": ("less_equal", ["<", ">"]),
    ">": ("greater", [">=", "<="]),
    ">=": ("greater_equal", [">", "<"]),
    "==": ("equal", ["!="]),
    "!=": ("not_equal", ["=="]),
}
ARITHMETIC = {
    "+": ("plus", "-"),
    "-": ("minus", "+"),
    "*": ("multiply", "/"),
    "/": ("divide", "*"),
    "%": ("modulo", "*"),
    "<<": ("shift_left", ">>"),
    ">>": ("shift_right", "<<"),
    "&": ("bit_and", "|"),
    "|": ("bit_or", "&"),
    "^": ("bit_xor", "&"),
}
ASSIGNMENTS = {
    "+=": ("plus_assign", "-="),
    "-=": ("minus_assign", "+="),
    "*=": ("multiply_assign", "+="),
    "/=": ("divide_assign", "*="),
    "%=": ("modulo_assign", "*="),
    "&=": ("and_assign", "|="),
    "|=": ("or_assign", "&="),
    "^=": ("xor_assign", "|="),
    "<<=": ("shift_left_assign", ">>="),
    ">>=": ("shift_right_assign", "<<="),
}
FUNCTIONS = {
    Kind.FUNCTION_DECL,
    Kind.CXX_METHOD,
    Kind.CONSTRUCTOR,
    Kind.DESTRUCTOR,
    Kind.CONVERSION_FUNCTION,
    Kind.FUNCTION_TEMPLATE,
}
SCOPES = {Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.CLASS_TEMPLATE, Kind.CLASS_TEMPLATE_PARTIAL_SPECIALIZATION}
INTEGERS = {
    TypeKind.CHAR_U, TypeKind.CHAR_S, TypeKind.SCHAR, TypeKind.UCHAR, TypeKind.SHORT, TypeKind.USHORT, TypeKind.INT,
    TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG, TypeKind.ULONGLONG,
}
EXPRESSION_STATEMENTS = {
    Kind.CALL_EXPR, Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.UNARY_OPERATOR, Kind.UNEXPOSED_EXPR,
    Kind.CSTYLE_CAST_EXPR, Kind.CXX_STATIC_CAST_EXPR, Kind.CXX_DELETE_EXPR, Kind.PAREN_EXPR,
}
LITERAL = re.compile(r"^(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uUlLzZ]*)$")
SIMPLE = re.compile(r"^[\w.:>&*-]+$")


@dataclass
class Mutant:
    id: int
    file: str
    line: int
    function: str
    operator: str
    before: str
    after: str
    name: str = ""
    digest: str = ""  # of the function's text
    site: int = 0  # the identifier whose byte tells that it was reached


@dataclass
class Result:
    text: bytes
    mutants: list
    skipped: dict = field(default_factory=dict)


@dataclass
class Context:
    function: str = ""
    digest: str = ""
    skip: str = ""  # why nothing below is mutated
    compile_time: bool = False  # not even a lambda below runs later
    returns: object = None


class Rewriter:
    def __init__(self, unit, path, label, first_id, rejected):
        self.source = Path(path).read_bytes()
        self.unit = unit
        self.path = path
        self.label = label
        self.next_id = first_id
        self.rejected = rejected
        self.edits = []
        self.mutants = []
        self.skipped = {}
        self.sequence = 0
        self.names = {}
        self.macros = []
        self.places = set()
        self.negated = set()
        self.whole_results = set()  # places of returned expressions, which have an operator of their own
        for cursor in unit.cursor.get_children():
            if cursor.kind == Kind.MACRO_INSTANTIATION and self.is_here(cursor):
                self.macros.append(self.range_of(cursor))

    # Text and places.

    def is_here(self, cursor):
        return cursor.location.file is not None and cursor.location.file.name == self.path

    def range_of(self, cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def text(self, start, end):
        return self.source[start:end].decode()

    def text_of(self, cursor):
        return self.text(*self.range_of(cursor))

    def line_of(self, offset):
        return self.source.count(b"\n", 0, offset) + 1

    def in_macro(self, start, end):
        return any(a <= start and end <= b for a, b in self.macros)

    def skip(self, reason, count=1):
        self.skipped[reason] = self.skipped.get(reason, 0) + count

    # Mutants and edits.

    def site(self, context, operator, at, alternatives):
        """Registers one mutant for each (before, after); returns the identifier, or None when none may be made."""
        if (operator, at, str(alternatives)) in self.places:
            return None  # a specialisation of a template that the parser shows once more
        self.places.add((operator, at, str(alternatives)))
        if context.skip:
            self.skip(context.skip, len(alternatives))
            return None
        made = []
        ordinals = dict(self.names)
        for before, after in alternatives:
            before, after = " ".join(before.split()), " ".join(after.split())
            key = (context.function, operator, before, after)
            ordinal = ordinals.get(key, 0)
            ordinals[key] = ordinal + 1
            name = f"{self.label}|{context.function}|{operator}|{before} -> {after}|{ordinal}"
            made.append(Mutant(0, self.label, self.line_of(at), context.function, operator, before, after, name,
                               context.digest))
        self.names = ordinals
        if any(mutant.name in self.rejected for mutant in made):
            self.skip("does not compile", len(made))
            return None
        first = self.next_id
        for mutant in made:
            mutant.id = self.next_id
            mutant.site = first
            self.next_id += 1
            self.mutants.append(mutant)
        return first

    def wrap(self, start, end, before, after):
        self.sequence += 1
        self.edits.append((start, 1, self.sequence, start, before))
        self.edits.append((end, 0, -self.sequence, end, after))

    def replace(self, start, end, text):
        self.sequence += 1
        self.edits.append((start, 2, self.sequence, end, text))

    def apply(self):
        out, at = [], 0
        for start, _, _, end, text in sorted(self.edits, key=lambda edit: edit[:3]):
            out.append(self.source[at:start])
            out.append(text.encode())
            at = end
        out.append(self.source[at:])
        return b"".join(out)

    # The walk.

    def run(self):
        for cursor in self.unit.cursor.get_children():
            if self.is_here(cursor) and not cursor.kind.is_preprocessing():
                self.visit(cursor, None, Context())
        return Result(self.apply(), self.mutants, self.skipped)

    def visit(self, node, parent, context):
        start, end = self.range_of(node)
        if node.kind.is_attribute() or not self.is_here(node):
            return
        if node.kind.is_expression() and self.in_macro(start, end):
            self.skip("macro")
            return
        context = self.context_for(node, parent, context)
        self.mutate(node, parent, context)
        for child in node.get_children():
            below = context
            if self.is_constant_place(node, child):
                below = self.skipping(context, "constant expression")
            self.visit(child, node, below)

    def skipping(self, context, reason):
        return Context(context.function, context.digest, context.skip or reason, context.compile_time, context.returns)

    def context_for(self, node, parent, context):
        kind = node.kind
        if kind in FUNCTIONS:
            head = self.text(node.extent.start.offset, node.extent.end.offset).split("{")[0]
            owner = node.semantic_parent
            name = re.sub(r"<.*", "", node.spelling)
            if owner is not None and owner.kind in SCOPES:
                name = f"{owner.spelling}::{name}"
            digest = hashlib.sha256(" ".join(self.text_of(node).split()).encode()).hexdigest()[:12]
            compile_time = bool(re.search(r"\bconsteval\b", head))
            return Context(name, digest, "constant expression" if compile_time else "", compile_time, node.result_type)
        if kind == Kind.LAMBDA_EXPR:
            if context.compile_time:
                return context
            return Context(context.function or "lambda", context.digest, "", False, None)
        if kind == Kind.VAR_DECL:
            line_start = self.source.rfind(b"\n", 0, node.extent.start.offset) + 1
            head = self.text(line_start, node.location.offset)
            if re.search(r"\bconstexpr\b", head):
                return self.skipping(context, "constant expression")
            if not context.function or re.search(r"\bconstinit\b", head):
                return self.skipping(context, "initial value of a global")
        if kind == Kind.UNEXPOSED_DECL and re.search(r"\bconstexpr\b", self.text_of(node).split("=")[0].split("{")[0]):
            return self.skipping(context, "constant expression")  # a variable template
        if kind == Kind.FIELD_DECL or kind == Kind.PARM_DECL:
            return self.skipping(context, "default value")
        if kind in (Kind.STATIC_ASSERT, Kind.ENUM_DECL, Kind.CXX_UNARY_EXPR, Kind.TEMPLATE_NON_TYPE_PARAMETER,
                    Kind.TYPE_ALIAS_DECL, Kind.TYPEDEF_DECL, Kind.TEMPLATE_TYPE_PARAMETER,
                    Kind.TEMPLATE_TEMPLATE_PARAMETER):
            below = self.skipping(context, "constant expression")
            below.compile_time = True
            return below
        if kind == Kind.CALL_EXPR and node.spelling == "__builtin_prefetch":
            return self.skipping(context, "prefetch")
        return context

    def is_constant_place(self, node, child):
        if node.kind == Kind.CASE_STMT:
            return self.range_of(child)[0] == self.first_child_start(node)
        if node.kind in (Kind.DECL_REF_EXPR, Kind.MEMBER_REF_EXPR, Kind.TYPE_REF, Kind.TEMPLATE_REF):
            return child.kind in (Kind.INTEGER_LITERAL, Kind.DECL_REF_EXPR, Kind.BINARY_OPERATOR, Kind.UNARY_OPERATOR,
                                  Kind.CXX_BOOL_LITERAL_EXPR) and self.range_of(child)[0] != self.range_of(node)[0]
        if node.kind == Kind.VAR_DECL and self.range_of(child)[1] <= node.location.offset:
            return True  # an argument of the type
        if node.kind in (Kind.VAR_DECL, Kind.CALL_EXPR, Kind.CXX_FUNCTIONAL_CAST_EXPR):
            before = self.source[: self.range_of(child)[0]].rstrip()
            if before.endswith(b"[") and node.kind == Kind.VAR_DECL:
                return True
            return before.endswith(b"<") and child.kind in (Kind.INTEGER_LITERAL, Kind.DECL_REF_EXPR,
                                                            Kind.CXX_BOOL_LITERAL_EXPR)
        if node.kind == Kind.IF_STMT:
            if re.match(r"if\s+constexpr\b", self.text_of(node)):
                return child.kind != Kind.COMPOUND_STMT and child.kind != Kind.IF_STMT
        return False

    def first_child_start(self, node):
        for child in node.get_children():
            return self.range_of(child)[0]
        return -1

    # The operators.

    def mutate(self, node, parent, context):
        kind = node.kind
        if kind == Kind.COMPOUND_STMT:
            self.delete_statements(node, parent, context)
        elif kind == Kind.BINARY_OPERATOR:
            self.binary(node, context)
        elif kind == Kind.COMPOUND_ASSIGNMENT_OPERATOR:
            self.compound_assignment(node, context)
        elif kind == Kind.UNARY_OPERATOR:
            self.unary(node, context)
        elif kind in (Kind.INTEGER_LITERAL, Kind.CHARACTER_LITERAL, Kind.CXX_BOOL_LITERAL_EXPR):
            self.literal(node, context)
        elif kind == Kind.DECL_REF_EXPR:
            self.named_constant(node, context)
        elif kind in (Kind.IF_STMT, Kind.WHILE_STMT, Kind.CONDITIONAL_OPERATOR):
            self.condition(node, context)
        elif kind == Kind.RETURN_STMT:
            self.returned(node, context)
        elif kind == Kind.CALL_EXPR:
            self.swapped(node, context)

    def strip(self, node):
        """Through implicit casts and the like, which have no text of their own."""
        while node.kind == Kind.UNEXPOSED_EXPR:
            children = list(node.get_children())
            if len(children) != 1 or self.range_of(children[0]) != self.range_of(node):
                break
            node = children[0]
        return node

    def operands(self, node):
        """(left, right, operator, its start, its end), or None when the text is not what it should be."""
        children = list(node.get_children())
        if len(children) != 2:
            return None
        left, right = self.range_of(children[0]), self.range_of(children[1])
        between = self.text(left[1], right[0])
        found = re.fullmatch(r"\s*([-+*/%<>=!&|^]+)\s*", between)
        if not found or left[0] != self.range_of(node)[0] or right[1] != self.range_of(node)[1]:
            return None
        return left, right, found.group(1), left[1] + found.start(1), left[1] + found.end(1), children

    def binary(self, node, context):
        parts = self.operands(node)
        if parts is None:
            self.skip("macro")
            return
        left, right, operator, start, end, children = parts
        a, b = self.text(*left), self.text(*right)
        whole = f"{a} {operator} {b}"
        if operator in COMPARISONS:
            name, others = COMPARISONS[operator]
            label = "comparison"
            # Anything else than equality has no meaning for null.
            alternatives = [(whole, f"{a} {other} {b}") for other in others]
        elif operator in ARITHMETIC:
            pointers = [c.type.get_canonical().kind in (TypeKind.POINTER, TypeKind.CONSTANTARRAY) for c in children]
            if pointers[1]:
                self.skip("arithmetic of pointers")
                return
            name, other = ARITHMETIC[operator]
            label = "arithmetic"
            alternatives = [(whole, f"{a} {other} {b}")]
        elif operator in ("&&", "||"):
            self.logical(left, right, operator, whole, a, b, context)
            return
        else:
            return
        id = self.site(context, label, start, alternatives)
        if id is not None:
            self.wrap(left[0], right[1], f"mutate::{name}({id}, ", ")")
            self.replace(start, end, ",")

    def logical(self, left, right, operator, whole, a, b, context):
        other = "||" if operator == "&&" else "&&"
        id = self.site(context, "logic", left[0], [(whole, f"{a} {other} {b}")])
        if id is not None:
            self.wrap(left[0], right[1], f"mutate::flip({id}, ", ")")
            self.wrap(*left, f"mutate::flip({id}, ", ")")
            self.wrap(*right, f"mutate::flip({id}, ", ")")
        for (start, end), remaining in ((left, b), (right, a)):
            id = self.site(context, "logic", start, [(whole, remaining)])
            if id is not None:
                test = f"(mutate::on({id}) || (" if operator == "&&" else f"(!mutate::on({id}) && ("
                self.wrap(start, end, test, "))")

    def compound_assignment(self, node, context):
        parts = self.operands(node)
        if parts is None or parts[2] not in ASSIGNMENTS:
            self.skip("macro")
            return
        left, right, operator, start, end, _ = parts
        name, other = ASSIGNMENTS[operator]
        a, b = self.text(*left), self.text(*right)
        id = self.site(context, "assignment", start, [(f"{a} {operator} {b}", f"{a} {other} {b}")])
        if id is not None:
            self.wrap(left[0], right[1], f"mutate::{name}({id}, ", ")")
            self.replace(start, end, ",")

    def unary(self, node, context):
        start, end = self.range_of(node)
        text = self.text(start, end)
        child = next(iter(node.get_children()), None)
        if child is None:
            return
        inner = self.range_of(child)
        rest = self.text(*inner)
        for token, name, other in (("++", "increment", "--"), ("--", "decrement", "++")):
            if text.startswith(token) and inner[0] > start:
                id = self.site(context, "arithmetic", start, [(text, other + rest)])
                if id is not None:
                    self.wrap(start, end, f"mutate::{name}({id}, ", ")")
                    self.replace(start, start + 2, "")
                return
        if text.startswith("!"):
            self.negate(node, context)
        elif text[0] in "-~" and inner[0] > start:
            name = "negative" if text[0] == "-" else "complement"
            id = self.site(context, "arithmetic", start, [(text, rest)])
            if id is not None:
                self.wrap(start, end, f"mutate::{name}({id}, ", ")")
                self.replace(start, start + 1, "")

    def negate(self, node, context):
        start, end = self.range_of(node)
        if (start, end) in self.negated:
            return
        self.negated.add((start, end))
        text = self.text(start, end)
        after = text[1:] if text.startswith("!") else f"!({text})"
        id = self.site(context, "negation", start, [(text, after)])
        if id is not None:
            self.wrap(start, end, f"mutate::flip({id}, ", ")")

    def condition(self, node, context):
        children = list(node.get_children())
        if node.kind == Kind.IF_STMT:
            if re.match(r"if\s+constexpr\b", self.text_of(node)):
                return
            before = []
            for child in children:
                if not child.kind.is_expression():
                    if child.kind == Kind.COMPOUND_STMT or child.kind.is_statement() and child.kind != Kind.DECL_STMT:
                        break
                before.append(child)
            test = before[-1] if before else None
        else:
            test = children[0] if children else None
        if test is None or not test.kind.is_expression():
            return
        test = self.strip(test)
        if self.in_macro(*self.range_of(test)):
            return
        if test.kind in (Kind.BINARY_OPERATOR, Kind.CXX_BOOL_LITERAL_EXPR, Kind.INTEGER_LITERAL):
            return
        self.negate(test, context)

    def literal(self, node, context):
        start, end = self.range_of(node)
        text = self.text(start, end)
        if self.is_returned(node):
            return
        if node.kind == Kind.CXX_BOOL_LITERAL_EXPR:
            if text in ("true", "false"):
                id = self.site(context, "constant", start, [(text, "false" if text == "true" else "true")])
                if id is not None:
                    self.wrap(start, end, f"mutate::flip({id}, ", ")")
            return
        if node.kind == Kind.CHARACTER_LITERAL:
            if text.startswith("'"):
                id = self.site(context, "constant", start, [(text, f"{text} + 1")])
                if id is not None:
                    self.wrap(start, end, f"mutate::one_more({id}, ", ")")
            return
        found = LITERAL.match(text)
        if not found:
            return
        value = int(found.group(1).replace("'", ""), 0 if text[:2].lower() == "0x" or text == "0" else 10)
        around = self.around(start, end)
        if value in (0, 1):
            id = self.site(context, "constant", start, [(around % text, around % ("1" if value == 0 else "2"))]
                           + ([] if value == 0 else [(around % text, around % "0")]))
        else:
            id = self.site(context, "constant", start, [(around % text, around % str(value + 1)),
                                                        (around % text, around % "0")])
        if id is not None:
            self.wrap(start, end, f"mutate::{'one_more' if value == 0 else 'constant'}({id}, ", ")")

    def around(self, start, end):
        """A pattern of the line's text around a place, so that a name says which constant is meant."""
        line_start = self.source.rfind(b"\n", 0, start) + 1
        line_end = self.source.find(b"\n", end)
        before = self.source[line_start:start].decode().lstrip().replace("%", "%%")
        after = re.sub(r"\s*//.*", "", self.source[end:line_end].decode()).replace("%", "%%")
        return f"{before}%s{after}"

    def is_returned(self, node):
        return self.range_of(node) in self.whole_results

    def named_constant(self, node, context):
        target = node.referenced
        if target is None:
            return
        start, end = self.range_of(node)
        text = self.text(start, end)
        if not re.fullmatch(r"[\w:]+", text):
            return
        if target.kind == Kind.VAR_DECL:
            place = target.extent
            if place.start.file is None:
                return
            declared = self.declaration_text(target)
            if not re.search(r"\bconstexpr\b", declared):
                return
            if target.type.get_canonical().kind not in INTEGERS:
                return
        elif target.kind != Kind.ENUM_CONSTANT_DECL:
            return
        if self.is_returned(node):
            return
        around = self.around(start, end)
        id = self.site(context, "constant", start, [(around % text, around % f"{text} + 1")])
        if id is not None:
            self.wrap(start, end, f"mutate::one_more({id}, ", ")")

    def declaration_text(self, target):
        name = target.extent.start.file.name
        cache = self.__dict__.setdefault("files", {})
        if name not in cache:
            cache[name] = Path(name).read_bytes()
        source = cache[name]
        line_start = source.rfind(b"\n", 0, target.extent.start.offset) + 1
        return source[line_start : target.location.offset].decode(errors="replace")

    def returned(self, node, context):
        children = list(node.get_children())
        if not children:
            return
        value = self.strip(children[0])
        start, end = self.range_of(children[0])
        text = self.text(start, end)
        if not text or self.in_macro(start, end):
            return
        if value.kind == Kind.BINARY_OPERATOR or text.startswith("!") or text.startswith("{"):
            return  # its own operators are mutated
        kind = (context.returns or value.type).get_canonical().kind
        if kind == TypeKind.BOOL:
            if text in ("true", "false"):
                after = "false" if text == "true" else "true"
            else:
                after = f"!({text})"
            alternatives, call = [(f"return {text}", f"return {after}")], "flip"
        elif kind in INTEGERS:
            other = (f"return {text}", "return another error")
            zero = text in ("0", "result::ok")
            alternatives = [other] if zero else [other, (f"return {text}", "return 0")]
            call = "returned_zero" if zero else "returned"
        elif kind == TypeKind.POINTER:
            if text == "nullptr":
                return
            alternatives, call = [(f"return {text}", "return nullptr")], "returned_pointer"
        else:
            return
        self.whole_results.add((start, end))
        id = self.site(context, "result", start, alternatives)
        if id is not None:
            self.wrap(start, end, f"mutate::{call}({id}, ", ")")

    def swapped(self, node, context):
        arguments = list(node.get_arguments())
        changed = set()  # those that the function may write to
        if node.referenced is not None and node.referenced.type.kind == TypeKind.FUNCTIONPROTO:
            for number, parameter in enumerate(node.referenced.type.argument_types()):
                if parameter.kind == TypeKind.LVALUEREFERENCE and not parameter.get_pointee().is_const_qualified():
                    changed.add(number)
        for number, (left, right) in enumerate(zip(arguments, arguments[1:])):
            if number in changed or number + 1 in changed:
                continue
            if left is None or right is None or not self.is_here(left) or not self.is_here(right):
                continue
            a, b = self.range_of(left), self.range_of(right)
            texts = self.text(*a), self.text(*b)
            kind = left.type.get_canonical().kind
            if a[1] > b[0] or texts[0] == texts[1] or kind not in INTEGERS | {TypeKind.POINTER, TypeKind.BOOL}:
                continue
            if left.type.get_canonical().spelling != right.type.get_canonical().spelling:
                continue
            if not all(SIMPLE.match(text) for text in texts) or "++" in texts[0] + texts[1]:
                continue
            if self.in_macro(*a) or self.in_macro(*b):
                continue
            whole = f"{node.spelling}(.. {texts[0]}, {texts[1]} ..)"
            after = f"{node.spelling}(.. {texts[1]}, {texts[0]} ..)"
            id = self.site(context, "arguments", a[0], [(whole, after)])
            if id is not None:
                self.wrap(*a, f"mutate::either({id}, ", f", {texts[1]})")
                self.wrap(*b, f"mutate::either({id}, ", f", {texts[0]})")

    def delete_statements(self, block, parent, context):
        children = list(block.get_children())
        for child in children:
            if not self.is_here(child):
                continue
            start, end = self.range_of(child)
            text = self.text(start, end)
            if child.kind in EXPRESSION_STATEMENTS:
                pass
            elif child.kind in (Kind.BREAK_STMT, Kind.CONTINUE_STMT):
                pass
            elif child.kind == Kind.RETURN_STMT:
                if not self.may_go_on(block, parent, context):
                    continue
            else:
                continue
            if not re.match(rb"\s*;", self.source[end:]):
                continue
            if text.startswith("__builtin_prefetch"):
                self.skip("prefetch")
                continue
            short = " ".join(text.split())
            id = self.site(context, "statement", start, [(short + ";", ";")])
            if id is not None:
                self.sequence += 1
                self.edits.append((start, 1, self.sequence - 1000000, start, f"if (!mutate::on({id})) "))

    def may_go_on(self, block, parent, context):
        """Whether something follows when the return at the end of an if's body is left out."""
        if parent is None or parent.kind != Kind.IF_STMT:
            return False
        if context.returns is not None and context.returns.get_canonical().kind == TypeKind.VOID:
            return True
        if re.match(rb"\s*else\b", self.source[self.range_of(parent)[1] :]):
            return False
        if [c for c in parent.get_children()][-1] != block:
            return False
        rest = self.source[self.range_of(parent)[1] :].lstrip()
        return not rest.startswith(b"}") and not rest.startswith(b"else")


def parse(path, arguments):
    index = cindex.Index.create()
    options = cindex.TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD
    unit = index.parse(path, args=["-x", "c++", *arguments], options=options)
    errors = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
    if errors:
        raise RuntimeError(f"{path}: {errors[0]}")
    return unit


def rewrite(path, label, arguments, first_id=0, rejected=frozenset()):
    return Rewriter(parse(path, arguments), path, label, first_id, rejected).run()
