#!/usr/bin/env python3
"""Gates: properties of the built library that no unit test sees. Each reads the library, or the objects that it is
linked from, with binutils, and returns a list of problems: empty when all is well.

usage: gates.py GATE --library libzenrpx.so --objects FILE --header zenr.h
       FILE holds the paths of the library's object files, one a line.
"""
import argparse
import re
import subprocess
import sys

LEVELS = ("sse2", "avx2", "avx512")

MEMORY = {"memcpy", "memset", "memmove"}
CORE = {"zenMalloc", "zenFree", "ownGetNumThreads"}
# Weak references of the C run-time's start files, resolved when something defines them.
START_FILES = {"__cxa_finalize", "__gmon_start__", "_ITM_deregisterTMCloneTable", "_ITM_registerTMCloneTable"}
MATH = re.compile(
    r"(sqrt|cbrt|hypot|sincos|a?(sin|cos|tan)h?|atan2|exp|exp2|exp10|expm1|log|log2|log10|log1p|logb|pow|fabs|floor|ceil"
    r"|trunc|l?l?round|l?l?rint|nearbyint|fmod|remainder|modf|frexp|ldexp|scalbl?n|copysign|fm(ax|in)|nextafter)[fl]?$")
OPENMP = re.compile(r"(GOMP|omp)_\w+$")

# What the compiler's start files and libgcc's processor detection keep in writable memory.
WRITABLE = {"completed.0", "__dso_handle", "__TMC_END__", "__cpu_model", "__cpu_features2", "__bss_start", "_edata",
            "_end"}

# Instructions that came after SSE2 and have no v in front. tzcnt is missing deliberately: its bytes are those of
# "rep bsf", which the compiler writes where both give the same result.
AFTER_SSE2 = re.compile(
    r"(addsubp[sd]|h(add|sub)p[sd]|lddqu|movddup|movs[hl]dup|fisttpl*|pabs[bwd]|palignr|ph(add|sub)(w|d|sw)|pmaddubsw"
    r"|pmulhrsw|pshufb|psign[bwd]|blendv?p[sd]|dpp[sd]|extractps|insertps|movntdqa|mpsadbw|packusdw|pblendvb|pblendw"
    r"|pcmpeqq|pcmpgtq|pextr[bdq]|pinsr[bdq]|pm(ax|in)(sb|sd|ud|uw)|pmov[sz]x\w+|pmuldq|pmulld|ptest|round[ps][sd]"
    r"|phminposuw|crc32[bwlq]?|pcmp[ei]str[im]|popcnt[wlq]?|lzcnt[wlq]?|andn[lq]?|bextr[lq]?|bls(i|msk|r)[lq]?"
    r"|bzhi[lq]?|mulx[lq]?|pdep[lq]?|pext[lq]?|rorx[lq]?|sarx[lq]?|shlx[lq]?|shrx[lq]?|movbe[wlq]?|adcx|adox|aes\w+"
    r"|pclmul\w+|sha(1|256)\w+)$")
NOT_AVX = {"verr", "verw"}
PREFIXES = {"rep", "repz", "repnz", "lock", "notrack", "bnd", "data16", "addr32", "cs", "ds", "es", "ss", "xacquire",
            "xrelease"}


def run(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, universal_newlines=True).stdout


def level_of(symbol):
    """The level whose namespace a mangled name lies in, or None; outlined and cloned parts carry their function's."""
    found = re.match(r"_Z[A-Z]*N[KVrRO]*4zenr(?:4(sse2)|4(avx2)|6(avx512))", symbol)
    return next(filter(None, found.groups())) if found else None


def declared_functions(header):
    """Functions that a C header declares: names before a parenthesis, outside comments and directives."""
    with open(header, encoding="ascii") as text:
        code = re.sub(r"/\*.*?\*/", " ", text.read(), flags=re.S)
    code = re.sub(r"^\s*#.*$", "", code, flags=re.M)
    return set(re.findall(r"\b((?:zen|own)\w*)\s*\(", code))


def dynamic_symbols(library, *options):
    """(type, name without version) of dynamic symbols."""
    lines = run("nm", "-D", *options, library).splitlines()
    return [(line.split()[-2], line.split()[-1].split("@")[0]) for line in lines]


def exports(options):
    declared = declared_functions(options.header)
    exported = {name for _, name in dynamic_symbols(options.library, "--defined-only")}
    if not declared:
        return [f"{options.header} declares no function"]
    return ([f"declared but not exported: {name}" for name in sorted(declared - exported)] +
            [f"exported but not declared: {name}" for name in sorted(exported - declared)])


def imports(options):
    problems = []
    for kind, name in dynamic_symbols(options.library, "--undefined-only"):
        if kind in "wv" and name in START_FILES:
            continue
        if name not in CORE | MEMORY and not MATH.match(name) and not OPENMP.match(name):
            problems.append(f"imports {name}")
    return problems


def needed(options):
    dynamic = run("readelf", "-dW", options.library)
    names = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
    allowed = re.compile(r"(libzencore\.so\.6\.1|libgomp\.so\.1|libm\.so\.6|libc\.so\.6|libgcc_s\.so\.1)$")
    problems = [f"needs {name}" for name in names if not allowed.match(name)]
    soname = re.findall(r"\(SONAME\).*\[(.*)\]", dynamic)
    if soname != ["libzenrpx.so.6.1"]:
        problems.append(f"soname is {soname}")
    return problems


def object_level(path):
    """The level that an object was compiled for: its CMake target's name ends with it."""
    found = re.search(r"_(%s)\.dir/" % "|".join(LEVELS), path)
    return found.group(1) if found else None


def read_objects(options):
    with open(options.objects, encoding="utf-8") as text:
        paths = text.read().split()
    if not paths:
        raise SystemExit(f"{options.objects} lists no object")
    return paths


def weak(options):
    """The linker keeps one of several weak definitions, of whichever object. So an object of a level defines none
    outside its own namespace, and no other object defines one that belongs to the C++ library or to nobody."""
    problems = []
    for path in read_objects(options):
        own = object_level(path)
        for line in run("nm", "--defined-only", path).splitlines():
            kind, name = line.split()[-2:]
            if kind not in "wWvVu":
                continue
            if own:
                good = level_of(name) == own
            else:
                good = re.match(r"_Z[A-Z]*N[KVrRO]*4zenr", name) and not level_of(name)
            if not good:
                problems.append(f"{path}: weak {name}")
    return problems


def instructions(library):
    """(function, mnemonic, operands) of every instruction."""
    function = None
    for line in run("objdump", "-dw", "--no-show-raw-insn", library).splitlines():
        label = re.match(r"[0-9a-f]+ <(.*)>:$", line)
        if label:
            function = label.group(1)
            continue
        code = re.match(r"\s*[0-9a-f]+:\s+(\S.*)$", line)
        if not code:
            continue
        words = code.group(1).split()
        while words and (words[0] in PREFIXES or words[0].startswith(("rex", "{"))):
            words.pop(0)
        if words:
            yield function, words[0], " ".join(words[1:]).split("#")[0].split("<")[0]


def violation(level, mnemonic, operands):
    """Why an instruction may not stand in a function of a level (None: the baseline), or None."""
    wide = re.search(r"%(zmm|k[0-7]\b|[xy]mm(1[6-9]|2\d|3[01]))", operands)
    if level == "avx512":
        return None
    if level == "avx2":
        return "AVX-512" if wide else None
    if wide or "%ymm" in operands or (mnemonic.startswith("v") and mnemonic not in NOT_AVX):
        return "AVX"
    return "newer than SSE2" if AFTER_SSE2.match(mnemonic) else None


def disassembly(options):
    """No instruction above the baseline outside a level's functions: an old processor would stop there."""
    problems, seen = [], 0
    for function, mnemonic, operands in instructions(options.library):
        seen += 1
        why = violation(level_of(function), mnemonic, operands)
        if why:
            problems.append(f"{function}: {why}: {mnemonic} {operands}")
    return problems if seen else ["no instruction found"]


def masks(options):
    """g++ 12 for 32 bits, without -fexpensive-optimizations, stores 8 or 16 bits of a mask and at once loads 32 or 64."""
    problems, slot, age = [], None, 0
    for function, mnemonic, operands in instructions(options.library):
        stored = re.match(r"%k[0-7],(\S+\))$", operands)
        if stored and mnemonic in ("kmovb", "kmovw"):
            slot, age = stored.group(1), 0
            continue
        age += 1
        if slot and age <= 4 and mnemonic == "mov" and re.match(re.escape(slot) + r",%[er]", operands):
            problems.append(f"{function}: a mask is loaded wider than it was stored: {operands}")
    return problems


def sections(path):
    """{index: (name, size)} of an ELF file's sections."""
    found = {}
    for line in run("readelf", "-SW", path).splitlines():
        match = re.match(r"\s*\[\s*(\d+)\]\s+(\S+)\s+\S+\s+[0-9a-f]+\s+[0-9a-f]+\s+([0-9a-f]+)", line)
        if match:
            found[int(match.group(1))] = (match.group(2), int(match.group(3), 16))
    return found


def writable(options):
    """No state: nothing of our own in memory that stays writable, and no constructors."""
    problems = []
    table = sections(options.library)
    left = sum(size for name, size in table.values() if re.match(r"\.t?(data|bss)$", name))
    for line in run("readelf", "-sW", options.library).splitlines():
        match = re.match(r"\s*\d+: [0-9a-f]+\s+(\S+)\s+(\S+)\s+\S+\s+\S+\s+(\d+)\s+(\S+)$", line)
        if not match:
            continue
        size, kind, index, name = match.groups()
        section = table.get(int(index), ("", 0))[0]
        if kind == "SECTION" or not re.match(r"\.t?(data|bss)(\.|$)", section) or section.startswith(".data.rel.ro"):
            continue
        if name.split("@")[0] not in WRITABLE:
            problems.append(f"{section}: {name}")
        left -= int(size, 0)
    # Objects without a name would show as bytes that no symbol covers; some are padding, some __dso_handle.
    if left > 64:
        problems.append(f"{left} bytes of writable memory without a name")
    for path in read_objects(options):
        for name, size in sections(path).values():
            if size and re.match(r"\.(init_array|ctors|fini_array|dtors)", name):
                problems.append(f"{path}: a constructor or destructor ({name})")
    pointer = 4 if "ELF32" in run("readelf", "-h", options.library) else 8
    started = sum(size for name, size in table.values() if name == ".init_array") // pointer
    # frame_dummy and libgcc's __cpu_indicator_init.
    if started > 2:
        problems.append(f"{started} functions run when the library is loaded")
    return problems


def stack(options):
    """On i386 callers may come with a stack aligned to 4 bytes: an exported function that calls another aligns it."""
    if "ELF32" not in run("readelf", "-h", options.library):
        return []
    exported = {name for _, name in dynamic_symbols(options.library, "--defined-only")}
    calls, aligns = set(), set()
    for line in run("objdump", "-dw", "--no-show-raw-insn", options.library).splitlines():
        label = re.match(r"[0-9a-f]+ <(.*)>:$", line)
        if label:
            function = label.group(1)
            continue
        words = line.split(":", 1)[-1].split()
        if not words:
            continue
        target = re.search(r"<([^+>]*)(\+0x[0-9a-f]+)?>", line)
        inside = target and (target.group(1).split(".")[0] == function or "get_pc_thunk" in target.group(1))
        if words[0] == "call" and not inside or words[0] == "jmp" and not inside:
            calls.add(function)
        if words[0] == "and" and re.match(r"\$0xffffff[0-9a-f]0,%esp", words[1]):
            aligns.add(function)
    return [f"{name} calls without aligning the stack" for name in sorted(exported & calls - aligns)]


GATES = {gate.__name__: gate for gate in (exports, imports, needed, weak, disassembly, masks, writable, stack)}


def main():
    parser = argparse.ArgumentParser(description="checks properties of the built library")
    parser.add_argument("gate", choices=GATES)
    parser.add_argument("--library")
    parser.add_argument("--objects")
    parser.add_argument("--header")
    options = parser.parse_args()
    problems = GATES[options.gate](options)
    for problem in problems[:40]:
        print(problem)
    print(f"{options.gate}: {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
