#!/usr/bin/env python3
"""The gates must be able to fail: each is run over a tiny library in which one thing is wrong, and over a sound one.

usage: gates_test.py COMPILER [FLAG...]      COMPILER FLAG... compiles C++ for the flavour under test
"""
import argparse
import os
import subprocess
import sys
import tempfile
import unittest

import gates

COMPILER = []

SOUND_BASE = """
#include <math.h>
namespace zenr { namespace avx2 { int twice(int); }
__attribute__((noinline)) double root(double x) { return sqrt(x * x + 1); } }
extern "C" __attribute__((visibility("default"), ALIGNED)) int zenrOne(int x)
{ return zenr::avx2::twice(x) + int(zenr::root(x)); }
"""
SOUND_LEVEL = """
namespace zenr { namespace avx2 {
template <class T> __attribute__((noinline)) T add(T a, T b) { return a + b; }
__attribute__((target("avx2"))) int twice(int x)
{ asm volatile("vpxor %%ymm0, %%ymm0, %%ymm0" : : : "xmm0"); return add(x, x); } } }
"""
SOUND_HEADER = "/* zenrNever(int) is not a function */\nint zenrOne(int x);\n"


class Built:
    """A library of one baseline object and one AVX2 object, in a folder laid out as the build's."""

    def __init__(self, base="", level="", header=SOUND_HEADER, soname="libzenrpx.so.6.1", link=()):
        self.folder = tempfile.TemporaryDirectory()
        root = self.folder.name
        objects = []
        for name, text in (("base.dir", SOUND_BASE + base), ("kernels_avx2.dir", SOUND_LEVEL + level)):
            os.mkdir(os.path.join(root, name))
            source = os.path.join(root, name, "a.cpp")
            with open(source, "w", encoding="ascii") as text_file:
                text_file.write(text)
            objects.append(source[:-3] + "o")
            aligned = "force_align_arg_pointer" if "-m32" in COMPILER else "used"
            subprocess.run(COMPILER + ["-O2", "-fPIC", "-fno-exceptions", "-fno-math-errno", "-fvisibility=hidden",
                                       "-DALIGNED=" + aligned, "-c", source, "-o", objects[-1]], check=True)
        self.library = os.path.join(root, "lib.so")
        self.objects = os.path.join(root, "objects")
        self.header = os.path.join(root, "header.h")
        with open(self.objects, "w", encoding="ascii") as text_file:
            text_file.write("\n".join(objects))
        with open(self.header, "w", encoding="ascii") as text_file:
            text_file.write(header)
        subprocess.run(COMPILER + ["-shared", "-nodefaultlibs", "-Wl,-soname," + soname, "-o", self.library] + objects +
                       list(link) + ["-lm", "-lc", "-lgcc"], check=True)


class Gates(unittest.TestCase):
    def check(self, gate, expected, **planted):
        """The gate finds exactly the expected words, one problem each, in order."""
        built = Built(**planted)
        self.addCleanup(built.folder.cleanup)
        problems = gates.GATES[gate](built)
        self.assertEqual(len(problems), len(expected), problems)
        for problem, words in zip(problems, expected):
            self.assertIn(words, problem)

    def test_sound_library_passes_every_gate(self):
        for gate in gates.GATES:
            with self.subTest(gate):
                self.check(gate, [])

    def test_export_missing_and_undeclared(self):
        self.check("exports", ["not exported: zenrTwo", "not declared: zenrThree"],
                   header=SOUND_HEADER + "int zenrTwo(void);",
                   base='extern "C" __attribute__((visibility("default"))) int zenrThree() { return 3; }')

    def test_imports(self):
        self.check("imports", ["malloc", "puts"],
                   base='#include <stdio.h>\n#include <stdlib.h>\nnamespace zenr { void* f() { puts("x"); '
                        'return malloc(9); } }')

    def test_operator_new(self):
        self.check("imports", ["_Znw"], base="namespace zenr { int* f() { return new int(1); } }", link=["-lstdc++"])

    def test_needed_library(self):
        self.check("needed", ["libstdc++.so.6"], link=["-Wl,--no-as-needed", "-lstdc++"])

    def test_soname(self):
        self.check("needed", ["soname"], soname="libother.so")

    def test_weak_of_the_cpp_library_in_a_level(self):
        self.check("weak", ["largest"],
                   level="template <class T> __attribute__((noinline)) T largest(T a, T b) { return a < b ? b : a; }\n"
                         "namespace zenr { namespace avx2 { int f(int a) { return largest(a, 3); } } }")

    def test_weak_of_the_library_itself_in_a_level(self):
        self.check("weak", ["shared"],
                   level="namespace zenr { template <class T> __attribute__((noinline)) T shared(T a) { return a; }\n"
                         "namespace avx2 { int f(int a) { return shared(a); } } }")

    def test_weak_of_another_level(self):
        self.check("weak", ["sse2"],
                   level="namespace zenr { namespace sse2 { template <class T> __attribute__((noinline)) T f(T a) "
                         "{ return a; } } namespace avx2 { int g(int a) { return sse2::f(a); } } }")

    def test_avx_outside_its_level(self):
        self.check("disassembly", ["AVX: vpxor"],
                   base='namespace zenr { void f() { asm volatile("vpxor %%xmm0, %%xmm0, %%xmm0" : : : "xmm0"); } }')

    def test_wider_than_its_level(self):
        self.check("disassembly", ["AVX-512"],
                   level='namespace zenr { namespace avx2 { void f() { asm volatile("vpxord %%zmm0, %%zmm0, %%zmm0" '
                         ': : : "xmm0"); } } }')

    def test_newer_than_sse2(self):
        self.check("disassembly", ["popcnt", "pshufb", "roundss"],
                   base='namespace zenr { void f() { asm volatile("popcnt %%eax, %%eax\\n pshufb %%xmm0, %%xmm0\\n '
                         'roundss $1, %%xmm0, %%xmm0" : : : "eax", "xmm0"); } }')

    def test_mask_loaded_wider_than_stored(self):
        top = "%%esp" if "-m32" in COMPILER else "%%rsp"
        self.check("masks", ["loaded wider"],
                   level='namespace zenr { namespace avx2 { void f() { asm volatile("kmovw %%k0, -8(' + top +
                         ')\\n xor %%ecx, %%ecx\\n mov -8(' + top + '), %%eax\\n kmovw %%k0, -8(' + top +
                         ')\\n movzwl -8(' + top + '), %%eax" : : : "eax", "ecx"); } } }')

    def test_variable(self):
        self.check("writable", ["counter"], base="namespace zenr { int counter = 1; int f() { return counter++; } }")

    def test_zeroed_table(self):
        self.check("writable", ["table"],
                   base="namespace zenr { static int table[99]; void f(int i) { table[i]++; } int g(int i) "
                        "{ return table[i]; } }")

    def test_thread_local(self):
        self.check("writable", ["mine"], base="namespace zenr { thread_local int mine = 3; int f() { return mine++; } }")

    def test_constructor(self):
        self.check("writable", ["constructor", "constructor", "functions run"],
                   base="namespace zenr { __attribute__((constructor)) static void a() { asm volatile(\"\"); } "
                        "__attribute__((constructor(200))) static void b() { asm volatile(\"\"); } }")

    def test_stack(self):
        expected = ["zenrTwo"] if "-m32" in COMPILER else []
        self.check("stack", expected,
                   base='extern "C" __attribute__((visibility("default"))) int zenrTwo(int a) '
                        "{ return int(zenr::root(a)) + 1; }")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("compiler", nargs=argparse.REMAINDER)
    COMPILER = parser.parse_args().compiler
    unittest.main(argv=sys.argv[:1])
