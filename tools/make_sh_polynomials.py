#!/usr/bin/env python3
"""Writes src/sh/prshpoly.h: the polynomials of the real orthonormal spherical harmonics up to band 15.

    tools/make_sh_polynomials.py src/sh/prshpoly.h            writes the file
    tools/make_sh_polynomials.py --check src/sh/prshpoly.h    compares the file with what would be written

Y(l, +m) = N(l,m) * Q(l,m)(z) * Re (x + iy)^m and Y(l, -m) with Im, where Q(l,m) is the m-th derivative of the Legendre
polynomial of degree l and N(l,m) = (-1)^m sqrt((2 - [m=0]) (2l+1)/(4 pi) (l-m)!/(l+m)!). Coefficients of Q are exact
fractions; N*Q's are rounded to double once, from 80 digits.
"""
import math
import re
import struct
import sys
from decimal import Decimal, getcontext
from fractions import Fraction
from math import factorial

getcontext().prec = 80
MAX_BAND = 15
# Up to this degree in z a polynomial in z^2 costs no more than the two-term recurrence, and does not wait for the band
# below.
MAX_HORNER = 4
# A polynomial is evaluated in float where its value, every rounding at its worst, stays within so many units in the
# last place of its band's largest value.
FLOAT_ULPS = 1.95
# So many columns are evaluated side by side: one alone would wait for its own results.
COLUMNS = 4


def arccot(n):
    """arctan(1/n) to the context's precision."""
    term = Decimal(1) / n
    total, k = term, 1
    while abs(term) > Decimal(10) ** -(getcontext().prec + 5):
        term /= -n * n
        k += 2
        total += term / k
    return total


PI = 4 * (4 * arccot(5) - arccot(239))


def decimal_of(q):
    return Decimal(q.numerator) / Decimal(q.denominator)


def to_double(d):
    """The double nearest to a decimal."""
    return float(Fraction(d))


def legendre(l):
    """Coefficients of the Legendre polynomial of degree l, constant term first."""
    p0, p1 = [Fraction(1)], [Fraction(0), Fraction(1)]
    if l == 0:
        return p0
    for n in range(1, l):
        nxt = [Fraction(0)] + [Fraction(2 * n + 1, n + 1) * c for c in p1]
        for i, c in enumerate(p0):
            nxt[i] -= Fraction(n, n + 1) * c
        p0, p1 = p1, nxt
    return p1


def derivative(p, m):
    for _ in range(m):
        p = [i * c for i, c in enumerate(p)][1:]
    return p


def norm(l, m):
    square = Fraction((1 if m == 0 else 2) * (2 * l + 1) * factorial(l - m), 4 * factorial(l + m))
    value = (decimal_of(square) / PI).sqrt()
    return -value if m % 2 else value


def horner_coefficients(l, m):
    """Coefficients of z^d, z^(d-2), ... of N*Q, d = l - m, leading first."""
    q = derivative(legendre(l), m)
    n = norm(l, m)
    return [to_double(n * decimal_of(q[i])) for i in range(l - m, -1, -2)]


def text(x):
    s = repr(x)
    assert float(s) == x
    return s


def horner(coefficients, odd, number=text, t="t", z="z"):
    """The expression in t = z^2 (and one factor z when odd)."""
    e = number(coefficients[0])
    for i, c in enumerate(coefficients[1:]):
        e = ("%s * %s" if i == 0 else "(%s) * %s") % (e, t) + (" - " if c < 0 else " + ") + number(abs(c))
    if not odd:
        return e
    return ("(%s) * %s" if len(coefficients) > 1 else "%s * %s") % (e, z)


def recurrence_factors(l, m):
    a = decimal_of(Fraction(4 * l * l - 1, l * l - m * m)).sqrt()
    b = -decimal_of(Fraction(((l - 1) ** 2 - m * m) * (2 * l + 1), (l * l - m * m) * (2 * l - 3))).sqrt()
    return to_double(a), to_double(b)


def to_float(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def float_text(x):
    return text(to_float(x)) + "f"


def half_ulp(v):
    """The largest error of rounding a value of this size to float."""
    return math.ldexp(1, math.frexp(v)[1] - 25) if v else 0.0


def float_error(l, m):
    """What Y(l, +-m) may be off when all but z^2 and (x + iy)^m is float, in ulps of the band's largest value."""
    coefficients = horner_coefficients(l, m)
    largest = math.sqrt((2 * l + 1) / (4 * math.pi))
    worst = 0
    for i in range(1001):
        z = i / 1000
        t = z * z
        radius = (1 - t) ** (m / 2)
        p = to_float(coefficients[0])
        error = abs(p - coefficients[0])
        for c in coefficients[1:]:
            error = error * t + abs(p) * half_ulp(t) + half_ulp(p * t) + abs(to_float(c) - c)
            p = p * t + to_float(c)
            error += half_ulp(p)
        if (l - m) % 2:
            p *= z
            error = error * z + half_ulp(p)
        error = error * radius + half_ulp(p * radius) + (abs(p) * half_ulp(radius) if m > 1 else 0)
        worst = max(worst, error)
    return worst / (2 * half_ulp(largest))


def in_float(l, m):
    # (A bound of degree 3 that passes by luck is not worth an exception.)
    return m > 0 and l - m <= 2 and float_error(l, m) <= FLOAT_ULPS


def c0_as_float():
    return struct.unpack("<f", struct.pack("<f", to_double(norm(0, 0))))[0]


def value_lines(l, m):
    """Evaluates the polynomial in z of one (l, m) and hands out its one or two values."""
    d = l - m
    coefficients = horner_coefficients(l, m)
    name = "p%d_%d" % (l, m)
    if l == 0:
        return ["out.zonal(0, splatLike(zf, %s));" % float_text(c0_as_float())]
    lines = []
    single = in_float(l, m)
    # The recurrence begins with the two highest degrees that are evaluated directly.
    followed = d >= MAX_HORNER - 1 and l < MAX_BAND
    if not single or followed:
        if d <= MAX_HORNER:
            expression = horner(coefficients, d % 2)
        else:
            a, b = recurrence_factors(l, m)
            expression = "%s * z * p%d_%d - %s * p%d_%d" % (text(a), l - 1, m, text(-b), l - 2, m)
        lines.append("const V %s = %s;" % (name, expression))
    if m == 0:
        return lines + ["out.zonal(%d, narrow(%s));" % (l, name)]
    powers = ("xf", "yf") if m == 1 else ("cf%d" % m, "sf%d" % m)
    factor = "f%d_%d" % (l, m)
    if d == 0:
        factor = horner(coefficients, 0, float_text)
        if m > 1:
            lines.append("const F %s = narrow(c%d), %s = narrow(s%d);" % (powers[0], m, powers[1], m))
    else:
        value = horner(coefficients, d % 2, float_text, "tf", "zf") if single else "narrow(%s)" % name
        lines.append("const F %s = %s;" % (factor, value))
    return lines + ["out.pair(%d, %d, %s * %s, %s * %s);" % (l, m, factor, powers[0], factor, powers[1])]


def power_line(m):
    """(x + iy)^m from lower powers; a square takes fewer multiplications than a product."""
    if m % 2 == 0:
        h = m // 2
        return "const V c%d = (c%d - s%d) * (c%d + s%d), s%d = (c%d + c%d) * s%d;" % (m, h, h, h, h, m, h, h, h)
    return "const V c%d = x * c%d - y * s%d, s%d = x * s%d + y * c%d;" % (m, m - 1, m - 1, m, m - 1, m - 1)


def columns(first):
    """Values of +m and -m for a few m from `first` on, and all bands up to the caller's order."""
    ms = range(first, first + COLUMNS)
    powers = [m for m in ms if m > 0]
    lines = ["template <class V, class F, class Out>",
             "ZENR_SH_INLINE void shColumns%d(int L, V z, V t, F zf, F tf, %sOut& out) {"
             % (first, "F xf, F yf, " if first == 0 else ""),
             ]
    lines[1] = "ZENR_SH_INLINE void shColumns%d(int L, V z, V t, F zf, F tf, %sOut& out) {" % (
        first, "".join("F xf, F yf, " if m == 1 else "V c%d, V s%d, " % (m, m) for m in powers))
    body = []
    for l in range(first, MAX_BAND + 1):
        for m in ms:
            if m <= l:
                body += value_lines(l, m)
        if l < MAX_BAND:
            body.append("if (L == %d) return;" % l)
    used = "\n".join(body)
    for name in ("z", "t", "zf", "tf"):
        if not re.search(r"\b%s\b" % name, used):
            body.insert(0, "(void)%s;" % name)
    return lines + ["    " + b for b in body] + ["}", ""]


def band(l):
    """The 2l+1 values of band l alone."""
    lines = ["template <> struct ShBand<%d> {" % l,
             "    template <class V, class Out> static ZENR_SH_INLINE void values(V x, V y, V z, Out out) {"]
    body = []
    if l == 0:
        body += ["(void)%s;" % n for n in "xyz"]
        body.append("out(0, narrow(splat<V>(%s)));" % text(c0_as_float()))
    else:
        if l == 1:
            body.append("const V c = x, s = y;")
        else:
            body += ["const V t = z * z;", "V c = x, s = y, w;"]
        for m in range(0, l + 1):
            if m >= 2:
                body += ["w = x * c - y * s;", "s = x * s + y * c;", "c = w;"]
            expression = horner(horner_coefficients(l, m), (l - m) % 2)
            if m == l:
                body += ["out(%d, narrow(%s * c));" % (l + m, expression), "out(%d, narrow(%s * s));" % (l - m, expression)]
            elif m == 0:
                body += ["const V q0 = %s;" % expression, "out(%d, narrow(q0));" % l]
            else:
                body += ["const auto q%d = narrow(%s);" % (m, expression),
                         "out(%d, q%d * narrow(c));" % (l + m, m), "out(%d, q%d * narrow(s));" % (l - m, m)]
    return lines + ["        " + b for b in body] + ["    }", "};", ""]


def document():
    lines = [
        "// Polynomials of the real orthonormal spherical harmonics with the Condon-Shortley phase, bands 0..15.",
        "// Generated by tools/make_sh_polynomials.py; to remake it: python3 tools/make_sh_polynomials.py src/sh/prshpoly.h",
        "//",
        "// V is a type with the arithmetic of double (a number, a vector, a pair of vectors), F the same in float, narrow()",
        "// rounds from one to the other. t = z^2, and c + is = (x + iy)^m. Polynomials in z of a high degree need double,",
        "// their products with c and s do not; those of a low degree are evaluated in float where that keeps every value",
        "// within 2 units in the last place of the band's largest. A polynomial of degree up to %d in z is evaluated in" % MAX_HORNER,
        "// powers of t, one of higher degree follows from the two bands below it.",
        "//",
        "// A receiver of a whole set has out.zonal(l, value) of m = 0 and out.pair(l, m, value, value) of +m and -m > 0;",
        "// one of a band alone is called as out(k, value).",
        "// clang-format off",
        "#pragma once",
        '#include "sh/prshpack.h"',
        "",
        "namespace zenr::ZENR_LEVEL {",
        "",
    ]
    firsts = range(0, MAX_BAND + 1, COLUMNS)
    for first in firsts:
        lines += columns(first)
    lines += ["// All values of the bands 0..L, L <= 15.",
              "template <class F, class Out> ZENR_SH_INLINE void shBands(int L, F xf, F yf, F zf, Out& out) {",
              "    const auto x = widen(xf), y = widen(yf), z = widen(zf);",
              "    using V = decltype(widen(zf));",
              "    const V t = z * z;",
              "    const F tf = narrow(t);",
              "    const V c1 = x, s1 = y;"]
    for first in firsts:
        ms = [m for m in range(first, first + COLUMNS) if m > 0]
        if first > 0:
            lines.append("    if (L < %d) return;" % first)
        lines += ["    " + power_line(m) for m in ms if m > 1]
        lines.append("    shColumns%d(L, z, t, zf, tf, %sout);" % (
            first, "".join("xf, yf, " if m == 1 else "c%d, s%d, " % (m, m) for m in ms)))
    lines += ["}", "", "// Band L alone: coefficient L + m is out(L + m, value).", "template <int L> struct ShBand;", ""]
    for l in range(0, MAX_BAND + 1):
        lines += band(l)
    lines += ["} // namespace zenr::ZENR_LEVEL", ""]
    return "\n".join(lines)


def main(arguments):
    if len(arguments) == 1:
        with open(arguments[0], "w", encoding="ascii") as f:
            f.write(document())
        return 0
    if len(arguments) == 2 and arguments[0] == "--check":
        with open(arguments[1], encoding="ascii") as f:
            same = f.read() == document()
        print("%s: %s" % (arguments[1], "up to date" if same else "differs from what this script writes"))
        return 0 if same else 1
    print(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
