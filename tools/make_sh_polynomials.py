#!/usr/bin/env python3
"""Writes src/sh/prshpoly.h: the polynomials of the real orthonormal spherical harmonics up to band 15.

    tools/make_sh_polynomials.py src/sh/prshpoly.h            writes the file
    tools/make_sh_polynomials.py --check src/sh/prshpoly.h    compares the file with what would be written

Y(l, +m) = N(l,m) * Q(l,m)(z) * Re (x + iy)^m and Y(l, -m) with Im, where Q(l,m) is the m-th derivative of the Legendre
polynomial of degree l and N(l,m) = (-1)^m sqrt((2 - [m=0]) (2l+1)/(4 pi) (l-m)!/(l+m)!). Coefficients of Q are exact
fractions; N*Q's are rounded to double once, from 80 digits.
"""
import sys
from decimal import Decimal, getcontext
from fractions import Fraction
from math import factorial
import struct

getcontext().prec = 80
MAX_BAND = 15
# Up to this degree in z a polynomial in z^2 costs no more multiplications than the two-term recurrence, and does not
# wait for the band below.
MAX_HORNER = 6


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


def horner(coefficients, odd):
    """The expression in t = z^2 (and one factor z when odd)."""
    e = text(coefficients[0])
    for i, c in enumerate(coefficients[1:]):
        e = ("%s * t" if i == 0 else "(%s) * t") % e + (" - " if c < 0 else " + ") + text(abs(c))
    if not odd:
        return e
    return ("(%s) * z" if len(coefficients) > 1 else "%s * z") % e


def recurrence_factors(l, m):
    a = decimal_of(Fraction(4 * l * l - 1, l * l - m * m)).sqrt()
    b = -decimal_of(Fraction(((l - 1) ** 2 - m * m) * (2 * l + 1), (l * l - m * m) * (2 * l - 3))).sqrt()
    return to_double(a), to_double(b)


def value_lines(l, m, name, expression, base, powers, powers_follow):
    """Evaluates one P(l,m) and hands out its one or two values; base: index of Y(l, 0)."""
    d = l - m
    if d == 0 and m > 0:
        k = text(horner_coefficients(l, m)[0])
        lines = ["    out(%d, narrow(%s * c));" % (base + m, k), "    out(%d, narrow(%s * s));" % (base - m, k)]
        return lines + (["    const auto cf = narrow(c), sf = narrow(s);"] if powers_follow else [])
    if m == 0:
        return ["    const V %s = %s;" % (name, expression), "    out(%d, narrow(%s));" % (base, name)]
    return ["    const V %s = %s;" % (name, expression), "    const auto f%s = narrow(%s);" % (name, name),
            "    out(%d, f%s * %s);" % (base + m, name, powers[0]), "    out(%d, f%s * %s);" % (base - m, name, powers[1])]


def c0_as_float():
    return struct.unpack("<f", struct.pack("<f", to_double(norm(0, 0))))[0]


def column(m):
    """Values of +m and -m for all bands from m up to the caller's order."""
    arguments = "int L, V z, V t, Out out" if m == 0 else "int L, V c, V s, V z, V t, Out out"
    if m == MAX_BAND - 1:
        arguments = "int L, V c, V s, V z, Out out"
    if m == MAX_BAND:
        arguments = "V c, V s, Out out"
    lines = ["template <class V, class Out> ZENR_SH_INLINE void shColumn%d(%s) {" % (m, arguments)]
    for l in range(m, MAX_BAND + 1):
        d = l - m
        if m == 0 and l == 0:
            lines.append("    out(0, narrow(splat<V>(%s)));" % text(c0_as_float()))
        else:
            if d <= MAX_HORNER:
                expression = horner(horner_coefficients(l, m), d % 2)
            else:
                expression = "%s * z * p%d - %s * p%d" % (
                    text(recurrence_factors(l, m)[0]), l - 1, text(-recurrence_factors(l, m)[1]), l - 2)
            lines += value_lines(l, m, "p%d" % l, expression, l * l + l, ("cf", "sf"), m < MAX_BAND)
        if l < MAX_BAND:
            lines.append("    if (L == %d) return;" % l)
    return lines + ["}", ""]


def band(l):
    """The 2l+1 values of band l alone."""
    unused = [n for n in ("x", "y") if l == 0] + [n for n in ("z",) if l == 0]
    lines = ["template <> struct ShBand<%d> {" % l,
             "    template <class V, class Out> static ZENR_SH_INLINE void values(V x, V y, V z, Out out) {"]
    body = []
    if l == 0:
        body += ["    (void)%s;" % n for n in unused]
        body.append("    out(0, narrow(splat<V>(%s)));" % text(c0_as_float()))
    else:
        if l == 1:
            body.append("    const V c = x, s = y;")
        else:
            body += ["    const V t = z * z;", "    V c = x, s = y, w;"]
        for m in range(0, l + 1):
            if m >= 2:
                body += ["    w = x * c - y * s;", "    s = x * s + y * c;", "    c = w;"]
            expression = horner(horner_coefficients(l, m), (l - m) % 2)
            body += value_lines(l, m, "q%d" % m, expression, l, ("narrow(c)", "narrow(s)"), False)
    return lines + ["    " + b for b in body] + ["    }", "};", ""]


def document():
    lines = [
        "// Polynomials of the real orthonormal spherical harmonics with the Condon-Shortley phase, bands 0..15.",
        "// Generated by tools/make_sh_polynomials.py; to remake it: python3 tools/make_sh_polynomials.py src/sh/prshpoly.h",
        "//",
        "// V is a type with the arithmetic of double (a number, a vector, a pair of vectors), narrow() rounds to float; out(k,",
        "// value) takes the value of coefficient k. t = z^2, and c + is = (x + iy)^m. The polynomials in z need double, their",
        "// products with c and s do not: three roundings to float leave at most 1.5 units in the last place. A polynomial of degree up to %d in z is evaluated in powers of"
        % MAX_HORNER,
        "// t, which takes the fewest multiplications; one of higher degree follows from the two bands below it.",
        "// clang-format off",
        "#pragma once",
        '#include "sh/prshpack.h"',
        "",
        "namespace zenr::ZENR_LEVEL {",
        "",
    ]
    for m in range(0, MAX_BAND + 1):
        lines += column(m)
    lines += ["// All values of the bands 0..L, L <= 15.",
              "template <class V, class Out> ZENR_SH_INLINE void shBands(int L, V x, V y, V z, Out out) {",
              "    const V t = z * z;",
              "    shColumn0(L, z, t, out);",
              "    if (L == 0) return;",
              "    shColumn1(L, x, y, z, t, out);",
              "    if (L == 1) return;"]
    previous = ("x", "y")
    for m in range(2, MAX_BAND + 1):
        lines.append("    const V c%d = x * %s - y * %s, s%d = x * %s + y * %s;"
                     % (m, previous[0], previous[1], m, previous[1], previous[0]))
        previous = ("c%d" % m, "s%d" % m)
        if m < MAX_BAND:
            lines += ["    shColumn%d(L, %s, %s, z, %sout);" % (m, *previous, "t, " if m < MAX_BAND - 1 else ""), "    if (L == %d) return;" % m]
        else:
            lines.append("    shColumn%d(%s, %s, out);" % (m, *previous))
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
