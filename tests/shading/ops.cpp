// The kernels that work ray by ray: which planes each takes, how it is called, and what it is compared with.
#include "shading/harness.h"

#include "reference/shading_reference.h"

namespace zenrtest {
namespace {

using zenr::Level;
using zenr::shadingKernels;

struct Triple {
    float v[3];
};
Triple at(const Planes& p, int first, int i) {
    return {{p.f(first)[i], p.f(first + 1)[i], p.f(first + 2)[i]}};
}
void put(const Planes& p, int first, int i, const Triple& t) {
    for (int k = 0; k < 3; ++k) p.f(first + k)[i] = t.v[k];
}

std::vector<Op> makeOps() {
    std::vector<Op> all;
    // Planes: incident 0, mask 3, normal 4, reflected 7.
    all.push_back({"castReflection", "fffmfffooo",
                   [](Level level, const Scene&, const Planes& p, int n) {
                       shadingKernels(level).castReflection(p.in3(0), p.n(3), p.in3(4), p.out3(7), n);
                   },
                   [](const Scene&, const Planes& p, int n) {
                       return zenrCastReflectionRay_32f(p.in3(0), p.n(3), p.in3(4), p.out3(7), n);
                   },
                   [](const Scene&, const Planes& p, int n) {
                       for (int i = 0; i < n; ++i) {
                           Triple out;
                           reference::reflection(at(p, 0, i).v, p.n(3)[i], at(p, 4, i).v, out.v);
                           put(p, 7, i, out);
                       }
                   }});
    // Side 0, normal 1, point 4, mask 7, cosine 8, direction 9.
    all.push_back(
        {"castShadow", "fffffffMoooo",
         [](Level level, const Scene& s, const Planes& p, int n) {
             shadingKernels(level).castShadow(s.shared, p.f(0), p.in3(1), p.in3(4), p.n(7), p.f(8), p.out3(9), n);
         },
         [](const Scene& s, const Planes& p, int n) {
             return zenrCastShadowSO_32f(s.shared, p.f(0), p.in3(1), p.in3(4), p.n(7), p.f(8), p.out3(9), n);
         },
         [](const Scene& s, const Planes& p, int n) {
             for (int i = 0; i < n; ++i) {
                 Triple out;
                 reference::shadow(s.shared, p.f(0)[i], at(p, 1, i).v, at(p, 4, i).v, &p.n(7)[i], &p.f(8)[i], out.v);
                 put(p, 9, i, out);
             }
         }});
    // Direction 0, distance 3, mask 4, hit point 5.
    all.push_back({"hitPointS0", "ffffmooo",
                   [](Level level, const Scene& s, const Planes& p, int n) {
                       shadingKernels(level).hitPointS0(s.shared, p.in3(0), p.f(3), p.n(4), p.out3(5), n, s.eps);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       return zenrHitPoint3DEpsS0_32f_M(s.shared, p.in3(0), p.f(3), p.n(4), p.out3(5), n, s.eps);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       for (int k = 0; k < 3; ++k)
                           for (int i = 0; i < n; ++i)
                               p.f(5 + k)[i] = reference::hitPoint(s.shared[k], p.f(k)[i], p.f(3)[i], p.n(4)[i], s.eps);
                   }});
    // Direction 0, distance 3, mask 4, origin 5, hit point 8.
    all.push_back({"hitPointM0", "ffffmfffooo",
                   [](Level level, const Scene& s, const Planes& p, int n) {
                       shadingKernels(level).hitPointM0(p.in3(5), p.in3(0), p.f(3), p.n(4), p.out3(8), n, s.eps);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       return zenrHitPoint3DEpsM0_32f_M(p.in3(5), p.in3(0), p.f(3), p.n(4), p.out3(8), n, s.eps);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       for (int k = 0; k < 3; ++k)
                           for (int i = 0; i < n; ++i)
                               p.f(8 + k)[i] =
                                   reference::hitPoint(p.f(5 + k)[i], p.f(k)[i], p.f(3)[i], p.n(4)[i], s.eps);
                   }});
    // Point 0, mask 3, distance 4.
    all.push_back({"distAttenuation", "fffmo",
                   [](Level level, const Scene& s, const Planes& p, int n) {
                       shadingKernels(level).distAttenuation(s.shared, p.in3(0), p.n(3), p.f(4), n);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       return zenrDistAttenuationSO_32f_M(s.shared, p.in3(0), p.n(3), p.f(4), n);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       for (int i = 0; i < n; ++i)
                           p.f(4)[i] = reference::attenuation(s.shared, at(p, 0, i).v, p.n(3)[i]);
                   }});
    // Triangle 0, normal 1.
    all.push_back({"surfFlatNormal", "tOOO",
                   [](Level level, const Scene& s, const Planes& p, int n) {
                       shadingKernels(level).surfFlatNormal(s.triangleNormals->data(), p.n(0), p.out3(1), n);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       return zenrSurfFlatNormal_32f(s.triangleNormals->data(), p.n(0), p.out3(1), n);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       for (int i = 0; i < n; ++i) {
                           Triple out;
                           reference::flatNormal(s.triangleNormals->data(), p.n(0)[i], out.v);
                           put(p, 1, i, out);
                       }
                   }});
    // Triangle 0, weights 1, normal 3.
    all.push_back({"surfSmoothNormal", "tffooo",
                   [](Level level, const Scene& s, const Planes& p, int n) {
                       shadingKernels(level).surfSmoothNormal(s.vertices->data(), s.triangles->data(), p.n(0), p.in3(1),
                                                              p.out3(3), n, s.stride);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       return zenrSurfSmoothNormal_32f(s.vertices->data(), s.triangles->data(), p.n(0), p.in3(1),
                                                       p.out3(3), n, s.stride);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       for (int i = 0; i < n; ++i) {
                           Triple out;
                           reference::smoothNormal(s.vertices->data(), s.triangles->data(), s.stride, p.n(0)[i],
                                                   p.f(1)[i], p.f(2)[i], out.v);
                           put(p, 3, i, out);
                       }
                   }});
    // a 0, b 3, mask 6, dot 7.
    all.push_back(
        {"dot", "ffffffmo",
         [](Level level, const Scene&, const Planes& p, int n) {
             shadingKernels(level).dot(p.in3(0), p.in3(3), p.n(6), p.f(7), n);
         },
         [](const Scene&, const Planes& p, int n) { return zenrDot_32f_P3C1M(p.in3(0), p.in3(3), p.n(6), p.f(7), n); },
         [](const Scene&, const Planes& p, int n) {
             for (int i = 0; i < n; ++i) p.f(7)[i] = reference::dot(at(p, 0, i).v, at(p, 3, i).v, p.n(6)[i]);
         }});
    // a 0, mask 3, normal 4, dot 7.
    all.push_back({"dotChangeNorm", "fffmXXXo",
                   [](Level level, const Scene&, const Planes& p, int n) {
                       shadingKernels(level).dotChangeNorm(p.in3(0), p.n(3), p.out3(4), p.f(7), n);
                   },
                   [](const Scene&, const Planes& p, int n) {
                       return zenrDotChangeNorm_32f_IM(p.in3(0), p.n(3), p.out3(4), p.f(7), n);
                   },
                   [](const Scene&, const Planes& p, int n) {
                       for (int i = 0; i < n; ++i) {
                           Triple normal = at(p, 4, i);
                           reference::dotChangeNorm(at(p, 0, i).v, p.n(3)[i], normal.v, &p.f(7)[i]);
                           put(p, 4, i, normal);
                       }
                   }});
    // src 0, mask 1, srcDst 2.
    all.push_back({"mulC1", "fmx",
                   [](Level level, const Scene&, const Planes& p, int n) {
                       shadingKernels(level).mulC1(p.f(0), p.n(1), p.f(2), n);
                   },
                   [](const Scene&, const Planes& p, int n) { return zenrMul_32f_C1IM(p.f(0), p.n(1), p.f(2), n); },
                   [](const Scene&, const Planes& p, int n) {
                       for (int i = 0; i < n; ++i) p.f(2)[i] = reference::product(p.f(2)[i], p.f(0)[i], p.n(1)[i]);
                   }});
    // src 0, mask 1, srcDst 2.
    all.push_back(
        {"mulC1P3", "fmxxx",
         [](Level level, const Scene&, const Planes& p, int n) {
             shadingKernels(level).mulC1P3(p.f(0), p.n(1), p.out3(2), n);
         },
         [](const Scene&, const Planes& p, int n) { return zenrMul_32f_C1P3IM(p.f(0), p.n(1), p.out3(2), n); },
         [](const Scene&, const Planes& p, int n) {
             for (int k = 0; k < 3; ++k)
                 for (int i = 0; i < n; ++i) p.f(2 + k)[i] = reference::product(p.f(2 + k)[i], p.f(0)[i], p.n(1)[i]);
         }});
    // src 0, mask 1, srcDst 2.
    all.push_back({"divC1", "fmx",
                   [](Level level, const Scene&, const Planes& p, int n) {
                       shadingKernels(level).divC1(p.f(0), p.n(1), p.f(2), n);
                   },
                   [](const Scene&, const Planes& p, int n) { return zenrDiv_32f_C1IM(p.f(0), p.n(1), p.f(2), n); },
                   [](const Scene&, const Planes& p, int n) {
                       for (int i = 0; i < n; ++i) p.f(2)[i] = reference::quotient(p.f(2)[i], p.f(0)[i], p.n(1)[i]);
                   }});
    // s 0, src 1, mask 4, srcDst 5.
    all.push_back({"addMulMul", "ffffmxxx",
                   [](Level level, const Scene& s, const Planes& p, int n) {
                       shadingKernels(level).addMulMul(s.shared, p.f(0), p.in3(1), p.n(4), p.out3(5), n);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       return zenrAddMulMul_32f_AC1P3IM(s.shared, p.f(0), p.in3(1), p.n(4), p.out3(5), n);
                   },
                   [](const Scene& s, const Planes& p, int n) {
                       for (int k = 0; k < 3; ++k)
                           for (int i = 0; i < n; ++i)
                               p.f(5 + k)[i] = reference::accumulated(s.shared[k], p.f(0)[i], p.f(1 + k)[i],
                                                                      p.f(5 + k)[i], p.n(4)[i]);
                   }});
    return all;
}

} // namespace

const std::vector<Op>& ops() {
    static const std::vector<Op> all = makeOps();
    return all;
}

} // namespace zenrtest
