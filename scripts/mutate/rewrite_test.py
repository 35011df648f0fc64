"""Tests of rewrite.py: python3 scripts/mutate/rewrite_test.py"""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.path.insert(0, "/usr/lib/python3/dist-packages")
import rewrite  # noqa: E402
import tree  # noqa: E402

HERE = Path(__file__).resolve().parent


def rewrite_text(text, rejected=frozenset()):
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder) / "sample.cpp"
        path.write_text(text)
        return rewrite.rewrite(str(path), "sample.cpp", tree.arguments(), 0, rejected)


def changes(result, operator):
    return [(mutant.before, mutant.after) for mutant in result.mutants if mutant.operator == operator]


class Rewriting(unittest.TestCase):
    def test_a_comparison_moves_its_bound_and_turns_round(self):
        result = rewrite_text("bool f(int a, int b) { return a < b; }\n")
        self.assertEqual(changes(result, "comparison"), [("a < b", "a <= b"), ("a < b", "a >= b")])

    def test_a_connective_is_exchanged_and_loses_each_side(self):
        result = rewrite_text("bool f(bool a, bool b) { return a && b; }\n")
        self.assertEqual(changes(result, "logic"), [("a && b", "a || b"), ("a && b", "b"), ("a && b", "a")])

    def test_a_call_and_an_early_return_are_deleted_but_not_the_last_return(self):
        result = rewrite_text("void g();\nint f(bool a) {\n    if (a) {\n        return 4;\n    }\n    g();\n    return 5;\n}\n")
        self.assertEqual([before for before, _ in changes(result, "statement")], ["g();", "return 4;"])

    def test_lines_stay_where_they_are(self):
        text = "int f(int a) {\n    if (a > 2 &&\n        a < 9) {\n        return a + 1;\n    }\n    return 0;\n}\n"
        result = rewrite_text(text)
        self.assertEqual(result.text.count(b"\n"), text.count("\n"))
        self.assertEqual([m.line for m in result.mutants if m.operator == "arithmetic"], [4])

    def test_what_the_compiler_evaluates_is_left_alone(self):
        result = rewrite_text("constexpr int n = 3 + 4;\nstatic_assert(n == 7);\nenum e { one = 1 };\n"
                              "template <int I> int g() { return I; }\n"
                              "int f(int a) {\n    int b[5] = {};\n    switch (a) {\n        case 8:\n"
                              "            return g<6>() + b[a];\n    }\n    return b[0];\n}\n")
        texts = " ".join(m.before + m.after for m in result.mutants if m.operator == "constant")
        self.assertNotIn("case", texts)
        self.assertNotIn("int b[6]", texts)
        self.assertNotIn("g<7>", texts)
        self.assertFalse([m for m in result.mutants if m.function == ""])
        self.assertGreaterEqual(result.skipped["constant expression"], 4)

    def test_the_initial_value_of_a_static_variable_is_left_alone(self):
        result = rewrite_text("int f() {\n    static constinit int calls = 7;\n    static int later = 5;\n    return ++calls + later;\n}\n")
        self.assertEqual([before for before, _ in changes(result, "constant")], ["static int later = 5;"] * 2)

    def test_the_size_in_a_type_is_left_alone(self):
        result = rewrite_text("template <int N> struct t { int a[N]; };\nint f() {\n    t<4> b{};\n    return b.a[0];\n}\n")
        self.assertNotIn("t<5>", " ".join(m.after for m in result.mutants))

    def test_a_lambda_in_a_static_assertion_is_left_alone(self):
        result = rewrite_text("static_assert([](int a) { return a == 2; }(2));\n")
        self.assertEqual(result.mutants, [])

    def test_a_lambda_in_a_constant_table_is_mutated(self):
        result = rewrite_text("constexpr auto row = [](int a) { return a - 2; };\nint f() { return row(5); }\n")
        self.assertIn(("a - 2", "a + 2"), changes(result, "arithmetic"))

    def test_nothing_inside_a_macro_is_mutated(self):
        result = rewrite_text("#define TWICE(x) ((x) + (x))\nint f(int a) { return TWICE(a * 3); }\n")
        self.assertEqual(changes(result, "arithmetic"), [])
        self.assertIn("macro", result.skipped)

    def test_names_do_not_depend_on_the_line(self):
        text = "int f(int a) { return a + a; }\n"
        names = [m.name for m in rewrite_text(text).mutants]
        self.assertEqual(names, [m.name for m in rewrite_text("\n\n" + text).mutants])
        self.assertEqual(len(names), len(set(names)))

    def test_a_rejected_mutant_is_not_written(self):
        text = "int f(int a) { return a + 1; }\n"
        name = next(m.name for m in rewrite_text(text).mutants if m.operator == "arithmetic")
        result = rewrite_text(text, frozenset([name]))
        self.assertEqual(changes(result, "arithmetic"), [])
        self.assertEqual(result.skipped["does not compile"], 1)


class Running(unittest.TestCase):
    """The rewritten text, compiled once: each mutant does what its name says, and none is active by itself."""

    SAMPLE = """
#include <cstdio>
constexpr int limit(int a) { return a + 3; }
static_assert(limit(1) == 4);
int size(unsigned char a, int b) {
    int c = 10;
    if (a >= 4 || !(b == 2)) {
        c -= b;
    }
    if (b == 7) {
        return 1;
    }
    return c * 2 + limit(b);
}
int main() { std::printf("%d %d %d", size(4, 1), size(0, 2), size(3, 7)); }
"""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        folder = Path(cls.folder.name)
        cls.result = rewrite_text(cls.SAMPLE)
        (folder / "sample.cpp").write_bytes(cls.result.text)
        cls.program = folder / "sample"
        subprocess.run(["g++", "-std=c++20", "-w", "-include", HERE / "mutate.h", folder / "sample.cpp",
                        HERE / "runtime.cpp", "-Wl,--wrap=main", "-o", cls.program], check=True)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def output(self, before=None, after=None, **variables):
        if before:
            found = [m.id for m in self.result.mutants if (m.before, m.after) == (before, after)]
            self.assertEqual(len(found), 1, (before, after))
            variables["SCC_MUTANT"] = str(found[0])
        return subprocess.check_output([self.program], text=True, env=dict(os.environ, **variables))

    def test_without_a_number_nothing_changes(self):
        self.assertEqual(self.output(), "22 25 1")

    def test_each_number_chooses_one_change(self):
        self.assertEqual(self.output("a >= 4", "a > 4"), "22 25 1")  # b != 2 holds as well
        self.assertEqual(self.output("c -= b;", ";"), "24 25 1")
        self.assertEqual(self.output("c -= b", "c += b"), "26 25 1")
        self.assertEqual(self.output("return 1;", ";"), "22 25 16")
        self.assertEqual(self.output("b == 7", "b != 7"), "1 1 16")
        self.assertEqual(self.output("a + 3", "a - 3"), "16 19 1")
        self.assertEqual(self.output("a >= 4 || !(b == 2)", "a >= 4 && !(b == 2)"), "22 25 1")
        self.assertEqual(self.output("a >= 4 || !(b == 2)", "a >= 4"), "22 25 1")
        self.assertEqual(self.output("!(b == 2)", "(b == 2)"), "22 21 1")

    def test_what_is_reached_is_marked(self):
        with tempfile.NamedTemporaryFile() as file:
            file.write(bytes(2000))
            file.flush()
            self.output(SCC_MUTANT_REACHED=file.name)
            file.seek(0)
            marked = {index for index, byte in enumerate(file.read()) if byte}
        self.assertEqual(marked, {m.site for m in self.result.mutants if m.file == "sample.cpp"})


unittest.main()
