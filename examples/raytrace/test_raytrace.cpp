// The program as a user meets it: runs it, reads what it says and the pictures that it writes. The path of the program
// comes in the environment variable PROGRAM.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <limits>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "pixels_test.h"
#include "program_test.h"

namespace {

class Raytrace : public ProgramTest {
protected:
    // Nothing is ever left where these tests run bad commands.
    void expectRefused(const std::string& arguments, const std::string& word) const {
        ProgramTest::expectRefused(arguments, word);
        EXPECT_TRUE(filesOfWork().empty()) << arguments << " left " << filesOfWork()[0];
    }

    void write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }
};

// A dump as a second hand would write it.
struct Dump {
    std::string magic{"ZRMESH\r\n"};
    uint32_t version = 1;
    std::vector<std::array<float, 3>> vertices{{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    std::vector<std::array<int32_t, 3>> triangles{{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4},
                                                  {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}};
    uint32_t extraVertices = 0, extraTriangles = 0, checksumError = 0; // lies of the header

    std::string bytes() const {
        const uint32_t counts[2] = {static_cast<uint32_t>(vertices.size()) + extraVertices,
                                    static_cast<uint32_t>(triangles.size()) + extraTriangles};
        std::string body(reinterpret_cast<const char*>(counts), 8);
        for (const auto& v : vertices) body.append(reinterpret_cast<const char*>(v.data()), 12);
        for (const auto& t : triangles) body.append(reinterpret_cast<const char*>(t.data()), 12);
        uint32_t sum = 0x811c9dc5;
        for (const unsigned char c : body) {
            sum ^= c;
            sum *= 0x01000193;
        }
        const uint32_t head[2] = {version, sum + checksumError};
        return magic + std::string(reinterpret_cast<const char*>(head), 8) + body;
    }
};

TEST_F(Raytrace, HelpIsNotAnError) {
    const Outcome outcome = run("--help");
    EXPECT_EQ(outcome.code, 0);
    EXPECT_NE(outcome.out.find("--samples"), std::string::npos);
    EXPECT_TRUE(outcome.err.empty());
}

TEST_F(Raytrace, BadOptionsAreRefusedInOneLine) {
    write("m.mesh", Dump().bytes());
    const std::string mesh = path("m.mesh") + " ";
    expectRefused("", "MESH");
    expectRefused(mesh + "--nonsense", "--nonsense");
    expectRefused(mesh + "--size 640", "--size");
    expectRefused(mesh + "--size 0x10", "--size");
    expectRefused(mesh + "--size 10x-1", "--size");
    expectRefused(mesh + "--size 10x16385", "--size");
    expectRefused(mesh + "--size 10x10x10", "--size");
    expectRefused(mesh + "--samples 0", "--samples");
    expectRefused(mesh + "--samples 17", "--samples");
    expectRefused(mesh + "--samples two", "--samples");
    expectRefused(mesh + "--samples 16 --tile 33", "--tile");
    expectRefused(mesh + "--tile 0", "--tile");
    expectRefused(mesh + "--threads -1", "--threads");
    expectRefused(mesh + "--builder best", "--builder");
    expectRefused(mesh + "--ratio 1.01", "--ratio");
    expectRefused(mesh + "--ratio nan", "--ratio");
    expectRefused(mesh + "--depth 51", "--depth");
    expectRefused(mesh + "--memory 32", "--memory");
    expectRefused(mesh + "--fov 180", "--fov");
    expectRefused(mesh + "--show beauty", "--show");
    expectRefused(mesh + "--eye 1,2", "--eye");
    expectRefused(mesh + "--eye 1,2,3,4", "--eye");
    expectRefused(mesh + "--eye 1,2,inf", "--eye");
    expectRefused(mesh + "--light a,b,c", "--light");
    expectRefused(mesh + "--up 0,0,0", "--up");
    expectRefused(mesh + "--target 0,0,0 --eye 0,0,0", "--eye");
    expectRefused(mesh + "--target 0,0,0 --eye 0,5,0", "--up");
}

TEST_F(Raytrace, MeshesThatCannotBeReadAreRefused) {
    expectRefused(path("missing.obj"), "missing.obj");
    expectRefused(folder_, "not a regular file");
    write("empty.obj", "");
    expectRefused(path("empty.obj"), "empty");
    write("noise.obj", "this is not a mesh\n");
    expectRefused(path("noise.obj"), "noise.obj");
    write("noise", std::string("\x7f\0\1\2", 4));
    expectRefused(path("noise"), "noise");
#ifdef EXAMPLES_WITH_ASSIMP
    write("points.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\n");
    expectRefused(path("points.obj"), "points.obj");
    write("nan.obj", "v 0 0 0\nv nan 0 0\nv 0 1 0\nf 1 2 3\n");
    expectRefused(path("nan.obj"), "finite");
#endif
}

TEST_F(Raytrace, DamagedDumpsAreRefused) {
    const auto refused = [this](const std::string& bytes, const std::string& word) {
        write("m.mesh", bytes);
        expectRefused(path("m.mesh"), word);
    };
    const std::string good = Dump().bytes();
    for (size_t cut : {size_t{8}, size_t{9}, size_t{23}}) refused(good.substr(0, cut), "cut off");
    for (size_t cut : {size_t{24}, good.size() - 1}) refused(good.substr(0, cut), "bytes");
    refused(good + "x", "bytes");
    for (size_t at = 24; at < good.size(); at += 13) {
        std::string bad = good;
        bad[at] = static_cast<char>(bad[at] ^ 0x10);
        refused(bad, "checksum");
    }
    Dump dump;
    dump.version = 2;
    refused(dump.bytes(), "version");
    dump = {};
    dump.checksumError = 1;
    refused(dump.bytes(), "checksum");
    // 2^32 bytes more than there are.
    dump = {};
    dump.extraVertices = 0x55555555;
    dump.extraTriangles = 0x55555555;
    refused(dump.bytes(), "bytes");
    dump = {};
    dump.extraVertices = 1;
    refused(dump.bytes(), "bytes");
    dump = {};
    dump.extraVertices = 1; // the size still fits, and so does the checksum
    dump.extraTriangles = static_cast<uint32_t>(-1);
    dump.triangles[4] = {0, 2, 7};
    refused(dump.bytes(), "refers to a vertex");
    dump = {};
    dump.triangles[7][2] = 6;
    refused(dump.bytes(), "refers to a vertex");
    dump.triangles[7][2] = -1;
    refused(dump.bytes(), "refers to a vertex");
    dump = {};
    dump.triangles.clear();
    refused(dump.bytes(), "no triangles");
    dump.vertices.clear();
    refused(dump.bytes(), "no triangles");
    for (float v : {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()}) {
        dump = {};
        dump.vertices[5][1] = v;
        refused(dump.bytes(), "finite");
    }
    dump = {};
    for (auto& v : dump.vertices) v = {1, 2, 3};
    refused(dump.bytes(), "no extent");
}

TEST_F(Raytrace, UnwritableOutputIsRefused) {
    write("m.mesh", Dump().bytes());
    const std::string mesh = path("m.mesh") + " ";
    expectRefused(mesh + "-o nowhere/a.png", "nowhere/a.png");
    expectRefused(mesh + "-o " + folder_, "not a regular file");
    expectRefused(mesh + "-o /dev/null", "not a regular file");
    expectRefused(mesh + "--dump nowhere/a.mesh", "nowhere/a.mesh");
    expectRefused(mesh + "-o " + path("a.png") + " --dump " + path("./a.png"), "two outputs");
    // What was there before stays when the mesh turns out to be unusable.
    write("old.png", "old");
    expectRefused(path("missing") + " -o " + path("old.png"), "missing");
    EXPECT_EQ(slurp(path("old.png")), "old");
}

TEST_F(Raytrace, DumpOfADumpIsTheSame) {
    write("m.mesh", Dump().bytes());
    const Outcome outcome = run(path("m.mesh") + " --dump copy.mesh");
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_EQ(slurp(path("work/copy.mesh")), Dump().bytes());
    EXPECT_EQ(filesOfWork().size(), 1u) << "a dump alone renders nothing";
}

#ifdef EXAMPLES_WITH_ASSIMP
TEST_F(Raytrace, FilesAreMergedTriangulatedAndJoined) {
    // Two quads of two groups that share an edge, its vertices given twice: four triangles over six places.
    write("two.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 1 0 0\nv 2 0 0\nv 2 1 0\nv 1 1 0\nv 9 9 9\n"
                     "g a\nf 1 2 3 4\ng b\nf 5 6 7 8\n");
    const Outcome outcome = run(path("two.obj") + " --dump two.mesh");
    EXPECT_EQ(outcome.code, 0) << outcome.err;
    EXPECT_NE(outcome.out.find("4 triangles, 6 vertices"), std::string::npos) << outcome.out;
}
#endif

TEST_F(Raytrace, PictureShowsMeshShadowAndReflection) {
    write("m.mesh", Dump().bytes());
    const auto picture = [&](const std::string& options) {
        const Outcome outcome = run(path("m.mesh") + " -q -s 96x72 --samples 1 -o p.png " + options);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_TRUE(outcome.out.empty() && outcome.err.empty()) << outcome.out << outcome.err;
        return decode(slurp(path("work/p.png")));
    };
    const auto differing = [](const Pixels& a, const Pixels& b) {
        int count = 0;
        for (size_t i = 0; i < a.rgb.size(); ++i) count += a.rgb[i] != b.rgb[i];
        return count;
    };
    const Pixels full = picture("");
    ASSERT_EQ(full.width, 96);
    ASSERT_EQ(full.height, 72);
    ASSERT_EQ(full.rgb.size(), 96u * 72u);
    EXPECT_GT(full.at(48, 36)[0], full.at(48, 36)[2] + 20) << "the mesh is warm";
    EXPECT_GT(full.at(48, 1)[2], full.at(48, 1)[0]) << "the sky is not";

    // Without a ground only the mesh stands out against the sky, which is smooth: it has its share of the picture.
    const Pixels alone = picture("--no-ground");
    int warm = 0;
    for (const auto& p : alone.rgb) warm += p[0] > p[2];
    EXPECT_GT(warm, 96 * 72 / 20);
    EXPECT_LT(warm, 96 * 72 * 3 / 4);

    // The reflection is what a dull ground lacks.
    const Pixels dull = picture("--mirror 0");
    EXPECT_GT(differing(full, dull), 96 * 72 / 20);

    // The shadow is on the side away from the light: it moves with it.
    const Pixels fromLeft = picture("--mirror 0 --turn 0 --light=-6,4,0"),
                 fromRight = picture("--mirror 0 --turn 0 --light=6,4,0");
    const auto brightness = [](const Pixels& p, int left) {
        int64_t sum = 0;
        for (int y = 40; y < 72; ++y)
            for (int x = left; x < left + 36; ++x) sum += p.at(x, y)[0] + p.at(x, y)[1] + p.at(x, y)[2];
        return sum;
    };
    EXPECT_GT(brightness(fromLeft, 0), brightness(fromLeft, 60));
    EXPECT_LT(brightness(fromRight, 0), brightness(fromRight, 60));

    EXPECT_GT(differing(full, picture("--flat")), 96 * 72 / 50);
    EXPECT_GT(differing(full, picture("--gloss 0.5")), 96 * 72 / 50);
}

TEST_F(Raytrace, SameBytesForAnyThreadsAndTiles) {
    write("m.mesh", Dump().bytes());
    const auto picture = [&](const std::string& options) {
        const Outcome outcome = run(path("m.mesh") + " -q -s 61x47 --samples 2 --gloss 0.2 -o p.png " + options);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return slurp(path("work/p.png"));
    };
    for (const std::string show : {"", "--show cost "}) {
        const std::string one = picture(show + "-j 1 --tile 64");
        ASSERT_GT(one.size(), 100u);
        for (const char* work : {"-j 1 --tile 1", "-j 2 --tile 7", "-j 3 --tile 32", "-j 16 --tile 5", "--tile 47"})
            EXPECT_EQ(picture(show + work), one) << work;
    }
}

TEST_F(Raytrace, SummaryNamesWhatWasDone) {
    write("m.mesh", Dump().bytes());
    const Outcome outcome = run(path("m.mesh") + " -s 32x32 --builder simple");
    EXPECT_EQ(outcome.code, 0);
    for (const char* words : {"10 triangles", "10 vertices", "simple, 1 nodes", "56 bytes", "eye", "4096 rays",
                              "shadow", "reflection", "raytrace.png"})
        EXPECT_NE(outcome.out.find(words), std::string::npos) << words << " in\n" << outcome.out;
    EXPECT_EQ(decode(slurp(path("work/raytrace.png"))).width, 32);
    EXPECT_NE(outcome.err.find("100 %"), std::string::npos);
    EXPECT_EQ(outcome.err.find('\r'), std::string::npos) << "draws in place on terminals only";
}

} // namespace
