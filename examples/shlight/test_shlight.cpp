// The program as a user meets it: what it reports about maps whose harmonics are known, what it draws, and what it says
// about input that it cannot use.
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <sstream>

#include "pixels_test.h"
#include "program_test.h"
#include "writer.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

// The report, read back.
struct Report {
    std::vector<std::array<double, 3>> bands;
    std::vector<double> shares;
    double rest = 0, brightest = 0;
    std::array<double, 3> mean{};
    bool negative = false;
};

Report reportOf(const std::string& text) {
    Report report;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        int band;
        double r, g, b, share, so;
        if (std::sscanf(line.c_str(), "%d %lf %lf %lf %lf %% %lf", &band, &r, &g, &b, &share, &so) == 6) {
            EXPECT_EQ(band, static_cast<int>(report.bands.size()));
            report.bands.push_back({r, g, b});
            report.shares.push_back(share);
        } else if (std::sscanf(line.c_str(), "rest %lf %lf %lf %lf", &r, &g, &b, &share) == 4) {
            report.rest = share;
        }
        const size_t mean = line.find("mean light ");
        if (mean != std::string::npos) {
            EXPECT_EQ(std::sscanf(line.c_str() + mean, "mean light %lf %lf %lf, brightest %lf", &report.mean[0],
                                  &report.mean[1], &report.mean[2], &report.brightest),
                      4);
        }
        if (line.rfind("reconstruction: negative", 0) == 0) report.negative = true;
    }
    return report;
}

class Shlight : public ProgramTest {
protected:
    void write(const std::string& name, const std::string& bytes) const {
        std::ofstream(path("work/" + name), std::ios::binary) << bytes;
    }

    // A Radiance file of a function of the direction: x at the middle column, y to its left, z up.
    template <class Function> void writeMap(const std::string& name, int height, const Function& light) const {
        const int width = 2 * height;
        std::vector<float> rgb;
        for (int row = 0; row < height; ++row)
            for (int column = 0; column < width; ++column) {
                const double theta = kPi * (row + 0.5) / height, phi = kPi - 2 * kPi * (column + 0.5) / width;
                const std::array<double, 3> v =
                    light(std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta));
                for (double c : v) rgb.push_back(static_cast<float>(c));
            }
        ASSERT_NE(stbi_write_hdr(path("work/" + name).c_str(), width, height, 3, rgb.data()), 0);
    }

    Report report(const std::string& arguments) const {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return reportOf(outcome.out);
    }

    Pixels picture(const std::string& arguments, const std::string& name) const {
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        return decode(slurp(path("work/" + name)));
    }

    // A dump of an octahedron.
    void writeMesh() const {
        const float vertices[6][3] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
        const int32_t triangles[8][3] = {{0, 2, 4}, {2, 1, 4}, {1, 3, 4}, {3, 0, 4},
                                         {2, 0, 5}, {1, 2, 5}, {3, 1, 5}, {0, 3, 5}};
        const uint32_t counts[2] = {6, 8};
        std::string body(reinterpret_cast<const char*>(counts), sizeof counts);
        body.append(reinterpret_cast<const char*>(vertices), sizeof vertices);
        body.append(reinterpret_cast<const char*>(triangles), sizeof triangles);
        uint32_t sum = 0x811c9dc5;
        for (const unsigned char c : body) sum = (sum ^ c) * 0x01000193;
        const uint32_t head[2] = {1, sum};
        write("m.mesh", "ZRMESH\r\n" + std::string(reinterpret_cast<const char*>(head), sizeof head) + body);
    }
};

TEST_F(Shlight, HelpIsNotAnError) {
    const Outcome outcome = run("--help");
    EXPECT_EQ(outcome.code, 0);
    EXPECT_NE(outcome.out.find("--window"), std::string::npos);
    EXPECT_TRUE(outcome.err.empty());
}

TEST_F(Shlight, EnergiesAreThoseOfKnownFunctions) {
    // 1: band 0 alone, of energy 4 pi. z: band 1 alone, of a third of that, as z^2 has the mean 1/3. x z: band 2 alone.
    writeMap("map.hdr", 64, [](double x, double, double z) { return std::array<double, 3>{1, 1 + z / 2, 1 + x * z}; });
    for (const char* type : {"", " --type recurrence"}) {
        const Report r = report(std::string("--env map.hdr -L 3") + type);
        ASSERT_EQ(r.bands.size(), 4u);
        // A Radiance pixel has eight bits of a colour, the rest is cut off.
        EXPECT_NEAR(r.bands[0][0], 4 * kPi, 0.03);
        EXPECT_NEAR(r.bands[0][1], 4 * kPi, 0.12);
        EXPECT_NEAR(r.bands[0][2], 4 * kPi, 0.12);
        EXPECT_NEAR(r.bands[1][1], kPi / 3, 0.02);
        EXPECT_NEAR(r.bands[2][2], 4 * kPi / 15, 0.02);
        for (const auto& [band, channel] : {std::pair{1, 0}, {2, 0}, {2, 1}, {1, 2}, {3, 1}, {3, 2}})
            EXPECT_LT(r.bands[band][channel], 0.002) << band << " " << channel;
        EXPECT_LT(std::abs(r.rest), 0.05);
        for (double mean : r.mean) EXPECT_NEAR(mean, 1, 0.005);
        EXPECT_FALSE(r.negative);
    }
}

TEST_F(Shlight, EachOrderAddsItsBandsAndChangesNoOther) {
    const Report all = report("--sky -L 15");
    ASSERT_EQ(all.bands.size(), 16u);
    double sum = all.rest;
    for (double share : all.shares) sum += share;
    EXPECT_NEAR(sum, 100, 0.05);
    for (int order : {0, 1, 7}) {
        const Report some = report("--sky -L " + std::to_string(order));
        ASSERT_EQ(some.bands.size(), order + 1u);
        for (int l = 0; l <= order; ++l) EXPECT_EQ(some.bands[l], all.bands[l]);
    }
}

TEST_F(Shlight, PngIsReadAsSrgb) {
    // Byte 188 is a linear light of 0.503; 16 bits of the same value too.
    std::vector<unsigned char> grey(32 * 16 * 3, 188);
    ASSERT_NE(stbi_write_png(path("work/grey.png").c_str(), 32, 16, 3, grey.data(), 0), 0);
    const Report r = report("--env grey.png -L 2");
    for (double mean : r.mean) EXPECT_NEAR(mean, 0.50289, 1e-4);
    EXPECT_NEAR(r.shares[0], 100, 1e-3);
}

TEST_F(Shlight, SavedEnvironmentIsReadBack) {
    const Report before = report("--sky -L 2 --save-env sky.hdr");
    const Report after = report("--env sky.hdr -L 2");
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(after.mean[k] / before.mean[k], 1, 0.005);
    EXPECT_NEAR(after.brightest / before.brightest, 1, 0.01);
    EXPECT_NEAR(after.shares[1], before.shares[1], 0.05);
    // Once rounded to the format, it stays.
    ASSERT_EQ(run("--env sky.hdr --save-env again.hdr").code, 0);
    EXPECT_EQ(slurp(path("work/sky.hdr")), slurp(path("work/again.hdr")));
}

TEST_F(Shlight, RingsAreReportedAndDamped) {
    writeMap("spot.hdr", 64, [](double x, double, double) {
        const double v = x > 0.98 ? 50.0 : 0.01;
        return std::array<double, 3>{v, v, v};
    });
    EXPECT_TRUE(report("--env spot.hdr -L 6").negative);
    const auto lowest = [&](const std::string& window) {
        const Outcome outcome = run("--env spot.hdr -L 6 --window " + window);
        const size_t at = outcome.out.find("down to ");
        return at == std::string::npos ? 0.0 : std::atof(outcome.out.c_str() + at + 8);
    };
    EXPECT_LT(lowest("none"), 3 * lowest("lanczos") - 1e-3);
    EXPECT_NE(run("--env spot.hdr -L 6").out.find("drawn as none"), std::string::npos);
}

TEST_F(Shlight, MapsShowWhatTheOrderKeeps) {
    // Brighter to the left and upwards: band 1 alone has it all.
    writeMap("map.hdr", 64, [](double, double y, double z) {
        return std::array<double, 3>{1 + 0.5 * y, 1 + 0.5 * z, 1};
    });
    const Pixels maps = picture("--env map.hdr -L 1 --maps maps.png -q", "maps.png");
    const int width = 128, height = 64, gap = 8;
    ASSERT_EQ(maps.width, 2 * width + 3 * gap);
    ASSERT_EQ(maps.height, 2 * height + 3 * gap);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const auto& original = maps.at(gap + x, gap + y);
            const auto& reconstructed = maps.at(2 * gap + width + x, gap + y);
            const auto& difference = maps.at(2 * gap + width + x, 2 * gap + height + y);
            for (int k = 0; k < 3; ++k) {
                ASSERT_NEAR(original[k], reconstructed[k], 2) << x << " " << y;
                ASSERT_LT(difference[k], 30) << x << " " << y;
            }
        }
    // Matt surfaces have 2/3 of the slope.
    const auto slope = [&](int row) { return maps.at(gap + width / 4, row)[0] - maps.at(gap + 3 * width / 4, row)[0]; };
    EXPECT_GT(slope(gap + height / 2), 20);
    EXPECT_NEAR(slope(2 * gap + height + height / 2), slope(gap + height / 2) * 2 / 3, 4);

    // Order 0 keeps the mean and nothing else.
    const Pixels flat = picture("--env map.hdr -L 0 --maps maps.png -q", "maps.png");
    for (int x = 0; x < width; ++x)
        EXPECT_EQ(flat.at(2 * gap + width + x, gap + 3), flat.at(2 * gap + width, gap + 50));
}

TEST_F(Shlight, LightComesFromWhereTheMapIsBright) {
    writeMesh();
    writeMap("left.hdr", 32, [](double, double y, double) {
        const double v = y > 0 ? 1.0 : 0.0;
        return std::array<double, 3>{v, v, v};
    });
    const std::string common = "m.mesh --env left.hdr -q -s 96x72 --samples 1 --turn 0 --tilt 0 --gloss 0 ";
    const auto side = [](const Pixels& p, int x) {
        int sum = 0;
        for (int y = 26; y < 46; ++y) sum += p.at(x, y)[1];
        return sum / 20;
    };
    Pixels p = picture(common + "-o p.png", "p.png");
    ASSERT_EQ(p.width, 96);
    ASSERT_EQ(p.height, 72);
    EXPECT_GT(side(p, 38), side(p, 58) + 40);
    EXPECT_GT(side(p, 4), 100) << "the map is seen left of the mesh";
    EXPECT_LT(side(p, 91), 10) << "and its dark half right of it";
    p = picture(common + "-o p.png --turn-env 180", "p.png");
    EXPECT_GT(side(p, 58), side(p, 38) + 40);
    EXPECT_LT(side(p, 4), 10);
    // The picture's name of its own accord, and the background that the harmonics keep: no sharp edge.
    p = picture(common + "-L 3 --background light", "shlight.png");
    EXPECT_GT(side(p, 4), side(p, 91) + 60);

    // In even light everything matt is evenly bright.
    writeMap("even.hdr", 32, [](double, double, double) { return std::array<double, 3>{1, 1, 1}; });
    p = picture("m.mesh --env even.hdr -q -s 96x72 --samples 1 --gloss 0 --shine 5 -o p.png", "p.png");
    for (int y = 32; y < 40; ++y)
        for (int x = 42; x < 54; ++x)
            for (int k = 0; k < 3; ++k) EXPECT_NEAR(p.at(x, y)[k], p.at(48, 36)[k], 1);
    EXPECT_NE(p.at(48, 36), p.at(1, 1));
}

TEST_F(Shlight, SameBytesForAnyThreadsAndTiles) {
    writeMesh();
    const auto files = [&](const std::string& options) {
        const Outcome outcome = run("m.mesh --sky -q -s 61x47 -o p.png --maps maps.png " + options);
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_TRUE(outcome.out.empty() && outcome.err.empty()) << outcome.out << outcome.err;
        return slurp(path("work/p.png")) + slurp(path("work/maps.png"));
    };
    const std::string one = files("-j 1 --tile 64");
    ASSERT_GT(one.size(), 1000u);
    for (const char* work : {"-j 1 --tile 1", "-j 2 --tile 7", "-j 5 --tile 32"}) EXPECT_EQ(files(work), one) << work;
    EXPECT_NE(files("--flat"), one);
    EXPECT_NE(files("--exposure 1"), one);
    EXPECT_NE(files("--sun 5"), one);
    EXPECT_NE(files("--shine 200"), one);
}

TEST_F(Shlight, BadInputIsRefusedInOneLine) {
    writeMesh();
    writeMap("map.hdr", 8, [](double, double, double) { return std::array<double, 3>{1, 1, 1}; });
    std::vector<unsigned char> grey(32 * 32 * 3, 188);
    ASSERT_NE(stbi_write_png(path("work/square.png").c_str(), 32, 32, 3, grey.data(), 0), 0);
    ASSERT_NE(stbi_write_png(path("work/good.png").c_str(), 32, 16, 3, grey.data(), 0), 0);
    const std::string png = slurp(path("work/good.png"));
    write("cut.png", png.substr(0, png.size() / 2));
    write("text.png", "this is no picture\n");
    write("empty.png", "");
    const std::string hdr = slurp(path("work/map.hdr"));
    write("cut.hdr", hdr.substr(0, 20));
    write("short.hdr", hdr.substr(0, hdr.size() - 1));
    writeMap("wide.hdr", 64, [](double x, double y, double z) { return std::array<double, 3>{1 + x, 1 + y, 1 + z}; });
    const std::string rows = slurp(path("work/wide.hdr"));
    write("half.hdr", rows.substr(0, rows.size() / 2));
    write("almost.hdr", rows.substr(0, rows.size() - 1));
    std::string stuck = rows;
    stuck[rows.find("\n", rows.find("\n\n") + 2) + 5] = 0; // no pixels in the first run
    write("stuck.hdr", stuck);
    // Light of 2^127 in each colour of each pixel.
    write("bright.hdr", "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 2 +X 4\n" + std::string(4 * 8, '\xff'));

    expectRefused("", "--env");
    expectRefused("m.mesh", "--env");
    expectRefused("m.mesh --sky --env map.hdr", "--env");
    expectRefused("--env none.hdr", "none.hdr");
    expectRefused("--env " + folder_, "not a regular file");
    expectRefused("--env square.png", "twice as wide");
    expectRefused("--env cut.png", "cut.png");
    expectRefused("--env text.png", "text.png");
    expectRefused("--env empty.png", "empty.png");
    expectRefused("--env cut.hdr", "cut.hdr");
    for (const std::string name : {"short", "half", "almost", "stuck"})
        expectRefused("--env " + name + ".hdr", name + ".hdr: is cut off or damaged");
    expectRefused("m.mesh --sky -o p.png --maps ./p.png", "two outputs");
    expectRefused("--sky --maps p.hdr --save-env p.hdr", "two outputs");
    expectRefused("--env bright.hdr", "too bright");
    expectRefused("--sky -L 16", "--order");
    expectRefused("--sky -L -1", "--order");
    expectRefused("--sky --window boxcar", "--window");
    expectRefused("--sky --type best", "--type");
    expectRefused("--sky --sun 91", "--sun");
    expectRefused("--sky --gloss nan", "--gloss");
    expectRefused("--sky --exposure 21", "--exposure");
    expectRefused("--sky --background none", "--background");
    expectRefused("--sky --nonsense", "--nonsense");
    expectRefused("--sky -o p.png", "MESH");
    expectRefused("none.mesh --sky", "none.mesh");
    expectRefused("map.hdr --sky", "map.hdr");
    expectRefused("m.mesh --sky -o missing/p.png", "missing/p.png");
    expectRefused("--sky --maps missing/m.png", "missing/m.png");
    expectRefused("--sky --save-env missing/s.hdr", "missing/s.hdr");
    expectRefused("m.mesh --sky --size 10", "--size");
    expectRefused("m.mesh --sky --tile 400 --samples 2", "--tile");
}

} // namespace
